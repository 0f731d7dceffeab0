#pragma once

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/MeasuredBootVersion.h"

namespace Sentrel {

#define SENTREL_MEASURED_BOOT_VERSION_SM_ARGS(X) \
   X(Ledger::EntityManager, entityManager)       \
   X(MeasuredBootVersion, measuredBootVersion)

// Publishes the measured boot versions of the bootloader and of the
// operating system image, and reads one again when its path changes.
class MeasuredBootVersionSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(MeasuredBootVersionSm, SENTREL_MEASURED_BOOT_VERSION_SM_ARGS)

 public:
   void readVexoMeasuredBootVersion();
   void readTarnMeasuredBootVersion();
   void handleInitialized();

 private:
   void measuredBootVersionDispatch(unsigned attr);

   Loom::Reactor measuredBootVersionReactor_;
};

}  // namespace Sentrel
