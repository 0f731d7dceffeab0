#include "attest/FileText.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace SentrelAttestd {

FileIdentity identityOf(struct stat const &st) { return {st.st_dev, st.st_ino, st.st_size, st.st_mtim}; }

FileText readFileText(String const &path, String const &shown, std::size_t maxBytes) {
   FileText f;
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
   if (fd < 0) {
      f.problem = "cannot open " + shown + ": " + std::strerror(errno);
      return f;
   }
   struct stat st{};
   if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      f.problem = shown + " is not a file";
      close(fd);
      return f;
   }
   f.identity = identityOf(st);
   char buffer[65536];
   for (;;) {
      ssize_t const n = read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
         f.problem = "cannot read " + shown + ": " + std::strerror(errno);
         break;
      }
      if (n == 0) break;
      if (f.text.size() + static_cast<std::size_t>(n) > maxBytes) {
         f.problem = shown + " is larger than " + std::to_string(maxBytes) + " bytes";
         break;
      }
      f.text.append(buffer, static_cast<std::size_t>(n));
   }
   close(fd);
   if (!f.problem.empty()) f.text.clear();
   return f;
}

}  // namespace SentrelAttestd
