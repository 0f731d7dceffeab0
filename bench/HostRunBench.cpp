// A whole run of the host on this machine against one shell running lscpu,
// the one command that such a run starts, and against the least that the
// layering of host, framework library and dlopen'd agent costs. Each is
// started with posix_spawn, output to /dev/null, and waited for: process
// start to exit, wall time. The commands take turns within each iteration,
// so that a slower spell of the machine weighs on all of them alike; the
// counters are medians.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace {

// The exit code, or -1 when it could not be started or did not exit.
int spawnAndWait(std::vector<char const *> args) {
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
   if (err != 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
   return WEXITSTATUS(status);
}

struct Subject {
   std::string name;
   std::vector<char const *> args;
   std::vector<double> ms;
};

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v.empty() ? 0 : v[v.size() / 2];
}

void BM_WholeRun(benchmark::State &state) {
   // The shell comes first: every ratio is taken against it.
   std::vector<Subject> subjects = {
      {"shLscpu", {"/bin/sh", "-c", "lscpu"}, {}},
      {"sentrel", {SENTREL_HOST_PATH, "--no-syslog"}, {}},
      {"lscpu", {"/usr/bin/lscpu"}, {}},
      {"floorShared", {FLOOR_Shared_PATH}, {}},
      {"floorStatic", {FLOOR_Static_PATH}, {}},
   };
   for (auto _ : state) {
      for (auto &s : subjects) {
         auto const start = std::chrono::steady_clock::now();
         if (spawnAndWait(s.args) != 0) {
            state.SkipWithError((s.name + " failed").c_str());
            return;
         }
         s.ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
      }
   }
   double const shell = median(subjects.front().ms);
   for (auto const &s : subjects) {
      double const ms = median(s.ms);
      state.counters[s.name + "_ms"] = ms;
      if (&s != &subjects.front()) state.counters[s.name + "/sh"] = ms / shell;
   }
}
BENCHMARK(BM_WholeRun)->Iterations(200)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
