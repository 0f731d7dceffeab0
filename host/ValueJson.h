#pragma once

#include <functional>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/TypeInfo.h"
#include "host/JsonTree.h"

namespace SentrelHost {

// A JSON value read for an attribute: the generic value, or what is wrong
// with it and where.
struct Converted {
   Loom::Value value;
   std::optional<JsonError> error;
};

// The value that `set` (or, for sets and maps, `insert`) of `attr` takes.
// A set takes one string or, when `whole` is set, an array of strings.
Converted valueFromJson(Loom::AttrInfo const &attr, JsonNode const &node, bool whole);

// The value that `set` of a reference takes: the JSON string of an entity
// path, found by `lookup` (null when there is none there), or null.
Converted referenceFromJson(JsonNode const &node,
                            std::function<Loom::Object const *(Loom::String const &path)> const &lookup);

// Writes a generic value; sets are arrays, maps and variants objects.
template <class Writer>
void writeJsonValue(Writer &w, Loom::Value const &v) {
   auto raw = [&w](Loom::String const &s) {
      auto q = jsonQuote(s);
      w.RawValue(q.c_str(), q.size(), rapidjson::kStringType);
   };
   std::visit(
      [&](auto const &x) {
         using T = std::decay_t<decltype(x)>;
         if constexpr (std::is_same_v<T, bool>) {
            w.Bool(x);
         } else if constexpr (std::is_same_v<T, std::uint64_t>) {
            w.Uint64(x);
         } else if constexpr (std::is_same_v<T, Loom::String>) {
            raw(x);
         } else if constexpr (std::is_same_v<T, std::vector<Loom::String>>) {
            w.StartArray();
            for (auto const &s : x) raw(s);
            w.EndArray();
         } else if constexpr (std::is_same_v<T, std::vector<std::pair<Loom::String, std::uint32_t>>>) {
            w.StartObject();
            for (auto const &[k, n] : x) {
               raw(k);
               w.Uint(n);
            }
            w.EndObject();
         } else if constexpr (std::is_same_v<T, Loom::VariantValue>) {
            w.StartObject();
            raw(x.alternative);
            if (x.fields.empty()) {
               raw(x.text);
            } else {
               w.StartObject();
               for (auto const &[k, n] : x.fields) {
                  raw(k);
                  w.Uint64(n);
               }
               w.EndObject();
            }
            w.EndObject();
         } else {
            w.Null();  // references are not printed as values
         }
      },
      v);
}

// Writes every printable attribute of an object (references are left out).
template <class Writer>
void writeJsonObject(Writer &w, Loom::Object const *o) {
   if (!o) {
      w.Null();
      return;
   }
   w.StartObject();
   for (auto const &a : o->typeData().attrs) {
      if (a.kind == Loom::Kind::Ref) continue;
      auto q = jsonQuote(a.name);
      w.RawValue(q.c_str(), q.size(), rapidjson::kStringType);
      writeJsonValue(w, a.get(*o));
   }
   w.EndObject();
}

}  // namespace SentrelHost
