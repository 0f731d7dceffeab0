#pragma once

#include "Sentrel/platform/EntityAttrs.h"

namespace Sentrel {

#define SENTREL_MEASURED_BOOT_VERSION_ATTRS(X)                                      \
   X(value, Loom::String, tarnVersionFilePath, "/run/tarn/measured-boot-version") \
   X(value, Loom::String, vexoVersionFilePath, "/etc/vexo/measured-boot.json")    \
   X(value, Loom::String, tarn, {})                                               \
   X(value, Loom::String, vexo, {})

// Measured boot versions of the bootloader and of the operating system image.
class LOOM_API MeasuredBootVersion : public Loom::Entity {
   LOOM_ENTITY(MeasuredBootVersion, SENTREL_MEASURED_BOOT_VERSION_ATTRS)
};

}  // namespace Sentrel
