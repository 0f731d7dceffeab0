#pragma once

#include "host/Options.h"

namespace SentrelHost {

class Session;

// Runs a script on a started session: one command a line (set, insert,
// show, invoke, restart); blank lines and lines starting with # are
// skipped. What the commands print is appended to `out`, in `format`.
// Throws UsageError naming the script and the line.
void runScript(Session &session, Format format, String const &name, String const &text, String &out);

}  // namespace SentrelHost
