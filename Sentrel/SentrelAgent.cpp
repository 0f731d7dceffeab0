#include "Sentrel/SentrelAgent.h"

#include <cassert>
#include <tuple>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/PlatformHelpers.h"
#include "Sentrel/SentrelTrace.h"

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

namespace {

// The mounts, in the order doInit declares them.
struct MountRow {
   char const *path;
   char const *type;
   char const *mode;
};
constexpr MountRow kMounts[] = {
   {"sentrel/measuredBootVersion", "Sentrel::MeasuredBootVersion", "w"},
   {"sentrel/firstInstructionSecurity", "Sentrel::FirstInstructionSecurity", "w"},
   {"tarn/features/status", "Tarn::Features::Status", "w"},
   {"tarn/sb/status", "Tarn::Secureboot::Status", "r"},
   {"tarn/pcrConfig/status", "Tarn::PcrConfig::Status", "w"},
   {"hardware/sentrel/config", "Loom::Dir", "r"},
   {"sentrel/integrity/key/keyringColl", "Sentrel::IntegrityKeyringColl", "w"},
};

// The xSmIs pattern: keep the machine built on the very same objects,
// otherwise build a new one in its place and switch its notifications on.
template <class Sm, class Creator, class... Args>
Ptr<Sm> smIs(Ptr<Sm> &slot, Creator create, Args const &...args) {
   if (slot && slot->constructorArgs() == std::tie(args...)) return slot;
   slot = create(args...);
   slot->hasNotificationActiveIs(true);
   return slot;
}

template <class Sm>
Ptr<Sm> smDel(Ptr<Sm> &slot) {
   Ptr<Sm> sm = std::move(slot);
   slot = nullptr;
   if (sm) sm->hasNotificationActiveIs(false);
   return sm;
}

template <class T>
Ptr<T> lookupAs(Ledger::EntityManager const &em, char const *path) {
   return Loom::ptrCast<T>(em.lookup(Ledger::Cell::path(path, 0)));
}

}  // namespace

Loom::AllocationTracker Agent::memAllocationTracker_{"Sentrel::Agent"};

Loom::TypeInfo const &Agent::typeInfo() {
   using A = Agent;
   static Loom::TypeInfo const t{
      "Sentrel::Agent",
      {Loom::attr("measuredBootVersion", &A::measuredBootVersion),
       Loom::attr("measuredBootVersionSm", &A::measuredBootVersionSm),
       Loom::attr("tarnFeatureStatus", &A::tarnFeatureStatus), Loom::attr("sbStatus", &A::sbStatus),
       Loom::attr("tarnFeatureSm", &A::tarnFeatureSm),
       Loom::attr("tarnPcrConfigStatus", &A::tarnPcrConfigStatus),
       Loom::attr("tarnPcrConfigStatusSm", &A::tarnPcrConfigStatusSm),
       Loom::attr("firstInstructionSecurity", &A::firstInstructionSecurity),
       Loom::attr("firstInstructionSecuritySm", &A::firstInstructionSecuritySm),
       Loom::attr("defaultSentrelStatus", &A::defaultSentrelStatus),
       Loom::attr("checkConfigurationStatusSm", &A::checkConfigurationStatusSm),
       Loom::attr("integrityKeyringRequestColl", &A::integrityKeyringRequestColl),
       Loom::attr("integrityKeyringRequestStatusColl", &A::integrityKeyringRequestStatusColl),
       Loom::attr("integrityKeyringColl", &A::integrityKeyringColl),
       Loom::attr("integrityKeyringSm", &A::integrityKeyringSm),
       Loom::attr("integritySyslogSm", &A::integritySyslogSm)},
      {},
      nullptr};
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
   for (auto const &row : kMounts) {
      Ledger::Mount m;
      m.path = Ledger::Cell::path(row.path, 0);
      m.typeName = row.type;
      m.flags.clear();
      m.flags.parse(row.mode);
      group->doMount(m);
   }
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
   auto dir = lookupAs<Loom::Dir>(em, "hardware/sentrel/config");
   defaultSentrelStatus_ = dir ? Loom::ptrCast<Hardware::Sentrel::Config const>(dir->entity("sentrel")) : nullptr;
   measuredBootVersion_ = lookupAs<MeasuredBootVersion>(em, "sentrel/measuredBootVersion");
   firstInstructionSecurity_ = lookupAs<FirstInstructionSecurity>(em, "sentrel/firstInstructionSecurity");
   tarnFeatureStatus_ = lookupAs<Tarn::Features::Status>(em, "tarn/features/status");
   sbStatus_ = lookupAs<Tarn::Secureboot::Status const>(em, "tarn/sb/status");
   tarnPcrConfigStatus_ = lookupAs<Tarn::PcrConfig::Status>(em, "tarn/pcrConfig/status");

   measuredBootVersionSmIs(entityManager, measuredBootVersion_);
   firstInstructionSecuritySmIs(entityManager, firstInstructionSecurity_);
   tarnFeatureSmIs(entityManager, tarnFeatureStatus_, sbStatus_);
   tarnPcrConfigStatusSmIs(entityManager, tarnPcrConfigStatus_, sbStatus_);
   checkConfigurationStatusSmIs(entityManager, defaultSentrelStatus_, sbStatus_);

   integrityKeyringColl_ = lookupAs<IntegrityKeyringColl>(em, "sentrel/integrity/key/keyringColl");
   if (toggleSentrelImaEnabled()) {
      integrityKeyringSmIs(integrityKeyringColl_);
      integritySyslogSmIs();
   }
}

