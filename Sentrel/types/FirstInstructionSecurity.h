#pragma once

#include <cstdint>
#include <variant>

#include "Sentrel/platform/EntityAttrs.h"

namespace Sentrel {

// Model and revision of an AMD platform, as two nibbles of its PSB status.
struct ModelRevisionId {
   std::uint8_t upperNibble = 0;
   std::uint8_t lowerNibble = 0;
   bool operator==(ModelRevisionId const &) const = default;
};

// Intel: the Boot Guard key hash; AMD: the model and revision identifier.
using VendorSpecific = std::variant<Loom::String, ModelRevisionId>;

#define SENTREL_FIRST_INSTRUCTION_SECURITY_ATTRS(X) \
   X(value, Loom::String, cpuVendor, {})             \
   X(value, bool, supported, false)                  \
   X(value, bool, systemFused, false)                \
   X(value, bool, verifiedbootEnabled, false)        \
   X(value, bool, measuredbootEnabled, false)        \
   X(value, bool, devConfig, false)                  \
   X(value, VendorSpecific, vendorSpecific, {})

// First-instruction security: Intel Boot Guard or AMD Platform Secure Boot.
class LOOM_API FirstInstructionSecurity : public Loom::Entity {
   LOOM_ENTITY(FirstInstructionSecurity, SENTREL_FIRST_INSTRUCTION_SECURITY_ATTRS)
};

}  // namespace Sentrel

// Generic form: {"string": "..."} or {"modelRevisionId": {...}}.
template <>
struct Loom::ValueTraits<Sentrel::VendorSpecific> {
   static constexpr Kind kind = Kind::Variant;
   LOOM_API static Value to(Sentrel::VendorSpecific const &v);
   LOOM_API static Error from(Value const &v, Sentrel::VendorSpecific &out);
};
