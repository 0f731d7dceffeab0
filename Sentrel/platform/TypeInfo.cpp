#include "Sentrel/platform/TypeInfo.h"

#include <algorithm>

namespace Loom {

RefCounted::~RefCounted() = default;
Object::~Object() = default;

AttrInfo const *TypeInfo::attr(String const &n) const {
   auto it = std::find_if(attrs.begin(), attrs.end(), [&](AttrInfo const &a) { return a.name == n; });
   return it == attrs.end() ? nullptr : &*it;
}

OpInfo const *TypeInfo::op(String const &n) const {
   auto it = std::find_if(ops.begin(), ops.end(), [&](OpInfo const &o) { return o.name == n; });
   return it == ops.end() ? nullptr : &*it;
}

namespace {
std::map<String, TypeInfo const *> &registry() {
   static auto *r = new std::map<String, TypeInfo const *>;
   return *r;
}
}  // namespace

void moduleLoaded(char const *, std::vector<TypeInfo const *> const &types) {
   for (auto const *t : types) registry()[t->name] = t;
}

TypeInfo const *findType(String const &name) {
   auto it = registry().find(name);
   return it == registry().end() ? nullptr : it->second;
}

}  // namespace Loom
