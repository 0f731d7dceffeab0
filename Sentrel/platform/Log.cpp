#include "Sentrel/platform/Log.h"

#include <algorithm>
#include <cstring>
#include <syslog.h>

namespace Loom {

namespace {

struct LogOutput {
   bool syslogOn = true;
   char const *ident = nullptr;
   bool opened = false;
   std::function<void(LogRecord const &)> sink;
};

LogOutput &output() {
   static auto *o = new LogOutput;
   return *o;
}

}  // namespace

LogHandle::LogHandle(LogDescriptor const &d, std::chrono::nanoseconds minInterval, double factor,
                     unsigned keyArgs, unsigned burst)
    : descriptor_(d),
      minInterval_(minInterval),
      factor_(factor),
      keyArgs_(keyArgs),
      burst_(burst),
      identityHash_(std::hash<String>{}(d.name ? d.name : "")) {}

unsigned LogHandle::rateLimitArgCount(unsigned argCount) const {
   return keyArgs_ == 0 || keyArgs_ > argCount ? argCount : keyArgs_;
}

bool LogHandle::mayLog(std::size_t key) {
   if (minInterval_.count() <= 0) return true;
   auto const now = std::chrono::steady_clock::now();
   auto [it, added] = keys_.try_emplace(key, KeyState{now, minInterval_, 0});
   KeyState &s = it->second;
   if (!added && now - s.windowStart >= s.interval) {
      // A quiet key returns to the base interval; a busy one backs off.
      bool const suppressed = s.sent > std::max(burst_, 1u);
      s.interval = suppressed ? std::chrono::duration_cast<std::chrono::nanoseconds>(s.interval * factor_)
                              : minInterval_;
      s.windowStart = now;
      s.sent = 0;
   }
   return ++s.sent <= std::max(burst_, 1u);
}

void LogHandle::send(LogText const &record) {
   LogRecord r{descriptor_.name, descriptor_.severity, logFormat(descriptor_.format, record.args)};
   auto &o = output();
   if (o.syslogOn) {
      if (!o.opened && o.ident) {
         openlog(o.ident, LOG_PID, LOG_USER);
         o.opened = true;
      }
      syslog(r.severity, "%s: %s", r.name.c_str(), r.text.c_str());
   }
   if (o.sink) o.sink(r);
}

std::size_t logArgHash(std::vector<String> const &args, unsigned count) {
   std::size_t h = 0;
   for (unsigned i = 0; i < count && i < args.size(); ++i) {
      h = h * 1000003u ^ std::hash<String>{}(args[i]);
   }
   return h;
}

String logFormat(char const *format, std::vector<String> const &args) {
   String out;
   std::size_t next = 0;
   for (char const *p = format; *p; ++p) {
      if (p[0] == '%' && p[1] == 's') {
         if (next < args.size()) out += args[next];
         ++next;
         ++p;
      } else {
         out += *p;
      }
   }
   return out;
}

void logSyslogIs(bool on, char const *ident) {
   auto &o = output();
   o.syslogOn = on;
   o.ident = ident;
}

void logSinkIs(std::function<void(LogRecord const &)> sink) { output().sink = std::move(sink); }

}  // namespace Loom
