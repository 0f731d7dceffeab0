// A whole run of the host on this machine against one shell running lscpu,
// the one command that such a run starts. Each is started with posix_spawn,
// output to /dev/null, and waited for: process start to exit, wall time.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
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

void BM_SentrelRun(benchmark::State &state) {
   for (auto _ : state) {
      if (spawnAndWait({SENTREL_HOST_PATH, "--no-syslog"}) != 0) state.SkipWithError("sentrel failed");
   }
}
BENCHMARK(BM_SentrelRun)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ShLscpu(benchmark::State &state) {
   for (auto _ : state) {
      if (spawnAndWait({"/bin/sh", "-c", "lscpu"}) != 0) state.SkipWithError("sh -c lscpu failed");
   }
}
BENCHMARK(BM_ShLscpu)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
