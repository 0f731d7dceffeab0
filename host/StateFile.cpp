#include "host/StateFile.h"

#include <filesystem>
#include <set>

#include "host/Reasons.h"
#include "host/UsageError.h"
#include "host/ValueJson.h"

namespace SentrelHost {

namespace {

UsageError at(String const &file, std::size_t offset, String const &problem) {
   return UsageError(file + ": byte " + std::to_string(offset) + ": " + problem);
}

// Sets an attribute from a JSON value: sets and maps take every element.
std::optional<String> assign(Loom::Object &o, Loom::AttrInfo const &attr, Loom::Value const &v) {
   if (attr.kind == Loom::Kind::StringSet) {
      for (auto const &s : std::get<std::vector<String>>(v)) {
         if (auto e = attr.insert(o, s)) return e;
      }
      return std::nullopt;
   }
   if (attr.kind == Loom::Kind::StringU32Map) return attr.insert(o, v);
   if (!attr.set) return "cannot be set";
   return attr.set(o, v);
}

}  // namespace

void applyEntityObject(Loom::Entity &entity, JsonNode const &object, String const &file, String const &dir,
                       Stated const &stated) {
   auto const &type = entity.typeData();
   auto const *entry = Sentrel::stateTreeEntryOf(type);
   for (auto const &[attrKey, value] : object.members) {
      auto const *attr = type.attr(attrKey.text);
      if (!attr || attr->kind == Loom::Kind::Ref) {
         throw at(file, attrKey.offset,
                  "unknown attribute \"" + attrKey.text + "\" of " + (entry ? entry->path : String(type.name)));
      }
      auto c = valueFromJson(*attr, value, true);
      if (c.error) throw at(file, c.error->offset, attrKey.text + ": " + c.error->message);
      auto *s = std::get_if<String>(&c.value);
      if (s && attr->name.ends_with("FilePath") && !s->empty() && s->front() != '/') *s = dir + "/" + *s;
      if (auto e = assign(entity, *attr, c.value)) throw at(file, value.offset, attrKey.text + ": " + *e);
      if (stated && entry) stated(*entry, static_cast<unsigned>(attr - type.attrs.data()));
   }
}

void applyStateFile(Ledger::EntityManager &em, String const &path, String const &text, Stated const &stated) {
   JsonError err;
   auto doc = parseJson(text, err);
   if (!doc) throw at(path, err.offset, err.message);
   String const dir = std::filesystem::absolute(path).parent_path().string();
   if (doc->type != JsonNode::Object) throw at(path, doc->offset, "expected an object with \"entities\"");
   std::set<Sentrel::StateTreeEntry const *> nulled;
   for (auto const &[key, entities] : doc->members) {
      if (key.text != "entities") throw at(path, key.offset, "unknown member \"" + key.text + "\"");
      if (entities.type != JsonNode::Object) throw at(path, entities.offset, "expected an object of entities");
      for (auto const &[pathKey, attrs] : entities.members) {
         auto const *entry = Sentrel::stateTreeEntry(pathKey.text);
         if (!entry) throw at(path, pathKey.offset, "unknown entity path \"" + pathKey.text + "\"");
         if (attrs.type == JsonNode::Null) {
            em.entityDel(entry->path);
            nulled.insert(entry);
            stated(*entry, kWholeEntity);
            continue;
         }
         if (attrs.type != JsonNode::Object) throw at(path, attrs.offset, "expected an object of attributes or null");
         auto entity = em.lookup(entry->path);
         if (!entity && !nulled.count(entry)) {
            // Absent so far (made so by the live inputs, or never there):
            // the state file brings it, at its defaults.
            em.entityIs(entry->path, Sentrel::stateTreeNew(*entry));
            entity = em.lookup(entry->path);
            stated(*entry, kWholeEntity);
         }
         if (!entity) throw at(path, attrs.offset, "entity \"" + pathKey.text + "\" was made absent above");
         applyEntityObject(*entity, attrs, path, dir, stated);
      }
   }
}

}  // namespace SentrelHost
