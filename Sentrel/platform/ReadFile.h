#pragma once

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

// Reads the file at `path` (close-on-exec, never through a blocking open of a
// FIFO: O_NONBLOCK is cleared once it is open).
LOOM_API FileText readWholeFile(String const &path, std::size_t maxBytes);
// Reads an open descriptor to its end; it stays open.
LOOM_API FileText readWholeFd(int fd, std::size_t maxBytes);

}  // namespace Loom
