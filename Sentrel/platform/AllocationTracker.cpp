#include "Sentrel/platform/AllocationTracker.h"

#include <algorithm>

namespace Loom {

namespace {
std::vector<AllocationTracker const *> &registry() {
   // Never destroyed: trackers of a loaded agent outlive static destruction order.
   static auto *r = new std::vector<AllocationTracker const *>;
   return *r;
}
}  // namespace

AllocationTracker::AllocationTracker(char const *typeName) : typeName_(typeName) {
   registry().push_back(this);
}

AllocationTracker::~AllocationTracker() {
   auto &r = registry();
   r.erase(std::remove(r.begin(), r.end(), this), r.end());
}

std::vector<AllocationTracker const *> AllocationTracker::all() { return registry(); }

std::int64_t AllocationTracker::liveTotal() {
   std::int64_t n = 0;
   for (auto const *t : registry()) n += t->live();
   return n;
}

}  // namespace Loom
