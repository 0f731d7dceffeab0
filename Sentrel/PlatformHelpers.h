#pragma once

#include <string>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/String.h"

namespace Sentrel {

using Loom::String;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>>;

// Runs a shell command; on success the output holds its standard output less
// trailing newlines. On failure the output is left as it was.
bool runCmd(std::string const &command, String &output);

// Reads a JSON file; true only if it opened and parsed.
bool parseJsonFile(char const *path, JsonDocument &document);

}  // namespace Sentrel

// Feature toggles, each asked for once per process.
bool toggleSentrelImaEnabled();
bool togglePcrMultibankEnabled();
bool toggleSentrelMfgExpectedConfigCheckEnabled();
bool togglePlatformFirstInstructionSecurityEnabled();
