#pragma once

#include <optional>
#include <string>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

#define SENTREL_TARN_FEATURE_SM_ARGS(X)          \
   X(Ledger::EntityManager, entityManager)       \
   X(Tarn::Features::Status, tarnFeatureStatus)  \
   X(Tarn::Secureboot::Status const, sbStatus)

// Reads the bootloader's features file, derives secure boot outdated, PCR
// multibank and measured boot support, and warns of bootloader deprecation.
class TarnFeatureSm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(TarnFeatureSm, SENTREL_TARN_FEATURE_SM_ARGS)

 public:
   void getRevisionFromFeaturesFile();
   void populateSbOutdatedFromSbVersion();
   Loom::String getRunningTarnVersion();
   void checkTarnDeprecation();
   void checkPcrMultibankSupported();
   void checkMeasuredbootSupported();
   void handleInitialized();

 private:
   void sbStatusDispatch();

   Loom::Reactor sbStatusDispatch_;
};

// The first "Tarn=" entry of a kernel command line: the leftmost match of the
// ECMAScript search Tarn=\S+, key included.
std::optional<std::string> searchTarnEntry(std::string const &line);

}  // namespace Sentrel
