#pragma once

#include <optional>
#include <string>
#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace Sentrel {

// Reads the bootloader's features file, derives secure boot outdated, PCR
// multibank and measured boot support, and warns of bootloader deprecation.
class TarnFeatureSm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<TarnFeatureSm> TarnFeatureSmIs(Ptr<Ledger::EntityManager> const &entityManager,
                                             Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                                             Ptr<Tarn::Secureboot::Status const> const &sbStatus);
   TarnFeatureSm(Ptr<Ledger::EntityManager> const &entityManager,
                 Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                 Ptr<Tarn::Secureboot::Status const> const &sbStatus);

   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   Ptr<Tarn::Features::Status> const &tarnFeatureStatus() const { return tarnFeatureStatus_; }
   Ptr<Tarn::Secureboot::Status const> const &sbStatus() const { return sbStatus_; }
   void getRevisionFromFeaturesFile();
   void populateSbOutdatedFromSbVersion();
   Loom::String getRunningTarnVersion();
   void checkTarnDeprecation();
   void checkPcrMultibankSupported();
   void checkMeasuredbootSupported();
   // What it was built on, compared by identity when the agent asks again.
   auto constructorArgs() const { return std::tie(entityManager_, tarnFeatureStatus_, sbStatus_); }
   void handleInitialized();

 protected:
   ~TarnFeatureSm() override;

 private:
   void sbStatusDispatch();

   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<Tarn::Features::Status> tarnFeatureStatus_;
   Ptr<Tarn::Secureboot::Status const> sbStatus_;
   Loom::Reactor sbStatusDispatch_;
};

// The first "Tarn=" entry of a kernel command line: the leftmost match of the
// ECMAScript search Tarn=\S+, key included.
std::optional<std::string> searchTarnEntry(std::string const &line);

}  // namespace Sentrel
