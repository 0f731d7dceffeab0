// The agent's start-up pass and its reaction to secure boot support.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "BenchSupport.h"
#include "Sentrel/SentrelAgent.h"
#include "Sentrel/platform/Log.h"

using namespace SentrelBench;

namespace {

template <class F>
double secondsOf(F &&f) {
   auto const t0 = std::chrono::steady_clock::now();
   f();
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Factory to every machine initialized, on the sample switch: seven files,
// the MSR, lscpu and two BootGuardUtil runs. Wall time, since most of it is
// spent in the children.
void BM_AgentStart(benchmark::State &state) {
   useSampleSwitch();
   for (auto _ : state) {
      auto em = sampleLedger(sampleSwitch("tarn/features"));
      Ptr<Sentrel::Agent> agent;
      state.SetIterationTime(secondsOf([&] {
         agent = Sentrel::agentFactory("Sentrel");
         Loom::startAgent(*agent, em);
      }));
      if (!agent->checkConfigurationStatusSm()->initialized()) state.SkipWithError("not initialized");
   }
}
BENCHMARK(BM_AgentStart)->UseManualTime()->Unit(benchmark::kMillisecond);

// Dropping a started agent: notifications off, every machine and reference
// released. A fixed count, since each iteration also starts an agent, which
// takes thousands of times longer than what is measured.
void BM_AgentDestroy(benchmark::State &state) {
   useSampleSwitch();
   for (auto _ : state) {
      auto em = sampleLedger(sampleSwitch("tarn/features"));
      auto agent = Sentrel::agentFactory("Sentrel");
      Loom::startAgent(*agent, em);
      state.SetIterationTime(secondsOf([&] { agent = nullptr; }));
   }
}
BENCHMARK(BM_AgentDestroy)->UseManualTime()->Iterations(200)->Unit(benchmark::kMicrosecond);

// `supported` of tarn/sb/status turning true. With secureboot:26 the
// bootloader is outdated: /proc/cmdline is read and the warning logged.
// With secureboot:54 it is a few map lookups and setters.
void BM_SupportedTurnsTrue(benchmark::State &state) {
   useSampleSwitch();
   ScratchDir dir;
   auto em = sampleLedger(dir.file("features", "secureboot:" + std::to_string(state.range(0)) + "\n"));
   auto sb = Loom::ptrCast<Tarn::Secureboot::Status>(em->lookup("tarn/sb/status"));
   auto status = Loom::ptrCast<Tarn::Features::Status>(em->lookup("tarn/features/status"));
   sb->supportedIs(false);
   auto sm = Sentrel::TarnFeatureSm::TarnFeatureSmIs(em, status, sb);
   std::size_t warnings = 0;
   Loom::logSinkIs([&](Loom::LogRecord const &) { ++warnings; });
   for (auto _ : state) {
      state.SetIterationTime(secondsOf([&] { sb->supportedIs(true); }));
      sb->supportedIs(false);
   }
   Loom::logSinkIs(nullptr);
   state.counters["warnings"] = benchmark::Counter(double(warnings), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_SupportedTurnsTrue)->ArgName("secureboot")->Arg(26)->Arg(54)->UseManualTime();

}  // namespace
