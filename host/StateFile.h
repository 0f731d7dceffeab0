#pragma once

#include <functional>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/types/StateTree.h"
#include "host/JsonTree.h"

namespace SentrelHost {

// Called for every fact a state document sets (kWholeEntity: all of an
// entity, which it made absent or brought back).
using Stated = std::function<void(Sentrel::StateTreeEntry const &entry, unsigned attr)>;

// Applies a state file, JSON of the shape of the report's entities:
// {"entities": {PATH: {ATTR: VALUE, ...} or null}}. Relative values of
// attributes whose name ends in FilePath are taken from the file's folder.
// Throws UsageError naming the file, the byte offset and the problem.
void applyStateFile(Ledger::EntityManager &em, String const &path, String const &text, Stated const &stated);

// Sets attributes of `entity` from a JSON object of them, with the same
// checks; relative file paths are taken from `dir`.
void applyEntityObject(Loom::Entity &entity, JsonNode const &object, String const &file, String const &dir,
                       Stated const &stated = {});

}  // namespace SentrelHost
