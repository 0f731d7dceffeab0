#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>

namespace SentrelAttestd {

using String = std::string;

// Which file was read, as it was: a changed or replaced file differs.
struct FileIdentity {
   dev_t device = 0;
   ino_t inode = 0;
   off_t size = 0;
   timespec modified{};
   bool operator==(FileIdentity const &o) const {
      return device == o.device && inode == o.inode && size == o.size && modified.tv_sec == o.modified.tv_sec &&
             modified.tv_nsec == o.modified.tv_nsec;
   }
};
FileIdentity identityOf(struct stat const &st);

struct FileText {
   String text;
   FileIdentity identity;
   String problem;  // empty when the whole file was read
};

// The whole of the file at `path`, at most `maxBytes`, read to its end
// rather than by its size (securityfs files say 0). Problems name the file
// as `shown`: the path without the system root.
FileText readFileText(String const &path, String const &shown, std::size_t maxBytes);

}  // namespace SentrelAttestd
