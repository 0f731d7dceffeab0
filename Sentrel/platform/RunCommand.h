#pragma once

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// Dispositions of the child's standard input and standard error.
inline constexpr int kNoInput = -1;   // standard input from /dev/null
inline constexpr int kDiscard = -2;  // standard error to /dev/null

// Runs a command from its text and waits for it; its standard output goes to
// `stdoutFd`. Returns the result as a shell reports it: the exit code, 128 +
// the signal number, 127 when not found, 126 when not executable.
// Plain words are started directly; anything else through /bin/sh -c.
// Started with posix_spawn, so the cost does not grow with the process size.
LOOM_API int runCommand(String const &command, int stdinFd, int stdoutFd, int stderrFd);

}  // namespace Loom
