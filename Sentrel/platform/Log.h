#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// One system-log message as the catalogue declares it: five 8-byte words.
struct LogDescriptor {
   char const *name;
   char const *format;  // %s placeholders
   char const *explanation;
   char const *recommendedAction;  // or a one-byte standard-action code
   std::int32_t severity;          // syslog numbering
   std::int32_t reserved;
};
static_assert(sizeof(LogDescriptor) == 40);

struct LogRecord {
   String name;
   int severity;
   String text;
};

// Arguments of one log call, converted to text.
struct LogText {
   std::vector<String> args;
   std::size_t argHash = 0;
};

// Emits one descriptor's messages, rate limited per key: a key may be logged
// `burst` times (at least once) per `minInterval`, and each further interval
// of a key that keeps being suppressed is `factor` times longer. A minimum
// interval of 0 never suppresses. The key is made of the first `keyArgs`
// arguments (0: all of them).
class LOOM_API LogHandle {
 public:
   LogHandle(LogDescriptor const &d, std::chrono::nanoseconds minInterval, double factor,
             unsigned keyArgs, unsigned burst);
   LogHandle(LogHandle const &) = delete;
   LogHandle &operator=(LogHandle const &) = delete;

   LogDescriptor const &descriptor() const { return descriptor_; }
   unsigned rateLimitArgCount(unsigned argCount) const;
   std::size_t identityHash() const { return identityHash_; }
   bool mayLog(std::size_t key);
   void send(LogText const &record);

 private:
   struct KeyState {
      std::chrono::steady_clock::time_point windowStart;
      std::chrono::nanoseconds interval;
      unsigned sent;
   };
   LogDescriptor const &descriptor_;
   std::chrono::nanoseconds minInterval_;
   double factor_;
   unsigned keyArgs_;
   unsigned burst_;
   std::size_t identityHash_;
   std::map<std::size_t, KeyState> keys_;
};

// The framework's value-to-text conversion for log arguments.
inline String logValueText(char const *s) { return s ? String(s) : String(); }
inline String logValueText(String const &s) { return s; }

LOOM_API std::size_t logArgHash(std::vector<String> const &args, unsigned count);
// Replaces each %s of the format with the next argument.
LOOM_API String logFormat(char const *format, std::vector<String> const &args);

// A log call: the rate-limit key is built from the leading arguments only,
// and the others are converted only when the message may be logged.
template <class... A>
void log(LogHandle &h, A const &...a) {
   constexpr unsigned n = sizeof...(A);
   unsigned const k = h.rateLimitArgCount(n);
   LogText record;
   record.args.resize(n);
   unsigned i = 0;
   ((i < k ? void(record.args[i] = logValueText(a)) : void(), ++i), ...);
   std::size_t const argHash = logArgHash(record.args, k);
   if (!h.mayLog(argHash ^ h.identityHash())) return;
   i = 0;
   ((i >= k ? void(record.args[i] = logValueText(a)) : void(), ++i), ...);
   record.argHash = argHash;
   h.send(record);
}

// Messages go to syslog(3) (unless switched off) and to the sink.
LOOM_API void logSyslogIs(bool on, char const *ident);
LOOM_API void logSinkIs(std::function<void(LogRecord const &)> sink);

}  // namespace Loom
