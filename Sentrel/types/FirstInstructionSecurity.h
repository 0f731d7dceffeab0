#pragma once

#include <cstdint>
#include <variant>

#include "Sentrel/platform/Entity.h"

namespace Sentrel {

// Model and revision of an AMD platform, as two nibbles of its PSB status.
struct ModelRevisionId {
   std::uint8_t upperNibble = 0;
   std::uint8_t lowerNibble = 0;
   bool operator==(ModelRevisionId const &) const = default;
};

// Intel: the Boot Guard key hash; AMD: the model and revision identifier.
using VendorSpecific = std::variant<Loom::String, ModelRevisionId>;

// First-instruction security: Intel Boot Guard or AMD Platform Secure Boot.
class LOOM_API FirstInstructionSecurity : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned {
         cpuVendor,
         supported,
         systemFused,
         verifiedbootEnabled,
         measuredbootEnabled,
         devConfig,
         vendorSpecific
      };
   };
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   Loom::String const &cpuVendor() const { return cpuVendor_; }
   void cpuVendorIs(Loom::String const &v) { assign(cpuVendor_, v, Attr::cpuVendor); }
   bool supported() const { return supported_; }
   void supportedIs(bool v) { assign(supported_, v, Attr::supported); }
   bool systemFused() const { return systemFused_; }
   void systemFusedIs(bool v) { assign(systemFused_, v, Attr::systemFused); }
   bool verifiedbootEnabled() const { return verifiedbootEnabled_; }
   void verifiedbootEnabledIs(bool v) { assign(verifiedbootEnabled_, v, Attr::verifiedbootEnabled); }
   bool measuredbootEnabled() const { return measuredbootEnabled_; }
   void measuredbootEnabledIs(bool v) { assign(measuredbootEnabled_, v, Attr::measuredbootEnabled); }
   bool devConfig() const { return devConfig_; }
   void devConfigIs(bool v) { assign(devConfig_, v, Attr::devConfig); }
   VendorSpecific const &vendorSpecific() const { return vendorSpecific_; }
   void vendorSpecificIs(VendorSpecific const &v) { assign(vendorSpecific_, v, Attr::vendorSpecific); }

 protected:
   ~FirstInstructionSecurity() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Loom::String cpuVendor_;
   bool supported_ = false;
   bool systemFused_ = false;
   bool verifiedbootEnabled_ = false;
   bool measuredbootEnabled_ = false;
   bool devConfig_ = false;
   VendorSpecific vendorSpecific_;
};

}  // namespace Sentrel

// Generic form: {"string": "..."} or {"modelRevisionId": {...}}.
template <>
struct Loom::ValueTraits<Sentrel::VendorSpecific> {
   static constexpr Kind kind = Kind::Variant;
   LOOM_API static Value to(Sentrel::VendorSpecific const &v);
   LOOM_API static Error from(Value const &v, Sentrel::VendorSpecific &out);
};
