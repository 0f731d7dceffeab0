#pragma once

#include "Sentrel/platform/EntityAttrs.h"

namespace Hardware::Sentrel {

#define HARDWARE_SENTREL_CONFIG_ATTRS(X)    \
   X(value, bool, secureBootEnabled, false)   \
   X(value, bool, measuredBootEnabled, false) \
   X(value, bool, configReady, false)

// Manufacturing defaults of the platform; written by another agent.
class LOOM_API Config : public Loom::Entity {
   LOOM_ENTITY(Config, HARDWARE_SENTREL_CONFIG_ATTRS)
};

}  // namespace Hardware::Sentrel
