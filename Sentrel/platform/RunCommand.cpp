#include "Sentrel/platform/RunCommand.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace Loom {

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::duration<double> gCommandTimeout{10.0};

// After a command has exited, a background child of it that kept the pipe
// is read this long; then the output ends.
constexpr std::chrono::milliseconds kExitGrace{100};
// While output is awaited, how often the command is checked for having
// exited (its pipe may be held by a background child).
constexpr std::chrono::milliseconds kExitCheck{10};

// Words the shell treats itself (reserved words and built-ins that differ
// from a program of the same name): these go through the shell. Sorted.
constexpr std::array<std::string_view, 46> kShellOwnWords{
   "!",     ".",     ":",     "alias",  "bg",      "break", "case",  "cd",       "command", "continue",
   "do",    "done",  "elif",  "else",   "esac",    "eval",  "exec",  "exit",     "export",  "fg",
   "fi",    "for",   "getopts", "hash", "if",      "in",    "jobs",  "local",    "read",    "readonly",
   "return", "set",  "shift", "then",   "times",   "trap",  "type",  "ulimit",   "umask",   "unalias",
   "unset", "until", "wait",  "while",  "{",       "}"};
static_assert(std::is_sorted(kShellOwnWords.begin(), kShellOwnWords.end()));

bool shellOwnWord(String const &w) {
   return std::binary_search(kShellOwnWords.begin(), kShellOwnWords.end(), std::string_view(w));
}

// The words of a command made only of characters the shell takes literally.
std::vector<String> plainWords(String const &command) {
   std::vector<String> words;
   String cur;
   for (char c : command) {
      if (c == ' ' || c == '\t') {
         if (!cur.empty()) words.push_back(std::move(cur));
         cur.clear();
         continue;
      }
      bool const literal = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           std::strchr("_-./,:+@%", c) != nullptr;
      if (!literal) return {};
      cur += c;
   }
   if (!cur.empty()) words.push_back(std::move(cur));
   if (!words.empty() && (shellOwnWord(words[0]) || words[0].find('=') != String::npos)) return {};
   return words;
}

int spawnResult(int err) { return err == ENOENT || err == ENOTDIR ? 127 : 126; }

int shellResult(int status) {
   if (WIFEXITED(status)) return WEXITSTATUS(status);
   if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
   return 127;
}

// This process's environment with LC_ALL=C: the output is parsed.
std::vector<char *> commandEnvironment() {
   static char lcAll[] = "LC_ALL=C";
   std::vector<char *> env;
   for (char **e = environ; e && *e; ++e) {
      if (std::strncmp(*e, "LC_ALL=", 7) != 0) env.push_back(*e);
   }
   env.push_back(lcAll);
   env.push_back(nullptr);
   return env;
}

// Starts a command; its pid, or -1 with the shell's result in `result`.
pid_t start(String const &command, int stdinFd, int stdoutFd, int stderrFd, int &result) {
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   auto redirect = [&](int fd, int target) {
      if (fd >= 0) {
         posix_spawn_file_actions_adddup2(&actions, fd, target);
      } else {
         posix_spawn_file_actions_addopen(&actions, target, "/dev/null", target == 0 ? O_RDONLY : O_WRONLY, 0);
      }
   };
   redirect(stdinFd, 0);
   redirect(stdoutFd, 1);
   redirect(stderrFd, 2);
   // Whatever else is open here (the caller's files, another library's
   // sockets) is none of the command's business, close-on-exec or not.
   posix_spawn_file_actions_addclosefrom_np(&actions, 3);

   posix_spawnattr_t attr;
   posix_spawnattr_init(&attr);
   // A group of its own, so that the command and its children can be killed together.
   posix_spawnattr_setpgroup(&attr, 0);
   // The host ignores SIGPIPE; the command must die of it as usual.
   sigset_t pipe;
   sigemptyset(&pipe);
   sigaddset(&pipe, SIGPIPE);
   posix_spawnattr_setsigdefault(&attr, &pipe);
   posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
   std::vector<char *> env = commandEnvironment();

   std::vector<String> words = plainWords(command);
   pid_t pid = -1;
   int err = 0;
   if (!words.empty()) {
      std::vector<char *> argv;
      for (auto &w : words) argv.push_back(w.data());
      argv.push_back(nullptr);
      err = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), env.data());
   }
   if (words.empty() || err == ENOEXEC) {
      // The shell runs what exec cannot: scripts without #!, and syntax.
      char sh[] = "/bin/sh", c[] = "-c";
      String text = command;
      char *argv[] = {sh, c, text.data(), nullptr};
      err = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, env.data());
   }
   posix_spawnattr_destroy(&attr);
   posix_spawn_file_actions_destroy(&actions);
   if (err != 0) {
      result = spawnResult(err);
      return -1;
   }
   return pid;
}

