#pragma once

#include <span>
#include <string_view>

#include "Sentrel/platform/Ledger.h"

namespace Sentrel {

// The entities of the state database that the agent mounts or reads, with
// their type names and how the agent mounts them.
struct StateTreeEntry {
   char const *path;
   char const *typeName;
   bool status;       // written by the agent (the others are its inputs)
   char const *mode;  // the agent's mount: "w" writes, "r" only reads
   bool inDir;        // mounted as the Loom::Dir that holds it, not itself
};
// In the order they are reported: the status entities, then the inputs.
LOOM_API std::span<StateTreeEntry const> stateTree();
// The same entries in the order the agent declares its mounts.
LOOM_API std::span<StateTreeEntry const> stateTreeMounts();
// The entry of a path, or null when the path is not in the state tree.
LOOM_API StateTreeEntry const *stateTreeEntry(std::string_view path);
// The entry of an entity type, or null.
LOOM_API StateTreeEntry const *stateTreeEntryOfType(std::string_view typeName);
// What the agent mounts for an entry.
LOOM_API Ledger::Mount stateTreeMount(StateTreeEntry const &e);

// Fills an entity manager with every entity of the state tree at its defaults.
LOOM_API void stateTreeSeed(Ledger::EntityManager &em);

}  // namespace Sentrel
