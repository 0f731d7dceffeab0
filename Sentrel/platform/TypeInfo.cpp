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

std::vector<TypeInfo const *>::iterator registered(std::string_view name) {
   auto &r = registry();
   return std::find_if(r.begin(), r.end(), [&](TypeInfo const *t) { return t->name == name; });
}
}  // namespace

void moduleLoaded(char const *, std::initializer_list<TypeInfo const *> types) {
   for (auto const *t : types) {
      if (auto it = registered(t->name); it != registry().end()) {
         *it = t;
      } else {
         registry().push_back(t);
      }
   }
}

TypeInfo const *findType(std::string_view name) {
   auto it = registered(name);
   return it == registry().end() ? nullptr : *it;
}

}  // namespace Loom
