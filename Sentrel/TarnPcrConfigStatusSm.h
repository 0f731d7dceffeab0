#pragma once

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

#define SENTREL_TARN_PCR_CONFIG_STATUS_SM_ARGS(X)    \
   X(Ledger::EntityManager, entityManager)           \
   X(Tarn::PcrConfig::Status, tarnPcrConfigStatus)   \
   X(Tarn::Secureboot::Status const, sbStatus)

// Reads the required and configured PCR banks and the bootloader's PCR
// configuration error log, and warns of what it reports.
class TarnPcrConfigStatusSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(TarnPcrConfigStatusSm, SENTREL_TARN_PCR_CONFIG_STATUS_SM_ARGS)

 public:
   void logPcrConfigError();
   void checkPcrConfigErrorLog();
   void readRequiredPcrBank();
   void readConfiguredPcrBank();
   void handleInitialized();
};

}  // namespace Sentrel
