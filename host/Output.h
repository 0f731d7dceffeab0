#pragma once

#include <optional>

#include "Sentrel/platform/String.h"

namespace SentrelHost {

using Loom::String;

// Makes the three standard descriptors safe before anything else is opened.
// A closed standard input or error is opened on /dev/null, so that no file or
// socket opened later takes its number (the system log socket on descriptor 2
// would receive every diagnostic). A closed standard output cannot be mended
// that way, the report would be lost: returns the line that says so.
std::optional<String> secureStandardDescriptors();

// Writes all of `text` to `fd`, resuming after interruptions and short
// writes. Returns 0, or the errno of the write that failed (EPIPE when the
// reader has gone: SIGPIPE is to be ignored, see main).
int writeAll(int fd, String const &text);

}  // namespace SentrelHost
