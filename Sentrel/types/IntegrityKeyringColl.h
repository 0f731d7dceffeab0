#pragma once

#include "Sentrel/platform/Entity.h"

namespace Sentrel {

// Stand-in for the integrity keyring collection of the sibling library:
// mounted and passed through, never read here.
class LOOM_API IntegrityKeyringColl : public Loom::Entity {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

 protected:
   ~IntegrityKeyringColl() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
};

}  // namespace Sentrel
