#pragma once

#include <cstdint>

#include "Sentrel/platform/Entity.h"

namespace Tarn::Secureboot {

// Secure boot state as the bootloader reports it; written by another agent.
class LOOM_API Status : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned { supported, ready, statusFlags, enabledPcrBank };
   };
   // The bits of statusFlags that this system reads.
   static constexpr std::uint16_t secureBootDisabledBit = 0x0001;
   static constexpr std::uint16_t measuredBootEnabledBit = 0x0020;
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   bool supported() const { return supported_; }
   void supportedIs(bool v) { assign(supported_, v, Attr::supported); }
   bool ready() const { return ready_; }
   void readyIs(bool v) { assign(ready_, v, Attr::ready); }
   // Bit 0: secure boot currently off; bit 5: measured boot currently on.
   std::uint16_t statusFlags() const { return statusFlags_; }
   void statusFlagsIs(std::uint16_t v) { assign(statusFlags_, v, Attr::statusFlags); }
   Loom::StringSet const &enabledPcrBank() const { return enabledPcrBank_; }
   void enabledPcrBankIs(Loom::String const &bank) { insertInto(enabledPcrBank_, bank, Attr::enabledPcrBank); }

 protected:
   ~Status() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   bool supported_ = false;
   bool ready_ = false;
   std::uint16_t statusFlags_ = 0;
   Loom::StringSet enabledPcrBank_;
};

}  // namespace Tarn::Secureboot
