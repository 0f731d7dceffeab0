// The TPM's firmware event log: parsed, and when it parses, replayed and
// judged against a TPM whose banks hold zeros, with itself as the baseline.
// The seeds come from fuzz/event_log_seeds.cpp.
#include <cstdlib>

#include "FuzzSupport.h"
#include "evidence/Replay.h"
#include "evidence/Verdict.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelEvidence;
   auto const parsed = parseEventLog(std::string_view(reinterpret_cast<char const *>(data), size));
   auto const *log = std::get_if<EventLog>(&parsed);
   if (!log) return 0;
   // What the replay and its readers rely on: events in order, within the
   // input, on PCRs a TPM has, every digest of its algorithm's size.
   for (std::size_t i = 0; i < log->events.size(); ++i) {
      auto const &e = log->events[i];
      if (e.number != i || e.offset >= size || (i > 0 && e.offset <= log->events[i - 1].offset)) std::abort();
      if (e.pcr >= kPcrCount) std::abort();
      for (auto const &d : e.digests) {
         if (d.bytes.size() != tpmAlgorithm(d.algorithm)->digestSize) std::abort();
      }
   }
   auto const replay = replayEventLog(*log);
   if (replay.banks.size() + replay.uncomputable.size() != log->algorithms.size()) std::abort();
   TpmPcrs tpm;
   for (auto const id : {kAlgSha1, kAlgSha256}) {
      auto &bank = tpm.banks[algorithmName(id)];
      for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) bank.values[pcr] = String(tpmAlgorithm(id)->digestSize, '\0');
   }
   auto const findings = verdict(*log, tpm, log);
   // A log is its own baseline, but for events with no known digest to
   // compare; a bank the TPM holds at zeros is never unverified.
   if (!log->algorithms.empty() && !findings.baselineDifference.empty()) std::abort();
   if (!findings.unverifiedBank.empty()) std::abort();
   return 0;
}
