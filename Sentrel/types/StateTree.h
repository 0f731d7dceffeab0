#pragma once

#include <span>
#include <string_view>

#include "Sentrel/platform/Ledger.h"

namespace Sentrel {

// The entities of the state database that the agent mounts or reads, and
// the one the host writes, with their types and how the agent mounts them.
// The tree holds one entity of each type, so a type names its entry.
struct StateTreeEntry {
   char const *path;
   Loom::TypeInfo const &(*type)();
   bool status;       // a status entity (the others are the agent's inputs)
   char const *mode;  // the agent's mount: "w" writes, "r" only reads; null: the host's own
   bool inDir;        // mounted as the Loom::Dir that holds it, not itself
   bool seeded;       // there from the start, at its defaults
};
// In the order they are reported: the status entities, then the inputs.
LOOM_API std::span<StateTreeEntry const> stateTree();
// The entries the agent mounts, in the order it declares them.
LOOM_API std::span<StateTreeEntry const> stateTreeMounts();
// The entry of a path, or null when the path is not in the state tree.
LOOM_API StateTreeEntry const *stateTreeEntry(std::string_view path);
// The entry of an entity type, or null.
LOOM_API StateTreeEntry const *stateTreeEntryOf(Loom::TypeInfo const &type);
// Where an entry stands in stateTree().
LOOM_API std::size_t stateTreeIndex(StateTreeEntry const &e);
// What the agent mounts for an entry.
LOOM_API Ledger::Mount stateTreeMount(StateTreeEntry const &e);
// A new entity of the entry's type, at its defaults.
LOOM_API Ptr<Loom::Entity> stateTreeNew(StateTreeEntry const &e);

// Fills an entity manager with the seeded entities at their defaults.
LOOM_API void stateTreeSeed(Ledger::EntityManager &em);

// The entity of type T in the state database, or null when it is absent.
template <class T>
Ptr<T> stateTreeEntity(Ledger::EntityManager const &em) {
   auto const *entry = stateTreeEntryOf(std::remove_const_t<T>::typeInfo());
   return entry ? Loom::ptrCast<T>(em.lookup(entry->path)) : nullptr;
}

}  // namespace Sentrel
