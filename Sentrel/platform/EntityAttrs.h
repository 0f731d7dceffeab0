#pragma once

#include <cstdint>
#include <iterator>
#include <type_traits>

#include "Sentrel/platform/Entity.h"

// One declaration per attribute. An entity type lists its attributes once,
// in order, as X(kind, type, name, default), for example
// X(value, Loom::String, filePath, "/run/my/file") X(set, Loom::StringSet, banks, {}).
// kind `value` is set whole (`nameIs(v)`), `set` takes one element
// (`nameIs(element)`), `map` one name and number (`nameIs(name, n)`); each
// setter notifies only on a change. In the class, LOOM_ENTITY(Class, LIST)
// declares the Attr enum (attribute numbers in that order), the accessors,
// and the fields at their defaults; in one source file,
// LOOM_ENTITY_DEFINE(Namespace, Class, LIST) defines the allocation tracker,
// the destructor and the type description.

namespace Loom {

// Scalars are passed and returned by value, everything else by reference.
template <class T>
using Pass = std::conditional_t<std::is_scalar_v<T>, T, T const &>;

}  // namespace Loom

#define LOOM_ATTR_ENUM_(kind, T, name, dflt) name,
#define LOOM_ATTR_FIELD_(kind, T, name, dflt) T name##_ = dflt;
#define LOOM_ATTR_ACCESSORS_(kind, T, name, dflt) \
   ::Loom::Pass<T> name() const { return name##_; } \
   LOOM_ATTR_SETTER_##kind(T, name)
#define LOOM_ATTR_SETTER_value(T, name) \
   void name##Is(::Loom::Pass<T> v) { assign(name##_, v, Attr::name); }
#define LOOM_ATTR_SETTER_set(T, name) \
   void name##Is(::Loom::String const &v) { insertInto(name##_, v, Attr::name); }
#define LOOM_ATTR_SETTER_map(T, name) \
   void name##Is(::Loom::String const &k, std::uint32_t v) { insertInto(name##_, k, v, Attr::name); }
#define LOOM_ATTR_INFO_(kind, T, name, dflt) LOOM_ATTR_INFO_##kind(name),
#define LOOM_ATTR_INFO_value(name) ::Loom::attr<&Self::name, &Self::name##Is>(#name)
#define LOOM_ATTR_INFO_set(name) ::Loom::setAttr<&Self::name, &Self::name##Is>(#name)
#define LOOM_ATTR_INFO_map(name) ::Loom::mapAttr<&Self::name, &Self::name##Is>(#name)

#define LOOM_ENTITY(E, LIST)                                                   \
 public:                                                                       \
   struct Attr {                                                               \
      enum Number : unsigned { LIST(LOOM_ATTR_ENUM_) };                        \
   };                                                                          \
   static ::Loom::AllocationTracker memAllocationTracker_;                     \
   static ::Loom::TypeInfo const &typeInfo();                                  \
   ::Loom::TypeInfo const &typeData() const override { return typeInfo(); }    \
   LIST(LOOM_ATTR_ACCESSORS_)                                                  \
                                                                               \
 protected:                                                                    \
   ~E() override;                                                              \
                                                                               \
 private:                                                                      \
   ::Loom::TrackedBy tracked_{memAllocationTracker_};                          \
   LIST(LOOM_ATTR_FIELD_)

#define LOOM_ENTITY_DEFINE(NS, E, LIST)                                        \
   namespace NS {                                                              \
   ::Loom::AllocationTracker E::memAllocationTracker_{#NS "::" #E};            \
   E::~E() = default;                                                          \
   ::Loom::TypeInfo const &E::typeInfo() {                                     \
      using Self [[maybe_unused]] = E;                                         \
      /* An empty last entry: a type without attributes still has an array. */ \
      static constexpr ::Loom::AttrInfo attrs[] = {LIST(LOOM_ATTR_INFO_){}};  \
      static constexpr ::Loom::TypeInfo t{                                     \
         #NS "::" #E, {attrs, std::size(attrs) - 1}, {}, &::Loom::create<E>}; \
      return t;                                                                \
   }                                                                           \
   }
