#pragma once

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/Ptr.h"
#include "Sentrel/platform/String.h"

namespace Loom {

class Object;
struct TypeInfo;

// Collections of entity attributes. Sets only grow, and std::set keeps its
// iterators valid on insertion, so a walk that inserts resumes at the first
// element greater than the current one.
using StringSet = std::set<String>;
using StringU32Map = std::map<String, std::uint32_t>;

enum class Kind { Bool, Unsigned, String, StringSet, StringU32Map, Variant, Ref };

// A tagged union seen generically: the alternative's name, and either its
// text or its named unsigned fields.
struct VariantValue {
   String alternative;
   String text;
   std::vector<std::pair<String, std::uint64_t>> fields;
   bool operator==(VariantValue const &) const = default;
};

// Any attribute's value, as generic code reads and writes it.
using Value = std::variant<bool, std::uint64_t, String, std::vector<String>,
                           std::vector<std::pair<String, std::uint32_t>>, VariantValue,
                           Object const *>;

// nullopt on success, otherwise what was wrong with the value.
using Error = std::optional<String>;

// Descriptions are constant tables, built when the program is compiled:
// loading a library then costs no construction, no allocation and no
// destruction at exit.
struct AttrInfo {
   std::string_view name;
   Kind kind;
   std::uint64_t max = 0;  // largest value of an Unsigned attribute
   Value (*get)(Object const &) = nullptr;
   Error (*set)(Object &, Value const &) = nullptr;     // null: not settable
   Error (*insert)(Object &, Value const &) = nullptr;  // sets and maps: one element
   TypeInfo const &(*refType)() = nullptr;               // references: the type referred to
};

struct OpInfo {
   std::string_view name;
   // The operation's result as text, when it has one.
   std::optional<String> (*invoke)(Object &) = nullptr;
};

struct LOOM_API TypeInfo {
   std::string_view name;
   std::span<AttrInfo const> attrs;
   std::span<OpInfo const> ops;
   Ptr<Object> (*create)() = nullptr;  // entity types: a new entity at defaults
   // Types built from a name alone, as agents are: a new object of that name.
   Ptr<Object> (*createNamed)(String const &name) = nullptr;
   // State machines: the name operators know the machine by (scripts,
   // reports); empty for every other type.
   std::string_view machine = {};

