#include "Sentrel/platform/Json.h"

#include <cstdio>
#include <cstdlib>

namespace Loom {

void assertionFailed(char const *expr, char const *file, int line) {
   std::fprintf(stderr, "%s:%d: Assertion `%s' failed.\n", file, line, expr);
   std::abort();
}

}  // namespace Loom
