// A whole run of the host on this machine against one shell running lscpu,
// the one command that such a run starts, and against the least that the
// layering of host, framework library and dlopen'd agent costs. Each is
// started with posix_spawn, output to /dev/null, and waited for: process
// start to exit, wall time, and the CPU time of the process and what it
// started (from wait4), which a busy machine disturbs far less. The commands
// take turns within each iteration, so that a slower spell of the machine
// weighs on all of them alike; the counters are medians, with ratios to the
// shell and to the shared floor. fwupdtool's security report is timed too
// when it is installed, for scale.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

// The exit code, or -1 when it could not be started or did not exit; the
// CPU time it and its children used goes to `cpuMs`.
int spawnAndWait(std::vector<char const *> args, double &cpuMs) {
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
   posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
   args.push_back(nullptr);
   pid_t pid = 0;
   int const err = posix_spawn(&pid, args[0], &actions, nullptr, const_cast<char *const *>(args.data()), environ);
   posix_spawn_file_actions_destroy(&actions);
   int status = 0;
   rusage usage{};
   if (err != 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status)) return -1;
   auto ms = [](timeval t) { return double(t.tv_sec) * 1e3 + double(t.tv_usec) / 1e3; };
   cpuMs = ms(usage.ru_utime) + ms(usage.ru_stime);
   return WEXITSTATUS(status);
}

struct Subject {
   std::string name;
   std::vector<char const *> args;
   std::vector<double> ms;
   std::vector<double> cpuMs;
};

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v.empty() ? 0 : v[v.size() / 2];
}

void BM_WholeRun(benchmark::State &state) {
   // The shell comes first: every ratio is taken against it.
   std::vector<Subject> subjects = {
      {"shLscpu", {"/bin/sh", "-c", "lscpu"}, {}, {}},
      {"sentrel", {SENTREL_HOST_PATH, "--no-syslog"}, {}, {}},
      {"lscpu", {"/usr/bin/lscpu"}, {}, {}},
      {"floorShared", {FLOOR_Shared_PATH}, {}, {}},
      {"floorStatic", {FLOOR_Static_PATH}, {}, {}},
   };
   // Another build of the host, e.g. of the previous commit, for a before and after in the same turns.
   if (char const *other = std::getenv("SENTREL_BENCH_OTHER_HOST")) {
      subjects.push_back({"otherSentrel", {other, "--no-syslog"}, {}, {}});
   }
   if (access("/usr/bin/fwupdtool", X_OK) == 0) {
      subjects.push_back({"fwupdtool", {"/usr/bin/fwupdtool", "security", "--json", "--force"}, {}, {}});
   }
   for (auto _ : state) {
      for (auto &s : subjects) {
         auto const start = std::chrono::steady_clock::now();
         double cpu = 0;
         // fwupdtool's status says what it found, not whether it ran.
         int const code = spawnAndWait(s.args, cpu);
         if (code < 0 || (code != 0 && s.name != "fwupdtool")) {
            state.SkipWithError((s.name + " failed").c_str());
            return;
         }
         s.ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
         s.cpuMs.push_back(cpu);
      }
   }
   double const shell = median(subjects.front().ms);
   double const floor = median(subjects[3].ms), floorCpu = median(subjects[3].cpuMs);
   for (auto const &s : subjects) {
      double const ms = median(s.ms), cpu = median(s.cpuMs);
      state.counters[s.name + "_ms"] = ms;
      state.counters[s.name + "_cpu_ms"] = cpu;
      if (&s != &subjects.front()) state.counters[s.name + "/sh"] = ms / shell;
   }
   state.counters["sentrel/floorShared"] = median(subjects[1].ms) / floor;
   state.counters["sentrel/floorShared_cpu"] = median(subjects[1].cpuMs) / floorCpu;
}
BENCHMARK(BM_WholeRun)->Iterations(200)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
