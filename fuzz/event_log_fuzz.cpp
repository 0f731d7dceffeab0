// The TPM's firmware event log: parsed, and replayed when it parses. The
// seeds come from fuzz/event_log_seeds.cpp.
#include <cstdlib>

#include "FuzzSupport.h"
#include "host/evidence/Replay.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelEvidence;
   auto const parsed = parseEventLog(std::string_view(reinterpret_cast<char const *>(data), size));
   auto const *log = std::get_if<EventLog>(&parsed);
   if (!log) return 0;
   // What the replay and its readers rely on: events in order, within the
   // input, every digest of its algorithm's size.
   for (std::size_t i = 0; i < log->events.size(); ++i) {
      auto const &e = log->events[i];
      if (e.number != i || e.offset >= size || (i > 0 && e.offset <= log->events[i - 1].offset)) std::abort();
      for (auto const &d : e.digests) {
         if (d.bytes.size() != tpmAlgorithm(d.algorithm)->digestSize) std::abort();
      }
   }
   auto const replay = replayEventLog(*log);
   if (replay.banks.size() + replay.uncomputable.size() != log->algorithms.size()) std::abort();
   return 0;
}