Ptr<MeasuredBootVersionSm> Agent::measuredBootVersionSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                                          Ptr<MeasuredBootVersion> const &measuredBootVersion) {
   return smIs(measuredBootVersionSm_, &MeasuredBootVersionSm::MeasuredBootVersionSmIs, entityManager,
               measuredBootVersion);
}
Ptr<MeasuredBootVersionSm> Agent::measuredBootVersionSmDel() { return smDel(measuredBootVersionSm_); }

Ptr<TarnFeatureSm> Agent::tarnFeatureSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                          Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                                          Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
   return smIs(tarnFeatureSm_, &TarnFeatureSm::TarnFeatureSmIs, entityManager, tarnFeatureStatus, sbStatus);
}
Ptr<TarnFeatureSm> Agent::tarnFeatureSmDel() { return smDel(tarnFeatureSm_); }

Ptr<TarnPcrConfigStatusSm> Agent::tarnPcrConfigStatusSmIs(
   Ptr<Ledger::EntityManager> const &entityManager, Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
   Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
   return smIs(tarnPcrConfigStatusSm_, &TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs, entityManager,
               tarnPcrConfigStatus, sbStatus);
}
Ptr<TarnPcrConfigStatusSm> Agent::tarnPcrConfigStatusSmDel() { return smDel(tarnPcrConfigStatusSm_); }

Ptr<FirstInstructionSecuritySm> Agent::firstInstructionSecuritySmIs(
   Ptr<Ledger::EntityManager> const &entityManager, Ptr<FirstInstructionSecurity> const &firstInstructionSecurity) {
   return smIs(firstInstructionSecuritySm_, &FirstInstructionSecuritySm::FirstInstructionSecuritySmIs,
               entityManager, firstInstructionSecurity);
}
Ptr<FirstInstructionSecuritySm> Agent::firstInstructionSecuritySmDel() {
   return smDel(firstInstructionSecuritySm_);
}

Ptr<CheckConfigurationStatusSm> Agent::checkConfigurationStatusSmIs(
   Ptr<Ledger::EntityManager> const &entityManager,
   Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
   Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
   return smIs(checkConfigurationStatusSm_, &CheckConfigurationStatusSm::CheckConfigurationStatusSmIs,
               entityManager, defaultSentrelStatus, sbStatus);
}
Ptr<CheckConfigurationStatusSm> Agent::checkConfigurationStatusSmDel() {
   return smDel(checkConfigurationStatusSm_);
}

Ptr<IntegrityKeyringSm> Agent::integrityKeyringSmIs(Ptr<IntegrityKeyringColl> const &coll) {
   return smIs(integrityKeyringSm_, &IntegrityKeyringSm::IntegrityKeyringSmIs, coll);
}
Ptr<IntegrityKeyringSm> Agent::integrityKeyringSmDel() { return smDel(integrityKeyringSm_); }

Ptr<IntegritySyslogSm> Agent::integritySyslogSmIs() {
   return smIs(integritySyslogSm_, &IntegritySyslogSm::IntegritySyslogSmIs);
}
Ptr<IntegritySyslogSm> Agent::integritySyslogSmDel() { return smDel(integritySyslogSm_); }

}  // namespace Sentrel
