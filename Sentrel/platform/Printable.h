#pragma once

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// `text` as it may be echoed on a terminal: control characters (and DEL)
// become \xHH, so a path or value cannot move the cursor, clear the screen or
// hide the rest of a message. Everything else is kept byte for byte.
LOOM_API String printable(String const &text);

}  // namespace Loom
