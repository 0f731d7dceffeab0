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

// Output past the cap is proved through the host's lscpu.
TEST(RunCommandForOutput, TheCommandGetsTheCLocaleAndNoOpenDescriptorOfTheCaller) {
   EXPECT_EQ(Loom::runCommandForOutput("printenv LC_ALL").output, "C\n");
   int leaked[2];  // not close-on-exec
   ASSERT_EQ(pipe(leaked), 0);
   int const file = open("/dev/null", O_RDONLY);
   auto const r = Loom::runCommandForOutput("ls /proc/self/fd");
   EXPECT_EQ(r.output, "0\n1\n2\n3\n");  // 3: the folder ls lists
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

// Started by its path, not through a shell that would report the death
// itself: the runner turns the signal into the shell's number.
TEST(RunCommandForOutput, ACommandKilledByASignalEndsWith128PlusTheSignal) {
   TempDir dir;
   String const command = dir.script("term-self", "kill -TERM $$\n");
   ASSERT_EQ(command.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./"),
             String::npos)
      << "not plain words, so it would go through the shell: " << command;
   EXPECT_EQ(Loom::runCommandForOutput(command).exitCode, 143);  // as a shell reports SIGTERM
   EXPECT_EQ(Loom::runCommand(command, Loom::kNoInput, Loom::kDiscard, Loom::kDiscard), 143);
}

// Waiting for the pipe's end would run into the deadline.
TEST(RunCommandForOutput, ABackgroundChildKeepingThePipeDoesNotHoldTheCaller) {
   auto const r = Loom::runCommandForOutput("sleep 30 & echo $!");
   EXPECT_EQ(r.exitCode, 0);
   EXPECT_FALSE(r.timedOut);
   pid_t const background = std::atoi(r.output.c_str());
   ASSERT_GT(background, 0) << r.output;
   kill(background, SIGKILL);
}

}  // namespace
