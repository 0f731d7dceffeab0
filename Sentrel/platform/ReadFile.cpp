#include "Sentrel/platform/ReadFile.h"

#include "Sentrel/platform/Sysroot.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Loom {

String FileText::problem() const {
   if (folder) return "is a folder, not a file";
   if (tooLarge) {
      if (cap % (std::size_t{1} << 20) == 0) return "larger than " + std::to_string(cap >> 20) + " MiB";
      if (cap % 1024 == 0) return "larger than " + std::to_string(cap >> 10) + " KiB";
      return "larger than " + std::to_string(cap) + " bytes";
   }
   return error != 0 ? String(std::strerror(error)) : String();
}

FileText readWholeFd(int fd, std::size_t maxBytes) {
   FileText f;
   f.cap = maxBytes;
   struct stat st {};
   if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      f.folder = true;
      return f;
   }
   char chunk[16384];
   for (;;) {
      ssize_t const n = read(fd, chunk, sizeof chunk);
      if (n == 0) break;
      if (n < 0) {
         if (errno == EINTR) continue;
         f.error = errno;
         break;
      }
      auto const size = static_cast<std::size_t>(n);
      if (f.text.size() + size > maxBytes) {
         f.text.append(chunk, maxBytes - f.text.size());
         f.tooLarge = true;
         break;
      }
      f.text.append(chunk, size);
   }
   return f;
}

int openInputFile(String const &path) {
   // Non-blocking only for the open: a FIFO without a writer must not hang it.
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
   if (fd < 0) return -1;
   int const flags = fcntl(fd, F_GETFL);
   if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
   return fd;
}

FileText readWholeFile(String const &path, std::size_t maxBytes) {
   int const fd = openInputFile(path);
   if (fd < 0) {
      FileText f;
      f.cap = maxBytes;
      f.error = errno;
      return f;
   }
   FileText f = readWholeFd(fd, maxBytes);
   close(fd);
   return f;
}

FileText readSystemFile(char const *path, std::size_t maxBytes) {
   return readWholeFile(sysrootPath(path), maxBytes);
}

std::vector<String> listSystemDir(char const *path, int &err) {
   std::vector<String> names;
   err = 0;
   DIR *d = opendir(sysrootPath(path).c_str());
   if (!d) {
      err = errno;
      return names;
   }
   while (dirent const *e = readdir(d)) {
      std::string_view const name = e->d_name;
      if (name != "." && name != "..") names.emplace_back(name);
   }
   closedir(d);
   return names;
}

int statSystemPath(char const *path, bool *dir) {
   struct stat st {};
   if (stat(sysrootPath(path).c_str(), &st) != 0) return errno;
   if (dir) *dir = S_ISDIR(st.st_mode);
   return 0;
}

}  // namespace Loom
