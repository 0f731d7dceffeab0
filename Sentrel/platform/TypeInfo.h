#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <map>
#include <optional>
#include <set>
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
};

// Any attribute's value, as generic code reads and writes it.
using Value = std::variant<bool, std::uint64_t, String, std::vector<String>,
                           std::vector<std::pair<String, std::uint32_t>>, VariantValue,
                           Object const *>;

// nullopt on success, otherwise what was wrong with the value.
using Error = std::optional<String>;

struct AttrInfo {
   String name;
   Kind kind;
   std::uint64_t max = 0;  // largest value of an Unsigned attribute
   std::function<Value(Object const &)> get;
   std::function<Error(Object &, Value const &)> set;     // empty: not settable
   std::function<Error(Object &, Value const &)> insert;  // sets and maps: one element
};

struct OpInfo {
   String name;
   // The operation's result as text, when it has one.
   std::function<std::optional<String>(Object &)> invoke;
};

// Descriptions push each attribute and operation in (a move) rather than
// list them in braces: a braced list is copied, and copying a std::function
// calls its manager, so every start would touch code all over the library.
struct LOOM_API TypeInfo {
   String name;
   std::vector<AttrInfo> attrs;
   std::vector<OpInfo> ops;
   std::function<Ptr<Object>()> create;  // entity types: a new entity at defaults
   // Types built from a name alone, as agents are: a new object of that name.
   std::function<Ptr<Object>(String const &name)> createNamed = nullptr;

   AttrInfo const *attr(String const &n) const;
   OpInfo const *op(String const &n) const;
};

// Called when a module is loaded: makes its types known by name.
LOOM_API void moduleLoaded(char const *module, std::vector<TypeInfo const *> const &types);
LOOM_API TypeInfo const *findType(String const &name);

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

// Builders of attribute descriptions from an entity's getter and setter.
template <class E, class R>
AttrInfo attr(char const *name, R (E::*get)() const) {
   using T = std::remove_cvref_t<R>;
   AttrInfo a{name, ValueTraits<T>::kind, 0, nullptr, nullptr, nullptr};
   if constexpr (std::is_unsigned_v<T> && !std::is_same_v<T, bool>) {
      a.max = std::numeric_limits<T>::max();
   }
   a.get = [get](Object const &o) { return ValueTraits<T>::to((static_cast<E const &>(o).*get)()); };
   return a;
}

template <class E, class R, class A>
AttrInfo attr(char const *name, R (E::*get)() const, void (E::*set)(A)) {
   using T = std::remove_cvref_t<R>;
   AttrInfo a = attr(name, get);
   a.set = [set](Object &o, Value const &v) -> Error {
      T t{};
      if (auto e = ValueTraits<T>::from(v, t)) return e;
      (static_cast<E &>(o).*set)(t);
      return std::nullopt;
   };
   return a;
}

template <class E>
AttrInfo setAttr(char const *name, StringSet const &(E::*get)() const,
                 void (E::*insert)(String const &)) {
   AttrInfo a{name, Kind::StringSet, 0, nullptr, nullptr, nullptr};
   a.get = [get](Object const &o) {
      auto const &s = (static_cast<E const &>(o).*get)();
      return Value{std::vector<String>(s.begin(), s.end())};
   };
   a.insert = [insert](Object &o, Value const &v) -> Error {
      auto const *s = std::get_if<String>(&v);
      if (!s) return "expected a string";
      (static_cast<E &>(o).*insert)(*s);
      return std::nullopt;
   };
   return a;
}

template <class E>
AttrInfo mapAttr(char const *name, StringU32Map const &(E::*get)() const,
                 void (E::*insert)(String const &, std::uint32_t)) {
   AttrInfo a{name, Kind::StringU32Map, 0xffffffffu, nullptr, nullptr, nullptr};
   a.get = [get](Object const &o) {
      auto const &m = (static_cast<E const &>(o).*get)();
      return Value{std::vector<std::pair<String, std::uint32_t>>(m.begin(), m.end())};
   };
   a.insert = [insert](Object &o, Value const &v) -> Error {
      auto const *kv = std::get_if<std::vector<std::pair<String, std::uint32_t>>>(&v);
      if (!kv) return "expected an object of names to integers";
      for (auto const &[k, n] : *kv) (static_cast<E &>(o).*insert)(k, n);
      return std::nullopt;
   };
   return a;
}

// Builder of an operation description; a String result is reported.
template <class E, class R>
OpInfo op(char const *name, R (E::*fn)()) {
   return OpInfo{name, [fn](Object &o) -> std::optional<String> {
                    if constexpr (std::is_void_v<R>) {
                       (static_cast<E &>(o).*fn)();
                       return std::nullopt;
                    } else {
                       return String((static_cast<E &>(o).*fn)());
                    }
                 }};
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
   static Value to(Ptr<X> const &v) { return static_cast<Object const *>(v.ptr()); }
   static Error from(Value const &v, Ptr<X> &out) {
      using Plain = std::remove_const_t<X>;
      String const &want = Plain::typeInfo().name;
      auto const *o = std::get_if<Object const *>(&v);
      if (!o) return "expected a reference to a " + want;
      if (!*o) {
         out = nullptr;
         return std::nullopt;
      }
      auto *x = (*o)->typeData().name == want ? dynamic_cast<Plain *>(const_cast<Object *>(*o)) : nullptr;
      if (!x) return "expected a " + want + ", not a " + (*o)->typeData().name;
      out = Ptr<X>(x);
      return std::nullopt;
   }
};

// The creator of an entity type's description: a new entity at defaults.
template <class E>
std::function<Ptr<Object>()> creator() {
   return [] { return Ptr<Object>(make<E>()); };
}

}  // namespace Loom
