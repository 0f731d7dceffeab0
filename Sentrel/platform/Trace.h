#pragma once

#include <functional>
#include <optional>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

struct TraceRecord {
   String facility;
   int level;
   char const *source;
   int line;
   char const *function;
   String text;
};

// A named trace facility with levels 0 to 9. Its levels come from the
// environment variable <NAME>_TRACE (upper case), unless set explicitly.
class LOOM_API TraceHandle {
 public:
   TraceHandle(char const *facility, bool flag);
   TraceHandle(TraceHandle const &) = delete;
   TraceHandle &operator=(TraceHandle const &) = delete;

   bool enabled(int level) const { return (*mask_ >> level) & 1u; }
   void emit(int level, char const *source, int line, char const *function, String text) const;

 private:
   String facility_;
   unsigned const *mask_;
};

// "2", "2,7", "0-9", "" (none): the level mask, or nullopt when malformed.
LOOM_API std::optional<unsigned> parseTraceLevels(String const &text);
LOOM_API void traceLevelsIs(String const &facility, unsigned mask);
// Where records go; by default a line on standard error.
LOOM_API void traceSinkIs(std::function<void(TraceRecord const &)> sink);

}  // namespace Loom
