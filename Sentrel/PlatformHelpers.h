#pragma once

#include <string>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/String.h"

namespace Sentrel {

using Loom::String;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>>;

// Runs a shell command; on success the output holds its standard output less
// trailing newlines. On failure the output is left as it was and `why`, when
// given, says what went wrong, for people.
bool runCmd(std::string const &command, String &output, String *why = nullptr);
// Why a command failed with the shell status `code`, for people.
String commandFailure(std::string const &command, int code);

// Reads a JSON file; true only if it opened and parsed. When it did not
// open, `openErr` (if given) gets the errno; else it stays 0.
bool parseJsonFile(char const *path, JsonDocument &document, int *openErr = nullptr);

}  // namespace Sentrel

// Feature toggles, each asked for once per process.
bool toggleSentrelImaEnabled();
bool togglePcrMultibankEnabled();
bool toggleSentrelMfgExpectedConfigCheckEnabled();
bool togglePlatformFirstInstructionSecurityEnabled();

#include <initializer_list>
#include <optional>

namespace Loom {
class Entity;
}

namespace Sentrel {

// An input file named by the attribute `pathAttr`, read whole and bounded.
// nullopt when it cannot be opened, with `err` set; a folder reads as empty
// and a file past the bound as its first part: the reason for `attrs` of
// `entity` is reported in every case but success.
std::optional<String> readInputFile(Loom::Entity const &entity, std::initializer_list<char const *> attrs,
                                    char const *pathAttr, String const &path, int &err);

// Reports why the input file named by the attribute `pathAttr` gave nothing
// for `attrs` of `entity`: `err` is the errno of the failure.
void inputFileReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *pathAttr,
                     String const &path, int err);

// The reason for facts of `entity` when the toggle `name` of `file` is off.
void toggleOffReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *name,
                     char const *file);

}  // namespace Sentrel
