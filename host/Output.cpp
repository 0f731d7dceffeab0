#include "host/Output.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace SentrelHost {

namespace {
bool isOpen(int fd) { return fcntl(fd, F_GETFD) >= 0 || errno != EBADF; }
}  // namespace

std::optional<String> secureStandardDescriptors() {
   for (int fd : {STDIN_FILENO, STDERR_FILENO}) {
      if (isOpen(fd)) continue;
      int const null = open("/dev/null", O_RDWR);
      // The lowest free number may be standard output's: move it where it belongs.
      if (null >= 0 && null != fd) {
         dup2(null, fd);
         close(null);
      }
   }
   if (!isOpen(STDOUT_FILENO)) return String("standard output is closed: the report would be lost");
   return std::nullopt;
}

int writeAll(int fd, String const &text) {
   std::size_t done = 0;
   while (done < text.size()) {
      ssize_t const n = write(fd, text.data() + done, text.size() - done);
      if (n < 0) {
         if (errno == EINTR) continue;
         return errno;
      }
      if (n == 0) return EIO;
      done += static_cast<std::size_t>(n);
   }
   return 0;
}

}  // namespace SentrelHost
