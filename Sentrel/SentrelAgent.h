#pragma once

#include "Sentrel/CheckConfigurationStatusSm.h"
#include "Sentrel/FirstInstructionSecuritySm.h"
#include "Sentrel/IntegritySm.h"
#include "Sentrel/MeasuredBootVersionSm.h"
#include "Sentrel/TarnFeatureSm.h"
#include "Sentrel/TarnPcrConfigStatusSm.h"
#include "Sentrel/platform/Ledger.h"
#include "Sentrel/types/HardwareSentrelConfig.h"

namespace Sentrel {

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

   Ptr<MeasuredBootVersion> const &measuredBootVersion() const { return measuredBootVersion_; }
   void measuredBootVersionIs(Ptr<MeasuredBootVersion> const &v) { measuredBootVersion_ = v; }
   Ptr<MeasuredBootVersionSm> const &measuredBootVersionSm() const { return measuredBootVersionSm_; }
   Ptr<MeasuredBootVersionSm> measuredBootVersionSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                                      Ptr<MeasuredBootVersion> const &measuredBootVersion);
   Ptr<MeasuredBootVersionSm> measuredBootVersionSmDel();

   Ptr<Tarn::Features::Status> const &tarnFeatureStatus() const { return tarnFeatureStatus_; }
   void tarnFeatureStatusIs(Ptr<Tarn::Features::Status> const &v) { tarnFeatureStatus_ = v; }
   Ptr<Tarn::Secureboot::Status const> const &sbStatus() const { return sbStatus_; }
   void sbStatusIs(Ptr<Tarn::Secureboot::Status const> const &v) { sbStatus_ = v; }
   Ptr<TarnFeatureSm> const &tarnFeatureSm() const { return tarnFeatureSm_; }
   Ptr<TarnFeatureSm> tarnFeatureSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                      Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                                      Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   Ptr<TarnFeatureSm> tarnFeatureSmDel();

   Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus() const { return tarnPcrConfigStatus_; }
   void tarnPcrConfigStatusIs(Ptr<Tarn::PcrConfig::Status> const &v) { tarnPcrConfigStatus_ = v; }
   Ptr<TarnPcrConfigStatusSm> const &tarnPcrConfigStatusSm() const { return tarnPcrConfigStatusSm_; }
   Ptr<TarnPcrConfigStatusSm> tarnPcrConfigStatusSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                                      Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
                                                      Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   Ptr<TarnPcrConfigStatusSm> tarnPcrConfigStatusSmDel();

   Ptr<FirstInstructionSecurity> const &firstInstructionSecurity() const { return firstInstructionSecurity_; }
   void firstInstructionSecurityIs(Ptr<FirstInstructionSecurity> const &v) { firstInstructionSecurity_ = v; }
   Ptr<FirstInstructionSecuritySm> const &firstInstructionSecuritySm() const {
      return firstInstructionSecuritySm_;
   }
   Ptr<FirstInstructionSecuritySm> firstInstructionSecuritySmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<FirstInstructionSecurity> const &firstInstructionSecurity);
   Ptr<FirstInstructionSecuritySm> firstInstructionSecuritySmDel();

   Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus() const { return defaultSentrelStatus_; }
   void defaultSentrelStatusIs(Ptr<Hardware::Sentrel::Config const> const &v) { defaultSentrelStatus_ = v; }
   Ptr<CheckConfigurationStatusSm> const &checkConfigurationStatusSm() const {
      return checkConfigurationStatusSm_;
   }
   Ptr<CheckConfigurationStatusSm> checkConfigurationStatusSmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
      Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   Ptr<CheckConfigurationStatusSm> checkConfigurationStatusSmDel();

   Ptr<IntegrityKeyringRequestColl const> const &integrityKeyringRequestColl() const {
      return integrityKeyringRequestColl_;
   }
   void integrityKeyringRequestCollIs(Ptr<IntegrityKeyringRequestColl const> const &v) {
      integrityKeyringRequestColl_ = v;
   }
   Ptr<IntegrityKeyringRequestStatusColl const> const &integrityKeyringRequestStatusColl() const {
      return integrityKeyringRequestStatusColl_;
   }
   void integrityKeyringRequestStatusCollIs(Ptr<IntegrityKeyringRequestStatusColl const> const &v) {
      integrityKeyringRequestStatusColl_ = v;
   }
   Ptr<IntegrityKeyringColl> const &integrityKeyringColl() const { return integrityKeyringColl_; }
   void integrityKeyringCollIs(Ptr<IntegrityKeyringColl> const &v) { integrityKeyringColl_ = v; }
   Ptr<IntegrityKeyringSm> const &integrityKeyringSm() const { return integrityKeyringSm_; }
   Ptr<IntegrityKeyringSm> integrityKeyringSmIs(Ptr<IntegrityKeyringColl> const &coll);
   Ptr<IntegrityKeyringSm> integrityKeyringSmDel();
   Ptr<IntegritySyslogSm> const &integritySyslogSm() const { return integritySyslogSm_; }
   Ptr<IntegritySyslogSm> integritySyslogSmIs();
   Ptr<IntegritySyslogSm> integritySyslogSmDel();

 protected:
   ~Agent() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   // Declared in this order: destruction releases them in reverse.
   Ptr<MeasuredBootVersion> measuredBootVersion_;
   Ptr<MeasuredBootVersionSm> measuredBootVersionSm_;
   Ptr<Tarn::Features::Status> tarnFeatureStatus_;
   Ptr<Tarn::Secureboot::Status const> sbStatus_;
   Ptr<TarnFeatureSm> tarnFeatureSm_;
   Ptr<Tarn::PcrConfig::Status> tarnPcrConfigStatus_;
   Ptr<TarnPcrConfigStatusSm> tarnPcrConfigStatusSm_;
   Ptr<FirstInstructionSecurity> firstInstructionSecurity_;
   Ptr<FirstInstructionSecuritySm> firstInstructionSecuritySm_;
   Ptr<Hardware::Sentrel::Config const> defaultSentrelStatus_;
   Ptr<CheckConfigurationStatusSm> checkConfigurationStatusSm_;
   Ptr<IntegrityKeyringRequestColl const> integrityKeyringRequestColl_;
   Ptr<IntegrityKeyringRequestStatusColl const> integrityKeyringRequestStatusColl_;
   Ptr<IntegrityKeyringColl> integrityKeyringColl_;
   Ptr<IntegrityKeyringSm> integrityKeyringSm_;
   Ptr<IntegritySyslogSm> integritySyslogSm_;
};

// The entry point the framework finds by name.
__attribute__((visibility("default"))) Ptr<Agent> agentFactory(Loom::String name);

}  // namespace Sentrel
