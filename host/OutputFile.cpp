#include "host/OutputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/UsageError.h"

namespace SentrelHost {

namespace {

bool writeAll(int fd, String const &text) {
   std::size_t done = 0;
   while (done < text.size()) {
      ssize_t const n = write(fd, text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return false;
      if (n == 0) {
         errno = EIO;
         return false;
      }
      done += static_cast<std::size_t>(n);
   }
   return true;
}

}  // namespace

void writeFileAtomically(String const &path, String const &text, char const *option) {
   auto const slash = path.rfind('/');
   String const folder = slash == String::npos ? "" : path.substr(0, slash + 1);
   // Hidden and without the final suffix: the textfile collector reads only *.prom.
   String temporary = folder + "." + path.substr(folder.size()) + ".XXXXXX";
   int const fd = mkostemp(temporary.data(), O_CLOEXEC);
   if (fd < 0) throw UsageError(option + (" " + path) + ": " + std::strerror(errno));
   int err = 0;
   if (!writeAll(fd, text) || fsync(fd) != 0 || fchmod(fd, 0644) != 0) err = errno;
   if (close(fd) != 0 && err == 0) err = errno;
   if (err == 0 && rename(temporary.c_str(), path.c_str()) != 0) err = errno;
   if (err != 0) {
      unlink(temporary.c_str());
      throw UsageError(option + (" " + path) + ": " + std::strerror(err));
   }
   // The rename lasts a crash once the folder is synced; the file is whole either way.
   int const dir = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   if (dir >= 0) {
      fsync(dir);
      close(dir);
   }
}

}  // namespace SentrelHost
