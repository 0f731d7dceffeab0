#include "Sentrel/platform/Sysroot.h"

#include <cstdlib>
#include <optional>

namespace Loom {

namespace {
std::optional<String> &root() {
   static auto *r = new std::optional<String>;
   return *r;
}
}  // namespace

void sysrootIs(String const &dir) { root() = dir; }

String sysrootPath(char const *path) {
   if (!root()) {
      char const *env = std::getenv("SENTREL_SYSROOT");
      root() = env ? String(env) : String();
   }
   return *root() + path;
}

}  // namespace Loom
