#pragma once

#include <string>

#include "Sentrel/platform/String.h"

namespace Sentrel {

using Loom::String;

// Runs a shell command; on success the output holds its standard output less
// trailing newlines. On failure the output is left as it was and `why`, when
// given, says what went wrong, for people.
bool runCmd(std::string const &command, String &output, String *why = nullptr);
// Why a command failed with the shell status `code`, for people.
String commandFailure(std::string const &command, int code);

}  // namespace Sentrel
