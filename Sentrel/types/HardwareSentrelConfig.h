#pragma once

#include "Sentrel/platform/Entity.h"

namespace Hardware::Sentrel {

// Manufacturing defaults of the platform; written by another agent.
class LOOM_API Config : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned { secureBootEnabled, measuredBootEnabled, configReady };
   };
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   bool secureBootEnabled() const { return secureBootEnabled_; }
   void secureBootEnabledIs(bool v) { assign(secureBootEnabled_, v, Attr::secureBootEnabled); }
   bool measuredBootEnabled() const { return measuredBootEnabled_; }
   void measuredBootEnabledIs(bool v) { assign(measuredBootEnabled_, v, Attr::measuredBootEnabled); }
   bool configReady() const { return configReady_; }
   void configReadyIs(bool v) { assign(configReady_, v, Attr::configReady); }

 protected:
   ~Config() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   bool secureBootEnabled_ = false;
   bool measuredBootEnabled_ = false;
   bool configReady_ = false;
};

}  // namespace Hardware::Sentrel