int millisecondsUntil(Clock::time_point t) {
   auto const left = std::chrono::ceil<std::chrono::milliseconds>(t - Clock::now()).count();
   return static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
}

// A started command, until it is reaped.
class Child {
 public:
   explicit Child(pid_t pid)
       : pid_(pid), deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(gCommandTimeout)) {}
   Child(Child const &) = delete;

   Clock::time_point deadline() const { return deadline_; }
   bool exited() const { return exited_; }

   // Reaps the command if it has exited.
   bool reap() {
      if (!exited_) {
         pid_t r;
         while ((r = waitpid(pid_, &status_, WNOHANG)) < 0 && errno == EINTR) {
         }
         exited_ = r == pid_;
      }
      return exited_;
   }

   // Waits until the command exits or the deadline passes.
   void wait() {
      if (reap()) return;
      // A pidfd wakes us exactly at the exit; where the kernel (or a tool
      // like valgrind) offers none, the command is checked ever less often.
      static bool pidfdMissing = false;
      int const pidfd = pidfdMissing ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
      if (pidfd < 0 && errno == ENOSYS) pidfdMissing = true;
      auto interval = std::chrono::microseconds(50);
      while (!reap() && Clock::now() < deadline_) {
         if (pidfd >= 0) {
            pollfd p{pidfd, POLLIN, 0};
            poll(&p, 1, millisecondsUntil(deadline_));
         } else {
            auto const pause = std::min<Clock::duration>(interval, deadline_ - Clock::now());
            timespec ts{0, static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(pause).count())};
            nanosleep(&ts, nullptr);
            interval = std::min<std::chrono::microseconds>(interval * 2, kExitCheck);
         }
      }
      if (pidfd >= 0) close(pidfd);
   }

   // The shell's result. A command still running is killed with its process
   // group first, so that nothing it started outlives the deadline.
   int finish(bool &timedOut) {
      if (reap()) return shellResult(status_);
      kill(-pid_, SIGKILL);
      while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
      }
      exited_ = true;
      timedOut = true;
      return kCommandKilled;
   }

 private:
   pid_t pid_;
   Clock::time_point deadline_;
   bool exited_ = false;
   int status_ = 0;
};

}  // namespace

void commandTimeoutIs(std::chrono::duration<double> timeout) {
   // Bounded, so that the deadline is always a time the clock can hold.
   constexpr std::chrono::duration<double> kLongest{366.0 * 24 * 3600};
   gCommandTimeout = timeout > kLongest ? kLongest : timeout > timeout.zero() ? timeout : timeout.zero();
}

std::chrono::duration<double> commandTimeout() { return gCommandTimeout; }

CommandResult runCommandForOutput(String const &command, std::size_t maxOutput) {
   CommandResult r;
   int fds[2];
   // Close-on-exec, so that no other child inherits the pipe and holds it open.
   if (pipe2(fds, O_CLOEXEC) != 0) {
      r.pipeError = errno;
      return r;
   }
   pid_t const pid = start(command, kNoInput, fds[1], kDiscard, r.exitCode);
   close(fds[1]);
   if (pid < 0) {
      close(fds[0]);
      return r;
   }
   Child child(pid);
   // Read while it runs: a command printing more than the pipe holds would
   // otherwise wait for us forever.
   Clock::time_point readUntil = child.deadline();
   char chunk[16384];
   for (;;) {
      if (!child.exited() && child.reap()) readUntil = std::min(readUntil, Clock::now() + kExitGrace);
      int wait = millisecondsUntil(readUntil);
      if (wait == 0) break;
      if (!child.exited()) wait = std::min(wait, static_cast<int>(kExitCheck.count()));
      pollfd p{fds[0], POLLIN, 0};
      int const ready = poll(&p, 1, wait);
      if (ready < 0 && errno != EINTR) {
         r.readError = errno;
         break;
      }
      if (ready <= 0) continue;
      ssize_t const n = read(fds[0], chunk, sizeof chunk);
      if (n == 0) break;
      if (n < 0) {
         if (errno == EINTR || errno == EAGAIN) continue;
         r.readError = errno;
         break;
      }
      auto const size = static_cast<std::size_t>(n);
      std::size_t const keep = std::min(size, maxOutput - std::min(maxOutput, r.output.size()));
      r.output.append(chunk, keep);
      r.dropped += size - keep;
   }
   close(fds[0]);
   child.wait();
   r.exitCode = child.finish(r.timedOut);
   return r;
}

int runCommand(String const &command, int stdinFd, int stdoutFd, int stderrFd) {
   int result = 127;
   pid_t const pid = start(command, stdinFd, stdoutFd, stderrFd, result);
   if (pid < 0) return result;
   Child child(pid);
   child.wait();
   bool timedOut = false;
   return child.finish(timedOut);
}

}  // namespace Loom
