#pragma once

#include <chrono>
#include <cstddef>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// Dispositions of the child's standard input and standard error.
inline constexpr int kNoInput = -1;   // standard input from /dev/null
inline constexpr int kDiscard = -2;  // standard error to /dev/null

// Of what a command prints, this much is kept; the rest is read, so that the
// command never blocks on a full pipe, and dropped.
inline constexpr std::size_t kMaxCommandOutput = std::size_t{1} << 20;
// What a shell reports for a command killed with SIGKILL, as one is at its
// deadline.
inline constexpr int kCommandKilled = 137;

struct CommandResult {
   // As a shell reports it: the exit code, 128 + the signal number, 127 when
   // not found, 126 when not executable, 137 when killed at the deadline.
   int exitCode = 127;
   String output;             // standard output, at most the size asked for
   std::size_t dropped = 0;   // bytes of output read past that and dropped
   bool timedOut = false;     // still running at the deadline: killed
   int pipeError = 0;         // errno when no pipe could be made: nothing ran
   int readError = 0;         // errno when reading the output failed
};

// Every command runs:
// - with posix_spawn (plain words started directly, anything else through
//   /bin/sh -c), so the cost does not grow with the size of this process;
// - in a process group of its own, which is killed (SIGKILL) with everything
//   in it when the command is still running at the deadline;
// - with LC_ALL=C, as its output is parsed and must not be translated;
// - with no descriptor of this process but the three it is given, and
//   SIGPIPE at its default even where this process ignores it.

// Runs a command and collects its standard output while it runs, keeping at
// most `maxOutput` bytes. Standard input and error are /dev/null. Once the
// command has exited, output still arriving (from a background child that
// kept the pipe) is read for a short grace only.
LOOM_API CommandResult runCommandForOutput(String const &command, std::size_t maxOutput = kMaxCommandOutput);

// Runs a command with its standard output on `stdoutFd` and waits for it
// (the caller must not let that descriptor fill up unread). Returns the
// result as above.
LOOM_API int runCommand(String const &command, int stdinFd, int stdoutFd, int stderrFd);

// The deadline of each command, from its start: 10 seconds unless set.
LOOM_API void commandTimeoutIs(std::chrono::duration<double> timeout);
LOOM_API std::chrono::duration<double> commandTimeout();

}  // namespace Loom
