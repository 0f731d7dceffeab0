
#include "Sentrel/types/StateTree.h"
#include "host/Host.h"
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

}  // namespace

void Host::runScript(String const &name, String const &text, String &out) {
   Loom::Pieces lines(text, '\n');
   std::string_view line;
   for (int n = 1; lines.next(line); ++n) {
      String const t = trimmed(String(line));
      if (t.empty() || t.front() == '#') continue;
      try {
         runScriptCommand(name, t, out);
      } catch (UsageError const &e) {
         throw UsageError(name + ":" + std::to_string(n) + ": " + e.what());
      }
   }
}

void Host::emit(String &out, String const &text) const {
   if (options_.format != Format::OpenMetrics) {
      out += text;
      return;
   }
   // Comments, so that the metrics file stays valid for its readers.
   std::size_t begin = 0;
   for (std::size_t end; (end = text.find('\n', begin)) != String::npos; begin = end + 1) {
      out += "# " + text.substr(begin, end - begin) + "\n";
   }
}

void Host::runScriptCommand(String const &, String const &line, String &out) {
   String rest = line;
   String const cmd = word(rest);
   if (cmd == "set" || cmd == "insert") {
      String const path = word(rest), attrName = word(rest), json = trimmed(rest);
      if (json.empty()) throw UsageError(cmd + " takes PATH ATTR JSON");
      // The agent's own attributes are addressed as "agent".
      auto entityAt = [this](String const &p) { return Sentrel::stateTreeEntry(p) ? em_->lookup(p) : nullptr; };
      Ptr<Loom::Entity> const entity = path == "agent" ? Ptr<Loom::Entity>(agent_) : entityAt(path);
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
   } else if (cmd == "show") {
      String const path = word(rest);
      if (!trimmed(rest).empty()) throw UsageError("show takes at most one PATH");
      std::optional<String> p;
      if (!path.empty()) {
         if (!Sentrel::stateTreeEntry(path)) throw UsageError("no entity at \"" + path + "\"");
         p = path;
      }
      emit(out, options_.format == Format::Json ? showJson(p) : showText(p));
   } else if (cmd == "invoke") {
      String const sm = word(rest), opName = word(rest);
      if (opName.empty() || !trimmed(rest).empty()) throw UsageError("invoke takes SM OPERATION");
      auto const *attr = agent_->typeData().attr(sm + "Sm");
      if (sm.empty() || !attr || attr->kind != Loom::Kind::Ref) throw UsageError("unknown state machine \"" + sm + "\"");
      auto *machine = stateMachine(sm);
      if (!machine) throw UsageError("state machine \"" + sm + "\" does not exist");
      auto const *op = machine->typeData().op(opName);
      if (!op) throw UsageError("unknown operation \"" + opName + "\" of " + sm);
      Ptr<Loom::Object> keep(machine);
      if (auto result = op->invoke(*machine)) {
         emit(out, (options_.format == Format::Json ? jsonQuote(*result) : *result) + "\n");
      }
   } else if (cmd == "restart") {
      if (!trimmed(rest).empty()) throw UsageError("restart takes no argument");
      stopAgent();
      startAgent();
   } else {
      throw UsageError("unknown command \"" + cmd + "\"");
   }
}

}  // namespace SentrelHost
