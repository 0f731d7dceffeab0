#pragma once

#include <optional>
#include <map>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Trace.h"
#include "Sentrel/platform/Reason.h"
#include "host/Diagnostic.h"
#include "host/JsonTree.h"
#include "host/Options.h"
#include "host/UsageError.h"

namespace Sentrel {
class Agent;  // only declared: the host reaches the agent through the framework
}

namespace SentrelHost {

// What the framework does for the agent outside a switch: the state
// database, the loaded agent, and what it logged and traced.
class Host {
 public:
   explicit Host(Options options);
   ~Host();

   // Loads the agent's shared object and finds its factory.
   void loadAgent();
   // Seeds every entity of the state tree at its defaults.
   void seedLedger();
   // Fills the inputs from this Linux system; throws UsageError on a
   // malformed defaults file.
   void applyLive();
   // Applies a state file (JSON, the shape of the report's entities).
   void applyState(String const &path, String const &text);
   // Applies a parsed state document; errors name `file` and offsets in it,
   // relative file paths are taken from `dir`.
   void applyDocument(String const &file, JsonNode const &root, String const &dir);
   void startAgent();
   void stopAgent();
   // Runs a script; what it prints is appended to `out`.
   void runScript(String const &name, String const &text, String &out);
   // The whole state, in the chosen format, with the reasons for the facts
   // that could not be read.
   String report() const;
   // The reasons for the facts that are unknown now, in the order of the
   // state tree: the latest for each fact, while the fact keeps the value it
   // had when the reason came.
   std::vector<Diagnostic> diagnostics() const;
   // Whether any fact is still unknown: diagnostics() is not empty.
   bool anyUnknown() const;
   // Destroys the agent and the database; false if anything is still alive.
   bool shutDown();

   std::vector<Loom::LogRecord> const &logs() const { return logs_; }
   Options const &options() const { return options_; }

 private:
   void runScriptCommand(String const &where, String const &line, String &out);
   // Appends what a script command prints, as comments in the metrics format.
   void emit(String &out, String const &text) const;
   String showJson(std::optional<String> const &path) const;
   String showText(std::optional<String> const &path) const;
   Loom::Object *stateMachine(String const &name) const;

   Options options_;
   using Factory = Ptr<Sentrel::Agent> (*)(Loom::String);
   Factory factory_ = nullptr;
   Ptr<Ledger::EntityManager> em_;
   Ptr<Loom::CAgent> agent_;
   std::vector<Loom::LogRecord> logs_;
   std::vector<Loom::TraceRecord> traces_;  // of the levels the user enabled
   unsigned userTraceLevels_ = 0;
   void reasonReceived(Loom::ReasonRecord const &r);
   struct Finding {
      Diagnostic diagnostic;
      std::optional<Loom::Value> value;  // the fact's value then (nullopt: the entity was absent)
   };
   std::vector<Finding> findings_;
   // Said of every reason of an entity (path to text).
   std::map<String, String> notes_;
   // The inputs the live reading left unknown, for the text report.
   std::map<String, std::pair<String, String>> unknownInputs_;
};

}  // namespace SentrelHost
