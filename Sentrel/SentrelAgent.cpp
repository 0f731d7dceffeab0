#include "Sentrel/SentrelAgent.h"

#include <type_traits>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/Toggles.h"
#include "Sentrel/platform/Json.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/types/StateTree.h"

namespace Sentrel {

// Static initialisation, in this order: the system's type description, then
// the log handles, 5 to 1.
namespace {
bool const typesRegistered = [] {
   Loom::moduleLoaded("Sentrel", {&Agent::typeInfo(), &MeasuredBootVersionSm::typeInfo(),
                                  &TarnFeatureSm::typeInfo(), &TarnPcrConfigStatusSm::typeInfo(),
                                  &FirstInstructionSecuritySm::typeInfo(),
                                  &CheckConfigurationStatusSm::typeInfo(), &IntegrityKeyringSm::typeInfo(),
                                  &IntegritySyslogSm::typeInfo()});
   return true;
}();
}  // namespace

Loom::LogHandle TARN_DEPRECATION_WARNING(TARN_DEPRECATION_WARNING_DESC, std::chrono::nanoseconds(0), 1.0,
                                         0, 0);
Loom::LogHandle MEASUREDBOOT_PCR_CONFIG_WARNING(MEASUREDBOOT_PCR_CONFIG_WARNING_DESC,
                                                std::chrono::nanoseconds(0), 1.0, 0, 0);
Loom::LogHandle SENTREL_WARNING(SENTREL_WARNING_DESC, std::chrono::nanoseconds(0), 1.0, 0, 0);
Loom::LogHandle SENTREL_INTEGRITY(SENTREL_INTEGRITY_DESC, std::chrono::nanoseconds(0), 1.0, 0, 0);
Loom::LogHandle SENTREL_INTEGRITY_LOAD_KEY_FAIL(SENTREL_INTEGRITY_LOAD_KEY_FAIL_DESC,
                                                std::chrono::nanoseconds(0), 1.0, 0, 0);

Loom::TraceHandle const &traceHandle() {
   static auto const *h = new Loom::TraceHandle("Sentrel", false);
   return *h;
}


Loom::AllocationTracker Agent::memAllocationTracker_{"Sentrel::Agent"};

Loom::TypeInfo const &Agent::typeInfo() {
#define SENTREL_AGENT_SETTABLE_(T, name) Loom::attr<&Agent::name, &Agent::name##Is>(#name),
#define SENTREL_AGENT_READABLE_(T, name) Loom::attr<&Agent::name>(#name),
   static constexpr Loom::AttrInfo attrs[] = {SENTREL_AGENT_ATTRS(SENTREL_AGENT_SETTABLE_, SENTREL_AGENT_READABLE_)};
   static constexpr Loom::TypeInfo t{"Sentrel::Agent", attrs, {}, nullptr,
                                     [](Loom::String const &name) { return Ptr<Loom::Object>(AgentIs(name)); }};
   return t;
}

Ptr<Agent> agentFactory(Loom::String name) { return Loom::make<Agent>(name); }

Ptr<Agent> Agent::AgentIs(Loom::String const &name) { return Loom::make<Agent>(name); }

Agent::Agent(Loom::String const &name) : CAgent(name) {}

Agent::~Agent() {
   hasNotificationActiveIs(false);
   measuredBootVersionSmDel();
   tarnFeatureSmDel();
   tarnPcrConfigStatusSmDel();
   firstInstructionSecuritySmDel();
   checkConfigurationStatusSmDel();
   integrityKeyringSmDel();
   integritySyslogSmDel();
   // The other references go in reverse declaration order with the members.
}

void Agent::doInit() {
   TRACE7("virtual void Sentrel::Agent::doInit()");
   auto group = getMountGroup();
   for (auto const &entry : stateTreeMounts()) group->doMount(stateTreeMount(entry));
   group->doClose(false, "", std::chrono::nanoseconds(0));
}

void Agent::doMountsComplete(Ledger::MountStatus mountStatus,
                             Ptr<Ledger::EntityManager> const &entityManager) {
   TRACE7("virtual void Sentrel::Agent::doMountsComplete(Ledger::MountStatus, const Ptr&)");
   if (!(mountStatus == Ledger::mountSuccess_)) {
      // A failed mount has no recovery path, in any build type.
      Loom::assertionFailed("mountStatus == Ledger::mountSuccess_", __FILE__, __LINE__);
   }
   auto const &em = *entityManager;
   // The defaults are the entity "sentrel" of the directory mounted for them.
   defaultSentrelStatus_ = stateTreeEntity<Hardware::Sentrel::Config const>(em);
   measuredBootVersion_ = stateTreeEntity<MeasuredBootVersion>(em);
   firstInstructionSecurity_ = stateTreeEntity<FirstInstructionSecurity>(em);
   tarnFeatureStatus_ = stateTreeEntity<Tarn::Features::Status>(em);
   sbStatus_ = stateTreeEntity<Tarn::Secureboot::Status const>(em);
   tarnPcrConfigStatus_ = stateTreeEntity<Tarn::PcrConfig::Status>(em);

   measuredBootVersionSmIs(entityManager, measuredBootVersion_);
   firstInstructionSecuritySmIs(entityManager, firstInstructionSecurity_);
   tarnFeatureSmIs(entityManager, tarnFeatureStatus_, sbStatus_);
   tarnPcrConfigStatusSmIs(entityManager, tarnPcrConfigStatus_, sbStatus_);
   checkConfigurationStatusSmIs(entityManager, defaultSentrelStatus_, sbStatus_);

   integrityKeyringColl_ = stateTreeEntity<IntegrityKeyringColl>(em);
   if (toggleSentrelImaEnabled()) {
      integrityKeyringSmIs(integrityKeyringColl_);
      integritySyslogSmIs();
   }
}

}  // namespace Sentrel
