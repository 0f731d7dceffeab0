#pragma once

#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

// Compares secure boot and measured boot with the manufacturing defaults.
class CheckConfigurationStatusSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<CheckConfigurationStatusSm> CheckConfigurationStatusSmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
      Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   CheckConfigurationStatusSm(Ptr<Ledger::EntityManager> const &entityManager,
                              Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
                              Ptr<Tarn::Secureboot::Status const> const &sbStatus);

   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus() const {
      return defaultSentrelStatus_;
   }
   Ptr<Tarn::Secureboot::Status const> const &sbStatus() const { return sbStatus_; }
   void checkConfigurationStatus();
   // What it was built on, compared by identity when the agent asks again.
   auto constructorArgs() const { return std::tie(entityManager_, defaultSentrelStatus_, sbStatus_); }
   void handleInitialized();

 protected:
   ~CheckConfigurationStatusSm() override;

 private:
   void handleDefaultSentrelStatusConfigReady();
   void handleSbStatusReady();

   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<Hardware::Sentrel::Config const> defaultSentrelStatus_;
   Ptr<Tarn::Secureboot::Status const> sbStatus_;
   Loom::Reactor defaultSentrelStatusReactor_;
   Loom::Reactor sbStatusReactor_;
};

}  // namespace Sentrel
