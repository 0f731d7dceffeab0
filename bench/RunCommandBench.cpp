// Starting a command while the process holds much memory. Commands are
// started with posix_spawn, so the cost must not grow with the process; a
// fork + exec reference shows what it would be otherwise.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Sentrel/CommandRunning.h"
#include "Sentrel/platform/RunCommand.h"

namespace {

// Anonymous memory with every page written, so that it is resident and
// mapped; kept between runs of the same size, since writing 2 GiB takes a
// while.
void holdMiB(benchmark::State &state) {
   static void *held = nullptr;
   static std::size_t heldBytes = 0;
   std::size_t const bytes = std::size_t(state.range(0)) << 20;
   if (bytes != heldBytes) {
      if (held) munmap(held, heldBytes);
      held = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (held == MAP_FAILED) {
         held = nullptr, heldBytes = 0;
         state.SkipWithError("cannot map the memory");
         return;
      }
      long const page = sysconf(_SC_PAGESIZE);
      for (std::size_t at = 0; at < bytes; at += std::size_t(page)) static_cast<volatile char *>(held)[at] = 1;
      heldBytes = bytes;
   }
   long pages = 0, resident = 0;
   if (std::FILE *f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
      std::fclose(f);
   }
   state.counters["rss_MiB"] = double(resident) * double(sysconf(_SC_PAGESIZE)) / double(1 << 20);
}

void BM_RunCmd(benchmark::State &state) {
   holdMiB(state);
   Loom::String out;
   for (auto _ : state) {
      if (!Sentrel::runCmd("true", out)) state.SkipWithError("true failed");
   }
}

void BM_RunCommand(benchmark::State &state) {
   holdMiB(state);
   int const devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
   for (auto _ : state) {
      if (Loom::runCommand("true", Loom::kNoInput, devNull, Loom::kDiscard) != 0) state.SkipWithError("true failed");
   }
   close(devNull);
}

// The reference: fork copies the page tables of everything held.
void BM_ForkExec(benchmark::State &state) {
   holdMiB(state);
   for (auto _ : state) {
      pid_t const pid = fork();
      if (pid == 0) {
         execlp("true", "true", static_cast<char *>(nullptr));
         _exit(127);
      }
      int status = 0;
      if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) state.SkipWithError("fork failed");
   }
}

// 10 MiB and 2 GiB, each size written once per run of the binary when the
// benchmarks run in this order.
void sizes(benchmark::internal::Benchmark *b) {
   b->ArgName("MiB")->Arg(10)->Arg(2048)->UseRealTime()->Unit(benchmark::kMicrosecond);
}
BENCHMARK(BM_RunCmd)->Apply(sizes);
BENCHMARK(BM_RunCommand)->Apply(sizes);
BENCHMARK(BM_ForkExec)->Apply(sizes);

}  // namespace
