
#include "Sentrel/types/StateTree.h"
#include "Sentrel/platform/Toggle.h"
#include "host/Host.h"
#include "host/LiveInputs.h"
#include "host/MetricsReport.h"
#include "host/ValueJson.h"
#include "host/Version.h"

namespace SentrelHost {

namespace {

template <class Writer>
void key(Writer &w, std::string_view k) {
   auto q = jsonQuote(k);
   w.RawValue(q.c_str(), q.size(), rapidjson::kStringType);
}

template <class Writer>
void writeEntities(Writer &w, Ledger::EntityManager const &em, std::optional<String> const &only) {
   w.StartObject();
   for (auto const &e : Sentrel::stateTree()) {
      if (only && *only != e.path) continue;
      key(w, e.path);
      writeJsonObject(w, em.lookup(e.path).ptr());
   }
   w.EndObject();
}

// Text for people: control characters and bytes of broken UTF-8 escaped.
String printable(std::string_view s) {
   String out;
   appendJsonEscaped(out, s);
   return out;
}

// Sentences for people: like printable, but quotes stay as they are.
void appendProse(String &out, std::string_view s) {
   std::size_t pos = 0;
   for (std::size_t q; (q = s.find('"', pos)) != std::string_view::npos; pos = q + 1) {
      appendJsonEscaped(out, s.substr(pos, q - pos));
      out += '"';
   }
   appendJsonEscaped(out, s.substr(pos));
}

String prose(std::string_view s) {
   String out;
   appendProse(out, s);
   return out;
}

String valueText(Loom::Value const &v) {
   return std::visit(
      [](auto const &x) -> String {
         using T = std::decay_t<decltype(x)>;
         if constexpr (std::is_same_v<T, bool>) {
            return x ? "true" : "false";
         } else if constexpr (std::is_same_v<T, std::uint64_t>) {
            return std::to_string(x);
         } else if constexpr (std::is_same_v<T, String>) {
            return printable(x);
         } else if constexpr (std::is_same_v<T, std::vector<String>>) {
            String out;
            for (auto const &s : x) out += (out.empty() ? "" : ", ") + printable(s);
            return out;
         } else if constexpr (std::is_same_v<T, std::vector<std::pair<String, std::uint32_t>>>) {
            String out;
            for (auto const &[k, n] : x) out += (out.empty() ? "" : ", ") + printable(k) + "=" + std::to_string(n);
            return out;
         } else if constexpr (std::is_same_v<T, Loom::VariantValue>) {
            String out = x.alternative + ":";
            if (x.fields.empty()) out += " " + printable(x.text);
            for (auto const &[k, n] : x.fields) out += " " + k + "=" + std::to_string(n);
            return out;
         } else {
            return {};
         }
      },
      v);
}

// A reason under its fact, in the value column; a reason repeated for the
// next fact of the entity is not spelled out again.
void reasonText(String &out, std::size_t column, Diagnostic const &d, Diagnostic const *previous) {
   out.append(column, ' ');
   if (previous && previous->reason == d.reason && previous->hint == d.hint) {
      out += "why:  as above\n";
      return;
   }
   out += "why:  ";
   appendProse(out, d.reason);
   out += '\n';
   if (d.hint.empty()) return;
   out.append(column, ' ');
   out += "hint: ";
   appendProse(out, d.hint);
   out += '\n';
}

void entityText(String &out, String const &path, Loom::Entity const *e, std::vector<Diagnostic> const &diags = {}) {
   out += path + "\n";
   auto reasonOf = [&](std::string_view attr) -> Diagnostic const * {
      for (auto const &d : diags) {
         if (d.entity == path && d.attribute == attr) return &d;
      }
      return nullptr;
   };
   if (!e) {
      out += "  (absent)\n";
      if (auto const *d = reasonOf("")) reasonText(out, 4, *d, nullptr);
      return;
   }
   std::size_t width = 0;
   for (auto const &a : e->typeData().attrs) width = std::max(width, a.name.size());
   Diagnostic const *previous = nullptr;
   for (auto const &a : e->typeData().attrs) {
      out += "  ";
      out += a.name;
      out.append(width - a.name.size() + 2, ' ');
      out += valueText(a.get(*e));
      out += '\n';
      if (auto const *d = reasonOf(a.name)) {
         reasonText(out, width + 4, *d, previous);
         previous = d;
      }
   }
}

}  // namespace

String Host::showJson(std::optional<String> const &path) const {
   rapidjson::StringBuffer buf;
   rapidjson::Writer<rapidjson::StringBuffer> w(buf);
   if (path) {
      w.StartObject();
      key(w, *path);
      writeJsonObject(w, em_->lookup(*path).ptr());
      w.EndObject();
   } else {
      w.StartObject();
      key(w, "entities");
      writeEntities(w, *em_, std::nullopt);
      w.EndObject();
   }
   return String(buf.GetString(), buf.GetSize()) + "\n";
}

String Host::showText(std::optional<String> const &path) const {
   String out;
   for (auto const &e : Sentrel::stateTree()) {
      if (path && *path != e.path) continue;
      entityText(out, e.path, em_->lookup(e.path).ptr());
   }
   return out;
}

String Host::report() const {
   auto const diags = diagnostics();
   if (options_.format == Format::OpenMetrics) return metricsReport(*em_, diags, logs_, thisRun());
   if (options_.format == Format::Text) {
      String out;
      for (auto const &e : Sentrel::stateTree()) {
         if (!e.status) continue;
         entityText(out, e.path, em_->lookup(e.path).ptr(), diags);
         out += "\n";
      }
      out += logs_.empty() ? "Warnings: none\n" : "Warnings:\n";
      for (auto const &l : logs_) out += "  " + l.name + ": " + printable(l.text) + "\n";
      out += "\nInputs:\n" + inputsText(*em_, unknownInputs_);
      // The other reasons of the inputs: those of the lines above are there.
      Diagnostic const *previous = nullptr;
      for (auto const &d : diags) {
         auto const *entry = Sentrel::stateTreeEntry(d.entity);
         if ((entry && entry->status) || inInputsBlock(d.entity, d.attribute)) continue;
         out += "  " + d.entity + (d.attribute.empty() ? "" : " " + d.attribute) + "\n";
         reasonText(out, 4, d, previous && previous->entity == d.entity ? previous : nullptr);
         previous = &d;
      }
      String changed;
      for (auto const &[name, t] : Loom::togglesInEffect()) {
         if (t.value != t.defaultValue) changed += "  " + name + " " + (t.value ? "on" : "off") + " (" + prose(t.file) + ")\n";
      }
      if (!changed.empty()) out += "\nToggles not at their default:\n" + changed;
      auto const plural = [](std::size_t n, char const *what) {
         return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
      };
      out += "\n" + plural(logs_.size(), "warning") + ", " + plural(diags.size(), "unknown fact") + "\n";
      return out;
   }
   auto const run = thisRun();
   rapidjson::StringBuffer buf;
   rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
   w.SetIndent(' ', 2);
   w.SetFormatOptions(rapidjson::kFormatSingleLineArray);
   w.StartObject();
   key(w, "run");
   w.StartObject();
   for (auto const &[k, v] : {std::pair{"version", run.version}, std::pair{"host", run.host},
                              std::pair{"time", rfc3339(run.time)}}) {
      key(w, k);
      key(w, v);
   }
   w.EndObject();
   key(w, "entities");
   writeEntities(w, *em_, std::nullopt);
   key(w, "stateMachines");
   w.StartObject();
   for (auto const &a : agent_->typeData().attrs) {
      if (a.kind != Loom::Kind::Ref || !a.name.ends_with("Sm")) continue;
      key(w, a.name.substr(0, a.name.size() - 2));
      writeJsonObject(w, std::get<Loom::Object const *>(a.get(*agent_)));
   }
   w.EndObject();
   key(w, "log");
   w.StartArray();
   for (auto const &l : logs_) {
      w.StartObject();
      key(w, "name");
      key(w, l.name);
      key(w, "severity");
      w.Int(l.severity);
      key(w, "text");
      key(w, l.text);
      w.EndObject();
   }
   w.EndArray();
   key(w, "trace");
   w.StartArray();
   for (auto const &t : traces_) {
      w.StartObject();
      key(w, "level");
      w.Int(t.level);
      key(w, "function");
      key(w, t.function);
      key(w, "line");
      w.Int(t.line);
      key(w, "text");
      key(w, t.text);
      w.EndObject();
   }
   w.EndArray();
   key(w, "toggles");
   w.StartObject();
   for (auto const &[name, t] : Loom::togglesInEffect()) {
      key(w, name);
      w.Bool(t.value);
   }
   w.EndObject();
   key(w, "diagnostics");
   w.StartArray();
   for (auto const &d : diags) {
      w.StartObject();
      for (auto const &[k, v] : {std::pair{"entity", &d.entity}, std::pair{"attribute", &d.attribute},
                                 std::pair{"reason", &d.reason}, std::pair{"hint", &d.hint}}) {
         key(w, k);
         key(w, *v);
      }
      w.EndObject();
   }
   w.EndArray();
   w.EndObject();
   return String(buf.GetString(), buf.GetSize()) + "\n";
}

}  // namespace SentrelHost
