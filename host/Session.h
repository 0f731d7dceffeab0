#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Trace.h"
#include "host/Configuration.h"
#include "host/Reasons.h"

namespace Sentrel {
class Agent;  // only declared: the host reaches the agent through the framework
}

namespace SentrelHost {

// One of the agent's state machines, found by its type description.
struct MachineSlot {
   std::string_view name;        // as operators know it
   Loom::Object const *machine;  // null when the agent has none
};

// What the framework does for the agent outside a switch: the state
// database, the loaded agent, and what it logged, traced and gave reasons
// for. Constructing a session applies the configuration to the framework
// and takes its sinks; destroying it gives them back.
class Session {
 public:
   explicit Session(Configuration const &config);
   ~Session();
   Session(Session const &) = delete;
   Session &operator=(Session const &) = delete;

   // Loads the agent's shared object and finds its factory.
   void loadAgent();
   // Seeds the entities of the state tree at their defaults.
   void seedLedger();
   // Fills the inputs from this Linux system.
   void applyLive();
   // Replays the TPM's event log against its PCRs (the evidence module,
   // loaded only for this) and writes the log as a baseline when asked.
   void applyEvidence();
   // Applies a state file (JSON, the shape of the report's entities).
   void applyState(String const &path, String const &text);
   void startAgent();
   void stopAgent();
   // Destroys the agent and the database; false if anything is still alive.
   bool shutDown();

   Ledger::EntityManager &ledger() const { return *em_; }
   Reasons const &reasons() const { return *reasons_; }
   std::vector<Loom::LogRecord> const &logs() const { return logs_; }
   std::vector<Loom::TraceRecord> const &traces() const { return traces_; }
   Configuration const &config() const { return config_; }
   bool agentRunning() const { return agent_ != nullptr; }
   // The agent itself, whose settable references a script may set.
   Ptr<Loom::Entity> agentEntity() const;
   // The agent's state machines in declared order.
   std::vector<MachineSlot> machines() const;

 private:
   Configuration const &config_;
   using Factory = Ptr<Sentrel::Agent> (*)(Loom::String);
   Factory factory_ = nullptr;
   Ptr<Ledger::EntityManager> em_;
   std::unique_ptr<Reasons> reasons_;
   Ptr<Loom::CAgent> agent_;
   std::vector<Loom::LogRecord> logs_;
   std::vector<Loom::TraceRecord> traces_;  // of the levels the user enabled, for the JSON report
};

}  // namespace SentrelHost
