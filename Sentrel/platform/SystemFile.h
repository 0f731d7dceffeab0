#pragma once

#include <cstddef>
#include <optional>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// What reading a whole file gave: its bytes, or why there are none.
struct FileRead {
   // Set when the file opened and read; past the cap it holds the first
   // `cap` bytes and `err` is EFBIG.
   std::optional<String> data;
   int err = 0;  // errno of the failure; EISDIR for a folder
};

// Files read whole are small (a variable, a version, a JSON document): more
// than this is a wrong path (a device, a link to /dev/zero), not input.
inline constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

// The one read seam: reads `path` below the system root (as given when
// `sysroot` is false), close-on-exec, refusing folders and files past `cap`.
LOOM_API FileRead readFile(String const &path, bool sysroot, std::size_t cap = kMaxFileBytes);
// errno of stat(2) on `path` below the system root, 0 when it exists; `dir`
// tells whether it is a folder.
LOOM_API int statSystemPath(char const *path, bool *dir = nullptr);

}  // namespace Loom
