#include "Sentrel/platform/TypeInfo.h"

#include <algorithm>

namespace Loom {

RefCounted::~RefCounted() = default;
Object::~Object() = default;

AttrInfo const *TypeInfo::attr(std::string_view n) const {
   auto it = std::find_if(attrs.begin(), attrs.end(), [&](AttrInfo const &a) { return a.name == n; });
   return it == attrs.end() ? nullptr : &*it;
}

OpInfo const *TypeInfo::op(std::string_view n) const {
   auto it = std::find_if(ops.begin(), ops.end(), [&](OpInfo const &o) { return o.name == n; });
   return it == ops.end() ? nullptr : &*it;
}

namespace {
// A few dozen types at most: a list searched in order is all it takes.
std::vector<TypeInfo const *> &registry() {
   static auto *r = new std::vector<TypeInfo const *>;
   return *r;
}
}  // namespace

void moduleLoaded(char const *, std::initializer_list<TypeInfo const *> types) {
   for (auto const *t : types) {
      auto &r = registry();
      auto it = std::find_if(r.begin(), r.end(), [&](TypeInfo const *k) { return k->name == t->name; });
      if (it == r.end()) {
         r.push_back(t);
      } else {
         *it = t;
      }
   }
}

TypeInfo const *findType(std::string_view name) {
   auto const &r = registry();
   auto it = std::find_if(r.begin(), r.end(), [&](TypeInfo const *t) { return t->name == name; });
   return it == r.end() ? nullptr : *it;
}

}  // namespace Loom
