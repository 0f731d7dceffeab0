#pragma once

#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

// Reads the required and configured PCR banks and the bootloader's PCR
// configuration error log, and warns of what it reports.
class TarnPcrConfigStatusSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<TarnPcrConfigStatusSm> TarnPcrConfigStatusSmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
      Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   TarnPcrConfigStatusSm(Ptr<Ledger::EntityManager> const &entityManager,
                         Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
                         Ptr<Tarn::Secureboot::Status const> const &sbStatus);

   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus() const { return tarnPcrConfigStatus_; }
   Ptr<Tarn::Secureboot::Status const> const &sbStatus() const { return sbStatus_; }
   void logPcrConfigError();
   void checkPcrConfigErrorLog();
   void readRequiredPcrBank();
   void readConfiguredPcrBank();
   // What it was built on, compared by identity when the agent asks again.
   auto constructorArgs() const { return std::tie(entityManager_, tarnPcrConfigStatus_, sbStatus_); }
   void handleInitialized();

 protected:
   ~TarnPcrConfigStatusSm() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<Tarn::PcrConfig::Status> tarnPcrConfigStatus_;
   Ptr<Tarn::Secureboot::Status const> sbStatus_;
};

}  // namespace Sentrel
