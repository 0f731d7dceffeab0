#pragma once

#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/MeasuredBootVersion.h"

namespace Sentrel {

// Publishes the measured boot versions of the bootloader and of the
// operating system image, and reads one again when its path changes.
class MeasuredBootVersionSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<MeasuredBootVersionSm> MeasuredBootVersionSmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<MeasuredBootVersion> const &measuredBootVersion);
   MeasuredBootVersionSm(Ptr<Ledger::EntityManager> const &entityManager,
                         Ptr<MeasuredBootVersion> const &measuredBootVersion);

   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   Ptr<MeasuredBootVersion> const &measuredBootVersion() const { return measuredBootVersion_; }
   void readVexoMeasuredBootVersion();
   void readTarnMeasuredBootVersion();
   // What it was built on, compared by identity when the agent asks again.
   auto constructorArgs() const { return std::tie(entityManager_, measuredBootVersion_); }
   void handleInitialized();

 protected:
   ~MeasuredBootVersionSm() override;

 private:
   void measuredBootVersionDispatch(unsigned attr);

   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<MeasuredBootVersion> measuredBootVersion_;
   Loom::Reactor measuredBootVersionReactor_;
};

}  // namespace Sentrel
