// Writes the seeds of event_log_fuzz with the tests' log writer. Regenerate
// them after a change of the writer or of the layouts it covers:
//   cmake --build build --target event_log_seeds
//   build/bin/event_log_seeds fuzz/corpus/event_log_fuzz
#include <cstdio>
#include <fstream>

#include "tests/EventLogWriter.h"

using namespace SentrelTest;
using namespace SentrelEvidence;

int main(int argc, char **argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
      return 2;
   }
   auto const seed = [&](char const *name, LogPlan const &log) {
      std::ofstream(std::string(argv[1]) + "/" + name, std::ios::binary) << writeEventLog(log);
   };
   LogPlan log;
   log.events = firmwareEvents(12, 1);
   seed("sha1-sha256", log);
   log.banks = {kAlgSha1, kAlgSha256, kAlgSha384, kAlgSha512};
   log.startupLocality = 3;
   log.events = firmwareEvents(10, 2);
   seed("four-banks-startup-locality", log);
   log.banks = {kAlgSha256, kAlgSm3_256};
   log.unknownAlgorithms = {{0x0099, 16}};
   log.startupLocality.reset();
   log.events = firmwareEvents(8, 3);
   seed("sm3-and-an-unknown-algorithm", log);
   log = LogPlan{};
   log.format = EventLogFormat::Sha1;
   log.events = firmwareEvents(12, 4);
   seed("sha1-layout", log);
   return 0;
}
