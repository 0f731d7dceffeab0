#pragma once

#include "Sentrel/platform/EntityAttrs.h"

namespace Tarn::Features {

// featureRev is keyed by feature name (HN_FeatureRev).
#define TARN_FEATURES_STATUS_ATTRS(X)                             \
   X(value, Loom::String, featuresFilePath, "/run/tarn/features") \
   X(map, Loom::StringU32Map, featureRev, {})                     \
   X(value, bool, sbOutdated, false)                              \
   X(value, bool, pcrMultibankSupported, false)                   \
   X(value, bool, measuredbootSupported, false)

// The bootloader's features and the facts derived from their revisions.
class LOOM_API Status : public Loom::Entity {
   LOOM_ENTITY(Status, TARN_FEATURES_STATUS_ATTRS)
};

}  // namespace Tarn::Features
