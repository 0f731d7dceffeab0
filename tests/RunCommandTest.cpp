#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using namespace std::chrono_literals;

// Restores the default deadline when a test is done with its own.
struct Deadline {
   explicit Deadline(std::chrono::duration<double> d) { Loom::commandTimeoutIs(d); }
   ~Deadline() { Loom::commandTimeoutIs(10s); }
};

// True once `pid` has ended (gone, or a zombie nobody has reaped yet).
bool ended(pid_t pid) {
   for (int i = 0; i < 500; ++i) {
      std::FILE *f = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
      if (!f) return true;
      char state = '?';
      int const read = std::fscanf(f, "%*d (%*[^)]) %c", &state);
      std::fclose(f);
      if (read == 1 && (state == 'Z' || state == 'X')) return true;
      std::this_thread::sleep_for(10ms);
   }
   return false;
}

TEST(RunCommandForOutput, CollectsWhileItRunsInACleanSurrounding) {
   // Descriptors of this process that are not close-on-exec: none may reach the command.
   int leaked[2];
   ASSERT_EQ(pipe(leaked), 0);
   int const file = open("/dev/null", O_RDONLY);
   setenv("LC_ALL", "de_DE.UTF-8", 1);
   struct Case {
      char const *command;
      Loom::String output;
      std::size_t dropped;
   };
   for (auto const &c : std::vector<Case>{
           {"printf abc", "abc", 0},
           // Far more than a pipe holds: read while it runs, kept up to 1 MiB.
           {"head -c 3000000 /dev/zero", Loom::String(Loom::kMaxCommandOutput, '\0'), 3000000 - Loom::kMaxCommandOutput},
           {"echo $LC_ALL", "C\n", 0},
           // ls has the folder it lists open as 3: nothing else.
           {"ls /proc/self/fd", "0\n1\n2\n3\n", 0},
        }) {
      SCOPED_TRACE(c.command);
      auto const r = Loom::runCommandForOutput(c.command);
      EXPECT_EQ(r.exitCode, 0);
      EXPECT_EQ(r.output, c.output);
      EXPECT_EQ(r.dropped, c.dropped);
      EXPECT_FALSE(r.timedOut);
   }
   unsetenv("LC_ALL");
   close(file);
   close(leaked[0]);
   close(leaked[1]);
}

TEST(RunCommandForOutput, KillsTheCommandAndItsChildrenAtTheDeadline) {
   Deadline d(300ms);
   // The background sleep tells its pid, then the command outlives the deadline.
   auto const r = Loom::runCommandForOutput("sleep 30 & echo $!; sleep 30");
   EXPECT_EQ(r.exitCode, Loom::kCommandKilled);
   EXPECT_TRUE(r.timedOut);
   pid_t const grandchild = std::atoi(r.output.c_str());
   ASSERT_GT(grandchild, 0) << r.output;
   EXPECT_TRUE(ended(grandchild)) << "the background child outlived the deadline";
   EXPECT_EQ(Loom::runCommand("sleep 30", Loom::kNoInput, -1, Loom::kDiscard), Loom::kCommandKilled);
}

TEST(RunCommandForOutput, ABackgroundChildKeepingThePipeDoesNotHoldTheCaller) {
   auto const start = std::chrono::steady_clock::now();
   auto const r = Loom::runCommandForOutput("sleep 30 & echo $!");
   // Well before the background child's 30 s and the deadline's 10 s.
   EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
   EXPECT_EQ(r.exitCode, 0);
   EXPECT_FALSE(r.timedOut);
   pid_t const background = std::atoi(r.output.c_str());
   ASSERT_GT(background, 0) << r.output;
   kill(background, SIGKILL);
}

}  // namespace
