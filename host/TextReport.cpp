#include "host/TextReport.h"

#include <algorithm>

#include "Sentrel/platform/Printable.h"

namespace SentrelHost {

namespace {

String valueText(Loom::Value const &v) {
   return std::visit(
      [](auto const &x) -> String {
         using T = std::decay_t<decltype(x)>;
         if constexpr (std::is_same_v<T, bool>) {
            return x ? "true" : "false";
         } else if constexpr (std::is_same_v<T, std::uint64_t>) {
            return std::to_string(x);
         } else if constexpr (std::is_same_v<T, String>) {
            return Loom::printable(x);
         } else if constexpr (std::is_same_v<T, std::vector<String>>) {
            String out;
            for (auto const &s : x) out += (out.empty() ? "" : ", ") + Loom::printable(s);
            return out;
         } else if constexpr (std::is_same_v<T, std::vector<std::pair<String, std::uint32_t>>>) {
            String out;
            for (auto const &[k, n] : x) out += (out.empty() ? "" : ", ") + Loom::printable(k) + "=" + std::to_string(n);
            return out;
         } else if constexpr (std::is_same_v<T, Loom::VariantValue>) {
            String out = x.alternative + ":";
            if (x.fields.empty()) out += " " + Loom::printable(x.text);
            for (auto const &[k, n] : x.fields) out += " " + k + "=" + std::to_string(n);
            return out;
         } else {
            return {};
         }
      },
      v);
}

// A reason in the value column; one repeated from the fact before is not
// spelled out again.
void reasonText(String &out, std::size_t column, Unknown const &u, Unknown const *previous) {
   out.append(column, ' ');
   if (previous && previous->reason == u.reason && previous->hint == u.hint) {
      out += "why:  as above\n";
      return;
   }
   out += "why:  ";
   out += Loom::printable(u.reason);
   out += '\n';
   if (u.hint.empty()) return;
   out.append(column, ' ');
   out += "hint: ";
   out += Loom::printable(u.hint);
   out += '\n';
}

void entityText(String &out, EntityReport const &e, bool withReasons) {
   out += e.path + "\n";
   if (!e.present) {
      out += "  (absent)\n";
      if (withReasons && e.unknown) reasonText(out, 4, *e.unknown, nullptr);
      return;
   }
   std::size_t width = 0;
   for (auto const &f : e.facts) width = std::max(width, f.name.size());
   Unknown const *previous = nullptr;
   for (auto const &f : e.facts) {
      out += "  " + f.name;
      out.append(width - f.name.size() + 2, ' ');
      out += valueText(f.value) + "\n";
      if (withReasons && f.unknown) {
         reasonText(out, width + 4, *f.unknown, previous);
         previous = &*f.unknown;
      }
   }
}

String plural(std::size_t n, char const *what) { return std::to_string(n) + " " + what + (n == 1 ? "" : "s"); }

void inputsText(String &out, ReportModel const &m) {
   for (auto const &line : m.inputs) {
      out += "  " + line.label;
      out.append(24 - std::min<std::size_t>(line.label.size(), 23), ' ');
      out += (line.unknown ? String("unknown") : line.value) + "\n";
      if (line.unknown) reasonText(out, 26, *line.unknown, nullptr);
   }
   // The other reasons of the inputs: those of the lines above are there.
   for (auto const &e : m.entities) {
      if (e.status) continue;
      Unknown const *previous = nullptr;
      auto other = [&](String const &name, Unknown const &u) {
         out += "  " + e.path + (name.empty() ? "" : " " + name) + "\n";
         reasonText(out, 4, u, previous);
         previous = &u;
      };
      if (e.unknown && !e.inInputs) other({}, *e.unknown);
      for (auto const &f : e.facts) {
         if (f.unknown && !f.inInputs) other(f.name, *f.unknown);
      }
   }
}

}  // namespace

String textReport(ReportModel const &m) {
   String out;
   for (auto const &e : m.entities) {
      if (!e.status) continue;
      entityText(out, e, true);
      out += "\n";
   }
   out += m.log.empty() ? "Warnings: none\n" : "Warnings:\n";
   for (auto const &l : m.log) out += "  " + l.name + ": " + Loom::printable(l.text) + "\n";
   out += "\nInputs:\n";
   inputsText(out, m);
   String changed;
   for (auto const &t : m.toggles) {
      if (t.value == t.defaultValue) continue;
      changed += "  " + t.name + " " + (t.value ? "on" : "off") + " (";
      changed += Loom::printable(t.file);
      changed += ")\n";
   }
   if (!changed.empty()) out += "\nToggles not at their default:\n" + changed;
   out += "\n" + plural(m.log.size(), "warning") + ", " + plural(m.unknownCount(), "unknown fact") + "\n";
   return out;
}

String textShow(ReportModel const &m, String const *only) {
   String out;
   for (auto const &e : m.entities) {
      if (!only || *only == e.path) entityText(out, e, false);
   }
   return out;
}

}  // namespace SentrelHost
