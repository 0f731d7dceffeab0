#pragma once

#include <optional>
#include <set>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Trace.h"
#include "host/Diagnostics.h"
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
   void startAgent();
   void stopAgent();
   // Runs a script; what it prints is appended to `out`.
   void runScript(String const &name, String const &text, String &out);
   // The whole state, in the chosen format, with the reasons for the facts
   // that could not be read.
   String report() const;
   std::vector<Diagnostic> diagnostics() const;
   // Destroys the agent and the database; false if anything is still alive.
   bool shutDown();

   std::vector<Loom::LogRecord> const &logs() const { return logs_; }
   Options const &options() const { return options_; }

 private:
   void runScriptCommand(String const &where, String const &line, String &out);
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
   // Level-2 records of the facility Sentrel, kept whatever the user enabled.
   std::vector<Loom::TraceRecord> problems_;
   // What the live inputs could not read, with the value each fact had then
   // (as JSON): a fact set since by --state or a script has lost its reason.
   struct LiveFinding {
      Diagnostic diagnostic;
      String value;
   };
   std::vector<LiveFinding> live_;
   // Entities and attributes that --state set ("" for a whole entity).
   std::set<std::pair<String, String>> stated_;
};

}  // namespace SentrelHost
