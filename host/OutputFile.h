#pragma once

#include "Sentrel/platform/String.h"

namespace SentrelHost {

using Loom::String;

// Replaces `path` with `text` in one step, so a reader (node_exporter's
// textfile collector) sees the old file or the new one, never a part: a
// temporary file of an unpredictable name in the same folder, made afresh
// (never through a link: the folder may be writable by others), written,
// synced, made 0644 and renamed over `path`. On failure the temporary file is
// removed and UsageError names the option, `path` and the problem.
void writeFileAtomically(String const &path, String const &text, char const *option = "--output");

}  // namespace SentrelHost
