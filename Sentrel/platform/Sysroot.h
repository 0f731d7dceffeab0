#pragma once

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// Fixed system files (/proc, /dev, /sys) are opened below a system root:
// set explicitly, else $SENTREL_SYSROOT, else none. Even absolute paths are
// taken relative to it.
LOOM_API void sysrootIs(String const &dir);
LOOM_API String sysrootPath(char const *path);

}  // namespace Loom
