#pragma once

#include <initializer_list>
#include <optional>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/String.h"

namespace Loom {
class Entity;
}

namespace Sentrel {

using Loom::String;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>>;

// Reads a JSON file; true only if it opened and parsed. When it did not
// open, `openErr` (if given) gets the errno; else it stays 0.
bool parseJsonFile(char const *path, JsonDocument &document, int *openErr = nullptr);

// Reports why the input file named by the attribute `pathAttr` gave nothing
// for `attrs` of `entity`: `err` is the errno of the failure.
void inputFileReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *pathAttr,
                     String const &path, int err);

// An input file named by the attribute `pathAttr`, read whole and bounded.
// nullopt when it cannot be opened, with `err` set; a folder reads as empty
// and a file past the bound as its first part: the reason for `attrs` of
// `entity` is reported in every case but success.
std::optional<String> readInputFile(Loom::Entity const &entity, std::initializer_list<char const *> attrs,
                                    char const *pathAttr, String const &path, int &err);

}  // namespace Sentrel
