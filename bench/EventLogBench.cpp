// Parsing a firmware event log and judging it against a TPM that holds what
// it replays to, against the least that can cost: OpenSSL extending the
// same digests with the same algorithms and nothing else. Both run in every iteration and are timed by this thread's
// CPU clock, so that other processes on the machine count in neither.
#include <benchmark/benchmark.h>

#include "HashFloor.h"
#include "evidence/Replay.h"
#include "evidence/Verdict.h"
#include "tests/EventLogWriter.h"

using namespace SentrelEvidence;
using SentrelBench::HashFloor;
using SentrelBench::Seconds;
using SentrelBench::threadCpu;

namespace {

void BM_EventLogReplay(benchmark::State &state) {
   auto const events = static_cast<std::size_t>(state.range(0));
   SentrelTest::LogPlan written;
   written.banks = {kAlgSha1, kAlgSha256, kAlgSha384};
   written.startupLocality = 3;
   written.events = SentrelTest::firmwareEvents(events, 7);
   String const bytes = SentrelTest::writeEventLog(written);
   auto const parsed = parseEventLog(bytes);
   if (!std::holds_alternative<EventLog>(parsed)) return state.SkipWithError("the log does not parse");
   HashFloor floor(std::get<EventLog>(parsed));
   TpmPcrs tpm;
   for (auto const &[alg, bank] : replayEventLog(std::get<EventLog>(parsed)).banks) {
      for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) tpm.banks[algorithmName(alg)].values[pcr] = bank.values[pcr];
   }
   auto const clean = verdict(std::get<EventLog>(parsed), tpm);
   if (clean.replayedBank.size() != 3 || !clean.mismatchedPcr.empty()) {
      return state.SkipWithError("the TPM does not hold what the log replays to");
   }
   Seconds replayTime{}, floorTime{};
   for (auto _ : state) {
      auto const start = threadCpu();
      {
         auto const findings = verdict(std::get<EventLog>(parseEventLog(bytes)), tpm);
         benchmark::DoNotOptimize(findings.replayedBank.size());
      }
      auto const replayed = threadCpu();
      floor.run();
      auto const floored = threadCpu();
      replayTime += replayed - start;
      floorTime += floored - replayed;
      state.SetIterationTime((replayed - start).count());
   }
   auto const perRun = [&](Seconds d) { return d.count() * 1e6 / static_cast<double>(state.iterations()); };
   state.counters["replay_us"] = perRun(replayTime);
   state.counters["hashFloor_us"] = perRun(floorTime);
   state.counters["replay/hashFloor"] = perRun(replayTime) / perRun(floorTime);
   state.counters["log_KiB"] = static_cast<double>(bytes.size()) / 1024;
   state.SetItemsProcessed(state.iterations() * state.range(0));
   state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_EventLogReplay)->Arg(100)->Arg(1000)->Arg(10000)->UseManualTime()->Complexity(benchmark::oN);

}  // namespace
