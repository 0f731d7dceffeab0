#pragma once

#include <vector>

#include "Sentrel/platform/Ledger.h"

namespace Sentrel {

// The entities of the state database that the agent mounts or reads, in the
// order they are reported, with their type names.
struct StateTreeEntry {
   char const *path;
   char const *typeName;
   bool status;  // written by the agent (the others are its inputs)
};
LOOM_API std::vector<StateTreeEntry> const &stateTree();
// The entry of a path, or null when the path is not in the state tree.
LOOM_API StateTreeEntry const *stateTreeEntry(Loom::String const &path);

// Fills an entity manager with every entity of the state tree at its defaults.
LOOM_API void stateTreeSeed(Ledger::EntityManager &em);

}  // namespace Sentrel
