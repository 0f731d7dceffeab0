#pragma once

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

#define SENTREL_CHECK_CONFIGURATION_STATUS_SM_ARGS(X)        \
   X(Ledger::EntityManager, entityManager)                   \
   X(Hardware::Sentrel::Config const, defaultSentrelStatus)  \
   X(Tarn::Secureboot::Status const, sbStatus)

// Compares secure boot and measured boot with the manufacturing defaults.
class CheckConfigurationStatusSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(CheckConfigurationStatusSm, SENTREL_CHECK_CONFIGURATION_STATUS_SM_ARGS)

 public:
   void checkConfigurationStatus();
   void handleInitialized();

 private:
   void handleDefaultSentrelStatusConfigReady();
   void handleSbStatusReady();

   Loom::Reactor defaultSentrelStatusReactor_;
   Loom::Reactor sbStatusReactor_;
};

}  // namespace Sentrel
