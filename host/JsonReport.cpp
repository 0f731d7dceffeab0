#include "host/JsonReport.h"

#include <variant>

#include "host/ValueJson.h"

namespace SentrelHost {

namespace {

template <class Writer>
void key(Writer &w, std::string_view k) {
   auto q = jsonQuote(k);
   w.RawValue(q.c_str(), q.size(), rapidjson::kStringType);
}

template <class Writer>
void entity(Writer &w, EntityReport const &e) {
   if (!e.present) {
      w.Null();
      return;
   }
   w.StartObject();
   for (auto const &f : e.facts) {
      key(w, f.name);
      writeJsonValue(w, f.value);
   }
   w.EndObject();
}

template <class Writer>
void entities(Writer &w, ReportModel const &m) {
   w.StartObject();
   for (auto const &e : m.entities) {
      key(w, e.path);
      entity(w, e);
   }
   w.EndObject();
}

// An object of text and number members, in the order given.
template <class Writer>
void object(Writer &w, std::initializer_list<std::pair<std::string_view, std::variant<int, std::string_view>>> members) {
   w.StartObject();
   for (auto const &[k, v] : members) {
      key(w, k);
      if (auto const *n = std::get_if<int>(&v)) {
         w.Int(*n);
      } else {
         key(w, std::get<std::string_view>(v));
      }
   }
   w.EndObject();
}

template <class Writer>
void diagnostic(Writer &w, String const &entity, String const &attribute, Unknown const &u) {
   object(w, {{"entity", entity}, {"attribute", attribute}, {"reason", u.reason}, {"hint", u.hint}});
}

}  // namespace

String jsonReport(ReportModel const &m) {
   rapidjson::StringBuffer buf;
   rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
   w.SetIndent(' ', 2);
   w.SetFormatOptions(rapidjson::kFormatSingleLineArray);
   w.StartObject();
   if (m.run) {
      key(w, "run");
      w.StartObject();
      for (auto const &[k, v] : {std::pair{"version", m.run->version}, std::pair{"host", m.run->host},
                                 std::pair{"time", rfc3339(m.run->time)}}) {
         key(w, k);
         key(w, v);
      }
      w.EndObject();
   }
   key(w, "entities");
   entities(w, m);
   key(w, "stateMachines");
   w.StartObject();
   for (auto const &sm : m.machines) {
      key(w, sm.name);
      if (!sm.present) {
         w.Null();
         continue;
      }
      w.StartObject();
      for (auto const &[name, value] : sm.attrs) {
         key(w, name);
         writeJsonValue(w, value);
      }
      w.EndObject();
   }
   w.EndObject();
   key(w, "log");
   w.StartArray();
   for (auto const &l : m.log) object(w, {{"name", l.name}, {"severity", l.severity}, {"text", l.text}});
   w.EndArray();
   key(w, "trace");
   w.StartArray();
   for (auto const &t : m.traces) {
      object(w, {{"level", t.level}, {"function", t.function}, {"line", t.line}, {"text", t.text}});
   }
   w.EndArray();
   key(w, "toggles");
   w.StartObject();
   for (auto const &t : m.toggles) {
      key(w, t.name);
      w.Bool(t.value);
   }
   w.EndObject();
   key(w, "diagnostics");
   w.StartArray();
   for (auto const &e : m.entities) {
      if (e.unknown) diagnostic(w, e.path, {}, *e.unknown);
      for (auto const &f : e.facts) {
         if (f.unknown) diagnostic(w, e.path, f.name, *f.unknown);
      }
   }
   w.EndArray();
   w.EndObject();
   return String(buf.GetString(), buf.GetSize()) + "\n";
}

String jsonShow(ReportModel const &m, String const *only) {
   rapidjson::StringBuffer buf;
   rapidjson::Writer<rapidjson::StringBuffer> w(buf);
   w.StartObject();
   if (only) {
      for (auto const &e : m.entities) {
         if (e.path != *only) continue;
         key(w, e.path);
         entity(w, e);
      }
   } else {
      key(w, "entities");
      entities(w, m);
   }
   w.EndObject();
   return String(buf.GetString(), buf.GetSize()) + "\n";
}

}  // namespace SentrelHost
