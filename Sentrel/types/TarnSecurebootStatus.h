#pragma once

#include <cstdint>

#include "Sentrel/platform/EntityAttrs.h"

namespace Tarn::Secureboot {

// statusFlags, bit 0: secure boot currently off; bit 5: measured boot
// currently on.
#define TARN_SECUREBOOT_STATUS_ATTRS(X)        \
   X(value, bool, supported, false)            \
   X(value, bool, ready, false)                \
   X(value, std::uint16_t, statusFlags, 0)     \
   X(set, Loom::StringSet, enabledPcrBank, {})

// Secure boot state as the bootloader reports it; written by another agent.
class LOOM_API Status : public Loom::Entity {
 public:
   // The bits of statusFlags that this system reads.
   static constexpr std::uint16_t secureBootDisabledBit = 0x0001;
   static constexpr std::uint16_t measuredBootEnabledBit = 0x0020;

   LOOM_ENTITY(Status, TARN_SECUREBOOT_STATUS_ATTRS)
};

}  // namespace Tarn::Secureboot
