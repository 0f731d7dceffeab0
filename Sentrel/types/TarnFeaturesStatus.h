#pragma once

#include "Sentrel/platform/Entity.h"

namespace Tarn::Features {

// The bootloader's features and the facts derived from their revisions.
class LOOM_API Status : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned {
         featuresFilePath,
         featureRev,
         sbOutdated,
         pcrMultibankSupported,
         measuredbootSupported
      };
   };
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   Loom::String const &featuresFilePath() const { return featuresFilePath_; }
   void featuresFilePathIs(Loom::String const &v) { assign(featuresFilePath_, v, Attr::featuresFilePath); }
   // Keyed by feature name (HN_FeatureRev).
   Loom::StringU32Map const &featureRev() const { return featureRev_; }
   void featureRevIs(Loom::String const &name, std::uint32_t revision) {
      insertInto(featureRev_, name, revision, Attr::featureRev);
   }
   bool sbOutdated() const { return sbOutdated_; }
   void sbOutdatedIs(bool v) { assign(sbOutdated_, v, Attr::sbOutdated); }
   bool pcrMultibankSupported() const { return pcrMultibankSupported_; }
   void pcrMultibankSupportedIs(bool v) { assign(pcrMultibankSupported_, v, Attr::pcrMultibankSupported); }
   bool measuredbootSupported() const { return measuredbootSupported_; }
   void measuredbootSupportedIs(bool v) { assign(measuredbootSupported_, v, Attr::measuredbootSupported); }

 protected:
   ~Status() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Loom::String featuresFilePath_ = "/run/tarn/features";
   Loom::StringU32Map featureRev_;
   bool sbOutdated_ = false;
   bool pcrMultibankSupported_ = false;
   bool measuredbootSupported_ = false;
};

}  // namespace Tarn::Features
