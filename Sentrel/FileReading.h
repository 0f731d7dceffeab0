#pragma once

#include <initializer_list>
#include <optional>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/String.h"

namespace Sentrel {

using Loom::String;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>>;

// Reads a JSON file; true only if it opened and parsed. When it did not
// open, `openErr` (if given) gets the errno; else it stays 0.
bool parseJsonFile(char const *path, JsonDocument &document, int *openErr = nullptr);

// Reports why the input file named by the attribute `pathAttr` gave nothing
// for `facts`: `err` is the errno of the failure.
void inputFileReason(Loom::ReasonRecord facts, unsigned pathAttr, String const &path, int err);

// An input file named by the attribute `pathAttr`, read whole and bounded.
// nullopt when it cannot be opened, with `err` set; a folder reads as empty
// and a file past the bound as its first part: the reason for `facts` is
// reported in every case but success.
std::optional<String> readInputFile(Loom::ReasonRecord facts, unsigned pathAttr, String const &path, int &err);

// The same, on the typed facts of an entity.
template <class E>
void inputFileReason(E const &entity, std::initializer_list<typename E::Attr::Number> attrs,
                     typename E::Attr::Number pathAttr, String const &path, int err) {
   inputFileReason(Loom::factsOf(entity, attrs), pathAttr, path, err);
}
template <class E>
std::optional<String> readInputFile(E const &entity, std::initializer_list<typename E::Attr::Number> attrs,
                                    typename E::Attr::Number pathAttr, String const &path, int &err) {
   return readInputFile(Loom::factsOf(entity, attrs), pathAttr, path, err);
}

}  // namespace Sentrel
