#include "host/MetricsReport.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>

#include "host/JsonTree.h"

namespace SentrelHost {

namespace {

using Labels = std::vector<std::pair<char const *, String>>;

struct Sample {
   Labels labels;
   std::uint64_t value;
};

struct Family {
   char const *name;
   char const *help;
   std::vector<Sample> samples;
};

enum : std::size_t { Fact, FactInfo, SetMember, MapEntry, EntityPresent, UnknownFact, Warnings, LastRun, BuildInfo };
using Families = std::array<Family, BuildInfo + 1>;

// The families in the order they are printed; each is printed even without
// samples, so a reader sees what the format offers.
Families emptyFamilies() {
   return {{
      {"sentrel_fact", "Boolean (0 or 1) or number attribute of a present entity of the state tree.", {}},
      {"sentrel_fact_info", "String attribute of a present entity, in the label value; always 1.", {}},
      {"sentrel_set_member", "Member of a set attribute of a present entity; always 1.", {}},
      {"sentrel_map_entry", "Entry of a map attribute of a present entity, by key.", {}},
      {"sentrel_entity_present", "Whether the entity exists: 1 present, 0 absent.", {}},
      {"sentrel_unknown_fact",
       "Fact that could not be read (the JSON report says why); always 1. An empty attribute stands for the whole "
       "entity.",
       {}},
      {"sentrel_warnings", "Log messages of this name that the run emitted.", {}},
      {"sentrel_last_run_timestamp_seconds", "When the run was made, in seconds since the epoch.", {}},
      {"sentrel_build_info", "The version of sentrel that made the run; always 1.", {}},
   }};
}

// One attribute's samples, by the kind of its generic value. A variant's
// numbers are facts named by their JSON path: attribute.alternative.field.
void addAttribute(Families &f, String const &entity, String const &name, Loom::Value const &v) {
   auto const add = [&](std::size_t family, Labels labels, std::uint64_t value) {
      labels.insert(labels.begin(), {{"entity", entity}, {"attribute", name}});
      f[family].samples.push_back({std::move(labels), value});
   };
   std::visit(
      [&](auto const &x) {
         using T = std::decay_t<decltype(x)>;
         if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, std::uint64_t>) {
            add(Fact, {}, x);
         } else if constexpr (std::is_same_v<T, String>) {
            add(FactInfo, {{"value", x}}, 1);
         } else if constexpr (std::is_same_v<T, std::vector<String>>) {
            for (auto const &m : x) add(SetMember, {{"member", m}}, 1);
         } else if constexpr (std::is_same_v<T, std::vector<std::pair<String, std::uint32_t>>>) {
            for (auto const &[k, n] : x) add(MapEntry, {{"key", k}}, n);
         } else if constexpr (std::is_same_v<T, Loom::VariantValue>) {
            if (x.fields.empty()) add(FactInfo, {{"value", x.text}}, 1);
            for (auto const &[field, n] : x.fields) {
               f[Fact].samples.push_back(
                  {{{"entity", entity}, {"attribute", name + "." + x.alternative + "." + field}}, n});
            }
         }
      },
      v);
}

Families collect(ReportModel const &m) {
   auto f = emptyFamilies();
   for (auto const &e : m.entities) {
      f[EntityPresent].samples.push_back({{{"entity", e.path}}, e.present ? 1u : 0u});
      for (auto const &fact : e.facts) addAttribute(f, e.path, fact.name, fact.value);
   }
   auto unknown = [&](String const &entity, String const &attribute) {
      f[UnknownFact].samples.push_back({{{"entity", entity}, {"attribute", attribute}}, 1});
   };
   for (auto const &e : m.entities) {
      if (e.unknown) unknown(e.path, {});
      for (auto const &fact : e.facts) {
         if (fact.unknown) unknown(e.path, fact.name);
      }
   }
   std::map<String, std::uint64_t> warnings;
   for (auto const &l : m.log) ++warnings[l.name];
   for (auto const &[name, n] : warnings) f[Warnings].samples.push_back({{{"name", name}}, n});
   if (m.run) {
      f[LastRun].samples.push_back({{}, static_cast<std::uint64_t>(std::max<std::int64_t>(m.run->time, 0))});
      f[BuildInfo].samples.push_back({{{"version", m.run->version}}, 1});
   }
   return f;
}

// A label value as the format wants it: UTF-8 with backslash, double quote
// and line feed escaped. jsonQuote already turns a byte that is not part of
// valid UTF-8 into the code point of the same value, as the JSON report
// shows it, and escapes those three the same way; its other escapes are
// turned back into the characters.
String labelValue(String const &bytes) {
   String const q = jsonQuote(bytes);
   String out;
   for (std::size_t i = 1; i + 1 < q.size(); ++i) {
      if (q[i] != '\\') {
         out += q[i];
         continue;
      }
      char const c = q[++i];
      if (c == 'r' || c == 't') {
         out += c == 'r' ? '\r' : '\t';
      } else if (c == 'u') {
         unsigned cp = 0;
         std::from_chars(q.data() + i + 1, q.data() + i + 5, cp, 16);
         i += 4;
         if (cp < 0x80) {
            out += static_cast<char>(cp);
         } else {
            out += static_cast<char>(0xC0 | cp >> 6);
            out += static_cast<char>(0x80 | (cp & 0x3F));
         }
      } else {
         out += '\\';
         out += c;
      }
   }
   return out;
}

}  // namespace

String metricsReport(ReportModel const &m) {
   String out;
   for (auto const &f : collect(m)) {
      out += String("# HELP ") + f.name + " " + f.help + "\n# TYPE " + f.name + " gauge\n";
      for (auto const &s : f.samples) {
         out += f.name;
         char sep = '{';
         for (auto const &[k, v] : s.labels) {
            out += sep;
            out += String(k) + "=\"" + labelValue(v) + "\"";
            sep = ',';
         }
         out += s.labels.empty() ? " " : "} ";
         out += std::to_string(s.value) + "\n";
      }
   }
   return out;
}

}  // namespace SentrelHost
