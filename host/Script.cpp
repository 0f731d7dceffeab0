#include "host/Script.h"

#include "Sentrel/platform/String.h"
#include "Sentrel/types/StateTree.h"
#include "host/JsonReport.h"
#include "host/Session.h"
#include "host/TextReport.h"
#include "host/UsageError.h"
#include "host/ValueJson.h"

namespace SentrelHost {

namespace {

// Splits off the next blank-separated word of `rest`.
String word(String &rest) {
   std::size_t const b = rest.find_first_not_of(" \t");
   if (b == String::npos) {
      rest.clear();
      return {};
   }
   std::size_t const e = rest.find_first_of(" \t", b);
   String w = rest.substr(b, e == String::npos ? String::npos : e - b);
   rest = e == String::npos ? String() : rest.substr(e);
   return w;
}

String trimmed(String const &s) {
   std::size_t const b = s.find_first_not_of(" \t\r");
   if (b == String::npos) return {};
   return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

class Interpreter {
 public:
   Interpreter(Session &session, Format format, String &out) : session_(session), format_(format), out_(out) {}

   void command(String const &line) {
      String rest = line;
      String const cmd = word(rest);
      if (cmd == "set" || cmd == "insert") {
         set(cmd, rest);
      } else if (cmd == "show") {
         show(rest);
      } else if (cmd == "invoke") {
         invoke(rest);
      } else if (cmd == "restart") {
         if (!trimmed(rest).empty()) throw UsageError("restart takes no argument");
         session_.stopAgent();
         session_.startAgent();
      } else {
         throw UsageError("unknown command \"" + cmd + "\"");
      }
   }

 private:
   Ptr<Loom::Entity> entityAt(String const &path) const {
      return Sentrel::stateTreeEntry(path) ? session_.ledger().lookup(path) : nullptr;
   }

   void set(String const &cmd, String rest) {
      String const path = word(rest), attrName = word(rest), json = trimmed(rest);
      if (json.empty()) throw UsageError(cmd + " takes PATH ATTR JSON");
      // The agent's own attributes are addressed as "agent".
      Ptr<Loom::Entity> const entity = path == "agent" ? session_.agentEntity() : entityAt(path);
      if (!entity) throw UsageError("no entity at \"" + path + "\"");
      auto const *attr = entity->typeData().attr(attrName);
      if (!attr || (attr->kind == Loom::Kind::Ref && !attr->set)) {
         throw UsageError("unknown attribute \"" + attrName + "\" of " + path);
      }
      bool const collection = attr->kind == Loom::Kind::StringSet || attr->kind == Loom::Kind::StringU32Map;
      if (collection != (cmd == "insert")) {
         throw UsageError(collection ? attrName + " is a set or map: use insert"
                                     : attrName + " is not a set or map: use set");
      }
      JsonError err;
      auto node = parseJson(json, err);
      if (!node) throw UsageError("bad JSON at byte " + std::to_string(err.offset) + " of the value: " + err.message);
      auto c = attr->kind == Loom::Kind::Ref
                  ? referenceFromJson(*node, [&](String const &p) { return entityAt(p).ptr(); })
                  : valueFromJson(*attr, *node, false);
      if (c.error) throw UsageError(attrName + ": " + c.error->message);
      auto const &op = collection ? attr->insert : attr->set;
      if (auto e = op(*entity, c.value)) throw UsageError(attrName + ": " + *e);
   }

   void show(String rest) {
      String const path = word(rest);
      if (!trimmed(rest).empty()) throw UsageError("show takes at most one PATH");
      if (!path.empty() && !Sentrel::stateTreeEntry(path)) throw UsageError("no entity at \"" + path + "\"");
      auto const m = entitiesModel(session_);
      String const *only = path.empty() ? nullptr : &path;
      emit(format_ == Format::Json ? jsonShow(m, only) : textShow(m, only));
   }

   void invoke(String rest) {
      String const sm = word(rest), opName = word(rest);
      if (opName.empty() || !trimmed(rest).empty()) throw UsageError("invoke takes SM OPERATION");
      auto const machines = session_.machines();
      auto slot = std::find_if(machines.begin(), machines.end(), [&](auto const &s) { return s.name == sm; });
      if (sm.empty() || slot == machines.end()) throw UsageError("unknown state machine \"" + sm + "\"");
      if (!slot->machine) throw UsageError("state machine \"" + sm + "\" does not exist");
      auto *machine = const_cast<Loom::Object *>(slot->machine);
      auto const *op = machine->typeData().op(opName);
      if (!op) throw UsageError("unknown operation \"" + opName + "\" of " + sm);
      Ptr<Loom::Object> keep(machine);
      if (auto result = op->invoke(*machine)) emit((format_ == Format::Json ? jsonQuote(*result) : *result) + "\n");
   }

   // Appends what a command prints; as comments in the metrics format, so
   // that the metrics file stays valid for its readers.
   void emit(String const &text) {
      if (format_ != Format::OpenMetrics) {
         out_ += text;
         return;
      }
      std::size_t begin = 0;
      for (std::size_t end; (end = text.find('\n', begin)) != String::npos; begin = end + 1) {
         out_ += "# " + text.substr(begin, end - begin) + "\n";
      }
   }

   Session &session_;
   Format format_;
   String &out_;
};

}  // namespace

void runScript(Session &session, Format format, String const &name, String const &text, String &out) {
   Interpreter interpreter(session, format, out);
   Loom::Pieces lines(text, '\n');
   std::string_view line;
   for (int n = 1; lines.next(line); ++n) {
      String const t = trimmed(String(line));
      if (t.empty() || t.front() == '#') continue;
      try {
         interpreter.command(t);
      } catch (UsageError const &e) {
         throw UsageError(name + ":" + std::to_string(n) + ": " + e.what());
      }
   }
}

}  // namespace SentrelHost
