#pragma once

#include <vector>

#include <cstddef>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// A file read whole, up to a cap: input files are small, and one that is not
// (a device, a link to /dev/zero, a log) is a wrong path, not input to wait for.
struct LOOM_API FileText {
   String text;            // what was read; complete only when ok()
   int error = 0;          // errno of open or read
   bool folder = false;    // the path names a folder
   bool tooLarge = false;  // longer than the cap: reading stopped there
   std::size_t cap = 0;
   bool ok() const { return error == 0 && !folder && !tooLarge; }
   // What is wrong, for a message naming the file: "No such file or
   // directory", "is a folder, not a file", "larger than 16 MiB".
   String problem() const;
};

// Opens `path` for reading, close-on-exec and never through a blocking open
// of a FIFO (O_NONBLOCK is cleared once it is open); -1 with errno set.
LOOM_API int openInputFile(String const &path);

// Reads the file at `path`, opened as openInputFile does.
LOOM_API FileText readWholeFile(String const &path, std::size_t maxBytes);
// Files read whole are small (a variable, a version, a JSON document): more
// than this is a wrong path, not input.
inline constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

// A fixed system file (/proc, /sys, /etc), read below the system root.
LOOM_API FileText readSystemFile(char const *path, std::size_t maxBytes = kMaxFileBytes);
// errno of stat(2) on a fixed system path below the system root, 0 when it
// exists; `dir` tells whether it is a folder.
LOOM_API int statSystemPath(char const *path, bool *dir = nullptr);
// The names in a fixed system folder below the system root, but "." and
// "..", in the order the folder lists them; `err` is the errno of opening
// it, or 0.
LOOM_API std::vector<String> listSystemDir(char const *path, int &err);

// Reads an open descriptor to its end; it stays open.
LOOM_API FileText readWholeFd(int fd, std::size_t maxBytes);

}  // namespace Loom
