#pragma once

#include <tuple>

#include "Sentrel/CheckConfigurationStatusSm.h"
#include "Sentrel/FirstInstructionSecuritySm.h"
#include "Sentrel/IntegritySm.h"
#include "Sentrel/MeasuredBootVersionSm.h"
#include "Sentrel/TarnFeatureSm.h"
#include "Sentrel/TarnPcrConfigStatusSm.h"
#include "Sentrel/platform/Ledger.h"
#include "Sentrel/types/HardwareSentrelConfig.h"

namespace Sentrel {

// The agent's attributes in declared order, which is their order in the type
// description; destruction releases them in reverse. REF: an entity, also
// settable from outside; SM: a state machine, made by xSmIs, taken by xSmDel.
#define SENTREL_AGENT_ATTRS(REF, SM)                                              \
   REF(MeasuredBootVersion, measuredBootVersion)                                  \
   SM(MeasuredBootVersionSm, measuredBootVersionSm)                               \
   REF(Tarn::Features::Status, tarnFeatureStatus)                                 \
   REF(Tarn::Secureboot::Status const, sbStatus)                                  \
   SM(TarnFeatureSm, tarnFeatureSm)                                               \
   REF(Tarn::PcrConfig::Status, tarnPcrConfigStatus)                              \
   SM(TarnPcrConfigStatusSm, tarnPcrConfigStatusSm)                               \
   REF(FirstInstructionSecurity, firstInstructionSecurity)                        \
   SM(FirstInstructionSecuritySm, firstInstructionSecuritySm)                     \
   REF(Hardware::Sentrel::Config const, defaultSentrelStatus)                     \
   SM(CheckConfigurationStatusSm, checkConfigurationStatusSm)                     \
   REF(IntegrityKeyringRequestColl const, integrityKeyringRequestColl)            \
   REF(IntegrityKeyringRequestStatusColl const, integrityKeyringRequestStatusColl) \
   REF(IntegrityKeyringColl, integrityKeyringColl)                                \
   SM(IntegrityKeyringSm, integrityKeyringSm)                                     \
   SM(IntegritySyslogSm, integritySyslogSm)

#define SENTREL_AGENT_GET_(T, name) \
   Ptr<T> const &name() const { return name##_; }
#define SENTREL_AGENT_GET_SET_(T, name) \
   SENTREL_AGENT_GET_(T, name)          \
   void name##Is(Ptr<T> const &v) { name##_ = v; }
#define SENTREL_AGENT_FIELD_(T, name) Ptr<T> name##_;

// The agent: declares its mounts, looks up the mounted entities and creates
// the state machines that do the work. It owns all of them.
class Agent : public Loom::CAgent {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<Agent> AgentIs(Loom::String const &name);
   explicit Agent(Loom::String const &name);

   void doInit() override;
   void doMountsComplete(Ledger::MountStatus mountStatus,
                         Ptr<Ledger::EntityManager> const &entityManager) override;

   SENTREL_AGENT_ATTRS(SENTREL_AGENT_GET_SET_, SENTREL_AGENT_GET_)

   Ptr<MeasuredBootVersionSm> measuredBootVersionSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                                      Ptr<MeasuredBootVersion> const &measuredBootVersion) {
      return smIs<&MeasuredBootVersionSm::MeasuredBootVersionSmIs>(measuredBootVersionSm_, entityManager,
                                                                   measuredBootVersion);
   }
   Ptr<MeasuredBootVersionSm> measuredBootVersionSmDel() { return smDel(measuredBootVersionSm_); }

   Ptr<TarnFeatureSm> tarnFeatureSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                      Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                                      Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
      return smIs<&TarnFeatureSm::TarnFeatureSmIs>(tarnFeatureSm_, entityManager, tarnFeatureStatus, sbStatus);
   }
   Ptr<TarnFeatureSm> tarnFeatureSmDel() { return smDel(tarnFeatureSm_); }

   Ptr<TarnPcrConfigStatusSm> tarnPcrConfigStatusSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                                      Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
                                                      Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
      return smIs<&TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs>(tarnPcrConfigStatusSm_, entityManager,
                                                                   tarnPcrConfigStatus, sbStatus);
   }
   Ptr<TarnPcrConfigStatusSm> tarnPcrConfigStatusSmDel() { return smDel(tarnPcrConfigStatusSm_); }

   Ptr<FirstInstructionSecuritySm> firstInstructionSecuritySmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<FirstInstructionSecurity> const &firstInstructionSecurity) {
      return smIs<&FirstInstructionSecuritySm::FirstInstructionSecuritySmIs>(firstInstructionSecuritySm_,
                                                                             entityManager, firstInstructionSecurity);
   }
   Ptr<FirstInstructionSecuritySm> firstInstructionSecuritySmDel() { return smDel(firstInstructionSecuritySm_); }

   Ptr<CheckConfigurationStatusSm> checkConfigurationStatusSmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
      Ptr<Tarn::Secureboot::Status const> const &sbStatus) {
      return smIs<&CheckConfigurationStatusSm::CheckConfigurationStatusSmIs>(
         checkConfigurationStatusSm_, entityManager, defaultSentrelStatus, sbStatus);
   }
   Ptr<CheckConfigurationStatusSm> checkConfigurationStatusSmDel() { return smDel(checkConfigurationStatusSm_); }

   Ptr<IntegrityKeyringSm> integrityKeyringSmIs(Ptr<IntegrityKeyringColl> const &coll) {
      return smIs<&IntegrityKeyringSm::IntegrityKeyringSmIs>(integrityKeyringSm_, coll);
   }
   Ptr<IntegrityKeyringSm> integrityKeyringSmDel() { return smDel(integrityKeyringSm_); }

   Ptr<IntegritySyslogSm> integritySyslogSmIs() {
      return smIs<&IntegritySyslogSm::IntegritySyslogSmIs>(integritySyslogSm_);
   }
   Ptr<IntegritySyslogSm> integritySyslogSmDel() { return smDel(integritySyslogSm_); }

 protected:
   ~Agent() override;

 private:
   // Every xSmIs: keeps the machine built on the very same objects (compared
   // by identity), otherwise puts a new one, made by its own creator with its
   // notifications on, in the old one's place.
   template <auto create, class Sm, class... Args>
   static Ptr<Sm> smIs(Ptr<Sm> &slot, Args const &...args) {
      if (slot && slot->constructorArgs() == std::tie(args...)) return slot;
      slot = create(args...);
      return slot;
   }
   // Every xSmDel: takes the machine out and switches its notifications off.
   template <class Sm>
   static Ptr<Sm> smDel(Ptr<Sm> &slot) {
      Ptr<Sm> sm = std::move(slot);
      slot = nullptr;
      if (sm) sm->hasNotificationActiveIs(false);
      return sm;
   }

   Loom::TrackedBy tracked_{memAllocationTracker_};
   SENTREL_AGENT_ATTRS(SENTREL_AGENT_FIELD_, SENTREL_AGENT_FIELD_)
};

// The entry point the framework finds by name.
__attribute__((visibility("default"))) Ptr<Agent> agentFactory(Loom::String name);

}  // namespace Sentrel
