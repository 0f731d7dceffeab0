#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <unistd.h>

#include "Sentrel/platform/String.h"

// The build defines it from the project's version (host/CMakeLists.txt); a
// version made up here would drift from it.
#ifndef SENTREL_VERSION
#error "SENTREL_VERSION is not defined: link SentrelHostCore, which defines it"
#endif

namespace SentrelHost {

using Loom::String;

// Where and when a report was made, so that reports gathered from many
// switches can be told apart.
struct RunInfo {
   String version;
   String host;
   std::int64_t time;  // seconds since the epoch
};

// Taken once per report: every format of it shows the same moment.
inline RunInfo thisRun() {
   char name[256] = {};
   if (gethostname(name, sizeof name - 1) != 0) name[0] = '\0';
   auto const now = std::chrono::system_clock::now().time_since_epoch();
   return {SENTREL_VERSION, name, std::chrono::duration_cast<std::chrono::seconds>(now).count()};
}

// RFC 3339 in UTC, e.g. 2026-11-23T18:00:00Z.
inline String rfc3339(std::int64_t seconds) {
   std::time_t const t = static_cast<std::time_t>(seconds);
   std::tm tm{};
   char text[32] = {};
   if (!gmtime_r(&t, &tm) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0) return {};
   return text;
}

}  // namespace SentrelHost
