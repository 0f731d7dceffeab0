#include "host/ValueJson.h"

namespace SentrelHost {

namespace {

Converted fail(JsonNode const &n, Loom::String message) { return {false, JsonError{n.offset, std::move(message)}}; }

Converted string(JsonNode const &n) {
   if (n.type != JsonNode::Str) return fail(n, Loom::String("expected a string, not ") + n.typeName());
   return {n.text, std::nullopt};
}

Converted unsignedValue(JsonNode const &n, std::uint64_t max) {
   if (n.type != JsonNode::Uint || n.uint > max) {
      return fail(n, "expected an integer from 0 to " + std::to_string(max));
   }
   return {n.uint, std::nullopt};
}

Converted map(JsonNode const &n) {
   if (n.type != JsonNode::Object) return fail(n, "expected an object of names to integers");
   std::vector<std::pair<Loom::String, std::uint32_t>> kv;
   for (auto const &[k, v] : n.members) {
      auto c = unsignedValue(v, 0xffffffffu);
      if (c.error) return c;
      kv.emplace_back(k.text, static_cast<std::uint32_t>(std::get<std::uint64_t>(c.value)));
   }
   return {kv, std::nullopt};
}

Converted variant(JsonNode const &n) {
   if (n.type != JsonNode::Object || n.members.size() != 1) {
      return fail(n, "expected an object of one member naming the alternative");
   }
   auto const &[k, v] = n.members.front();
   Loom::VariantValue vv{k.text, {}, {}};
   if (v.type == JsonNode::Str) {
      vv.text = v.text;
   } else if (v.type == JsonNode::Object) {
      for (auto const &[fk, fv] : v.members) {
         auto c = unsignedValue(fv, 0xffffffffu);
         if (c.error) return c;
         vv.fields.emplace_back(fk.text, std::get<std::uint64_t>(c.value));
      }
   } else {
      return fail(v, "expected a string or an object of integers");
   }
   return {vv, std::nullopt};
}

}  // namespace

Converted valueFromJson(Loom::AttrInfo const &attr, JsonNode const &node, bool whole) {
   switch (attr.kind) {
      case Loom::Kind::Bool:
         if (node.type != JsonNode::Bool) return fail(node, Loom::String("expected true or false, not ") + node.typeName());
         return {node.boolean, std::nullopt};
      case Loom::Kind::Unsigned:
         return unsignedValue(node, attr.max);
      case Loom::Kind::String:
         return string(node);
      case Loom::Kind::StringSet: {
         if (!whole) return string(node);
         if (node.type != JsonNode::Array) return fail(node, "expected an array of strings");
         std::vector<Loom::String> items;
         for (auto const &i : node.items) {
            auto c = string(i);
            if (c.error) return c;
            items.push_back(std::get<Loom::String>(c.value));
         }
         return {items, std::nullopt};
      }
      case Loom::Kind::StringU32Map:
         return map(node);
      case Loom::Kind::Variant:
         return variant(node);
      case Loom::Kind::Ref:
         break;
   }
   return fail(node, "this attribute cannot be set");
}

Converted referenceFromJson(JsonNode const &node,
                            std::function<Loom::Object const *(Loom::String const &path)> const &lookup) {
   if (node.type == JsonNode::Null) return {static_cast<Loom::Object const *>(nullptr), std::nullopt};
   if (node.type != JsonNode::Str) return fail(node, "expected the path of an entity as a string, or null");
   auto const *o = lookup(node.text);
   if (!o) return fail(node, "no entity at \"" + node.text + "\"");
   return {o, std::nullopt};
}

}  // namespace SentrelHost
