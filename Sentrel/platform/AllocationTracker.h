#pragma once

#include <cstdint>
#include <vector>

#include "Sentrel/platform/Export.h"

namespace Loom {

// Counts the live objects of one type. Every tracked type owns one
// (`memAllocationTracker_`); all of them are listed so that a create/destroy
// cycle can be proven to leak nothing.
class LOOM_API AllocationTracker {
 public:
   explicit AllocationTracker(char const *typeName);
   AllocationTracker(AllocationTracker const &) = delete;
   AllocationTracker &operator=(AllocationTracker const &) = delete;
   ~AllocationTracker();

   void constructed() noexcept { ++constructed_; }
   void released() noexcept { ++released_; }
   char const *typeName() const noexcept { return typeName_; }
   std::uint64_t constructions() const noexcept { return constructed_; }
   std::uint64_t releases() const noexcept { return released_; }
   std::int64_t live() const noexcept {
      return static_cast<std::int64_t>(constructed_ - released_);
   }

   static std::vector<AllocationTracker const *> all();
   // Sum of live objects over every tracker.
   static std::int64_t liveTotal();

 private:
   char const *typeName_;
   std::uint64_t constructed_ = 0;
   std::uint64_t released_ = 0;
};

// Member of a tracked object: counts it from construction to release.
class LOOM_API TrackedBy {
 public:
   explicit TrackedBy(AllocationTracker &t) noexcept : tracker_(t) { t.constructed(); }
   TrackedBy(TrackedBy const &) = delete;
   TrackedBy &operator=(TrackedBy const &) = delete;
   ~TrackedBy() { tracker_.released(); }

 private:
   AllocationTracker &tracker_;
};

}  // namespace Loom
