#include "Sentrel/platform/SystemFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Sysroot.h"

namespace Loom {

FileRead readFile(String const &path, bool sysroot, std::size_t cap) {
   FileRead r;
   String const real = sysroot ? sysrootPath(path.c_str()) : path;
   int const fd = open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
   if (fd < 0) {
      r.err = errno;
      return r;
   }
   struct stat st {};
   if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      close(fd);
      r.err = EISDIR;
      return r;
   }
   String text;
   char chunk[4096];
   for (;;) {
      ssize_t const n = read(fd, chunk, sizeof chunk);
      if (n == 0) break;
      if (n < 0) {
         if (errno == EINTR) continue;
         r.err = errno;
         close(fd);
         return r;
      }
      if (text.size() + static_cast<std::size_t>(n) > cap) {
         text.append(chunk, cap - text.size());
         r.err = EFBIG;
         break;
      }
      text.append(chunk, static_cast<std::size_t>(n));
   }
   close(fd);
   r.data = std::move(text);
   return r;
}

int statSystemPath(char const *path, bool *dir) {
   struct stat st {};
   if (stat(sysrootPath(path).c_str(), &st) != 0) return errno;
   if (dir) *dir = S_ISDIR(st.st_mode);
   return 0;
}

}  // namespace Loom