   AttrInfo const *attr(std::string_view n) const;
   OpInfo const *op(std::string_view n) const;
};

// Called when a module is loaded: makes its types known by name.
LOOM_API void moduleLoaded(char const *module, std::initializer_list<TypeInfo const *> types);
LOOM_API TypeInfo const *findType(std::string_view name);

// Conversions between attribute types and generic values.
template <class T>
struct ValueTraits;

template <>
struct ValueTraits<bool> {
   static constexpr Kind kind = Kind::Bool;
   static Value to(bool v) { return v; }
   static Error from(Value const &v, bool &out) {
      if (auto const *b = std::get_if<bool>(&v)) {
         out = *b;
         return std::nullopt;
      }
      return "expected true or false";
   }
};

template <class U>
   requires std::is_unsigned_v<U>
struct ValueTraits<U> {
   static constexpr Kind kind = Kind::Unsigned;
   static Value to(U v) { return std::uint64_t{v}; }
   static Error from(Value const &v, U &out) {
      auto const *n = std::get_if<std::uint64_t>(&v);
      if (!n || *n > std::numeric_limits<U>::max()) {
         return "expected an integer from 0 to " + std::to_string(std::numeric_limits<U>::max());
      }
      out = static_cast<U>(*n);
      return std::nullopt;
   }
};

template <>
struct ValueTraits<String> {
   static constexpr Kind kind = Kind::String;
   static Value to(String const &v) { return v; }
   static Error from(Value const &v, String &out) {
      if (auto const *s = std::get_if<String>(&v)) {
         out = *s;
         return std::nullopt;
      }
      return "expected a string";
   }
};

// The class and result of an accessor, a setter or an operation.
template <class M>
struct Member;
template <class E, class R>
struct Member<R (E::*)() const> {
   using Class = E;
   using Type = std::remove_cvref_t<R>;
};
template <class E, class R>
struct Member<R (E::*)()> {
   using Class = E;
   using Type = R;
};

template <auto Get>
Value getValue(Object const &o) {
   using M = Member<decltype(Get)>;
   return ValueTraits<typename M::Type>::to((static_cast<typename M::Class const &>(o).*Get)());
}

template <auto Get, auto Set>
Error setValue(Object &o, Value const &v) {
   using T = typename Member<decltype(Get)>::Type;
   using E = typename Member<decltype(Get)>::Class;
   T t{};
   if (auto e = ValueTraits<T>::from(v, t)) return e;
   (static_cast<E &>(o).*Set)(t);
   return std::nullopt;
}

// Builders of attribute descriptions from an entity's getter and setter.
template <auto Get, auto Set = nullptr>
constexpr AttrInfo attr(std::string_view name) {
   using T = typename Member<decltype(Get)>::Type;
   AttrInfo a{name, ValueTraits<T>::kind};
   if constexpr (std::is_unsigned_v<T> && !std::is_same_v<T, bool>) a.max = std::numeric_limits<T>::max();
   a.get = &getValue<Get>;
   if constexpr (ValueTraits<T>::kind == Kind::Ref) a.refType = ValueTraits<T>::type;
   if constexpr (!std::is_null_pointer_v<decltype(Set)>) a.set = &setValue<Get, Set>;
   return a;
}

template <auto Get>
Value setElements(Object const &o) {
   auto const &s = (static_cast<typename Member<decltype(Get)>::Class const &>(o).*Get)();
   return Value{std::vector<String>(s.begin(), s.end())};
}

template <auto Get, auto Insert>
Error insertIntoSet(Object &o, Value const &v) {
   auto const *s = std::get_if<String>(&v);
   if (!s) return "expected a string";
   (static_cast<typename Member<decltype(Get)>::Class &>(o).*Insert)(*s);
   return std::nullopt;
}

template <auto Get, auto Insert>
constexpr AttrInfo setAttr(std::string_view name) {
   return AttrInfo{name, Kind::StringSet, 0, &setElements<Get>, nullptr, &insertIntoSet<Get, Insert>};
}

template <auto Get>
Value mapEntries(Object const &o) {
   auto const &m = (static_cast<typename Member<decltype(Get)>::Class const &>(o).*Get)();
   return Value{std::vector<std::pair<String, std::uint32_t>>(m.begin(), m.end())};
}

template <auto Get, auto Insert>
Error insertIntoMap(Object &o, Value const &v) {
   auto const *kv = std::get_if<std::vector<std::pair<String, std::uint32_t>>>(&v);
   if (!kv) return "expected an object of names to integers";
   for (auto const &[k, n] : *kv) (static_cast<typename Member<decltype(Get)>::Class &>(o).*Insert)(k, n);
   return std::nullopt;
}

template <auto Get, auto Insert>
constexpr AttrInfo mapAttr(std::string_view name) {
   return AttrInfo{name, Kind::StringU32Map, 0xffffffffu, &mapEntries<Get>, nullptr, &insertIntoMap<Get, Insert>};
}

template <auto Fn>
std::optional<String> invokeOp(Object &o) {
   using M = Member<decltype(Fn)>;
   if constexpr (std::is_void_v<typename M::Type>) {
      (static_cast<typename M::Class &>(o).*Fn)();
      return std::nullopt;
   } else {
      return String((static_cast<typename M::Class &>(o).*Fn)());
   }
}

// Builder of an operation description; a String result is reported.
template <auto Fn>
constexpr OpInfo op(std::string_view name) {
   return OpInfo{name, &invokeOp<Fn>};
}

// Base of everything that has a type description: entities and nodes.
class LOOM_API Object : public RefCounted {
 public:
   virtual TypeInfo const &typeData() const = 0;

 protected:
   Object() = default;
   ~Object() override;
};

// A reference takes an object of its own type (told by the type
// description) or null, and refuses any other.
template <class X>
struct ValueTraits<Ptr<X>> {
   static constexpr Kind kind = Kind::Ref;
   static constexpr TypeInfo const &(*type)() = &std::remove_const_t<X>::typeInfo;
   static Value to(Ptr<X> const &v) { return static_cast<Object const *>(v.ptr()); }
   static Error from(Value const &v, Ptr<X> &out) {
      using Plain = std::remove_const_t<X>;
      String const want(Plain::typeInfo().name);
      auto const *o = std::get_if<Object const *>(&v);
      if (!o) return "expected a reference to a " + want;
      if (!*o) {
         out = nullptr;
         return std::nullopt;
      }
      auto *x = (*o)->typeData().name == want ? dynamic_cast<Plain *>(const_cast<Object *>(*o)) : nullptr;
      if (!x) return "expected a " + want + ", not a " + String((*o)->typeData().name);
      out = Ptr<X>(x);
      return std::nullopt;
   }
};

// The creator of an entity type's description: a new entity at defaults.
template <class E>
Ptr<Object> create() {
   return Ptr<Object>(make<E>());
}

}  // namespace Loom
