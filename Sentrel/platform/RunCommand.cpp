#include "Sentrel/platform/RunCommand.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace Loom {

namespace {

// Words the shell treats itself (reserved words and built-ins that differ
// from a program of the same name): these go through the shell.
bool shellOwnWord(String const &w) {
   static std::set<String> const words{
      "!",     "{",       "}",      "case",  "do",   "done",     "elif",   "else",   "esac",
      "fi",    "for",     "if",     "in",    "then", "until",    "while",  ".",      ":",
      "break", "continue", "eval",  "exec",  "exit", "export",   "readonly", "return", "set",
      "shift", "times",   "trap",   "unset", "cd",   "alias",    "unalias", "command", "getopts",
      "hash",  "jobs",    "read",   "type",  "ulimit", "umask",  "wait",   "fg",     "bg",
      "local"};
   return words.count(w) != 0;
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

}  // namespace

int runCommand(String const &command, int stdinFd, int stdoutFd, int stderrFd) {
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   auto redirect = [&](int fd, int target) {
      if (fd >= 0) {
         posix_spawn_file_actions_adddup2(&actions, fd, target);
      } else {
         posix_spawn_file_actions_addopen(&actions, target, "/dev/null",
                                          target == 0 ? O_RDONLY : O_WRONLY, 0);
      }
   };
   redirect(stdinFd, 0);
   redirect(stdoutFd, 1);
   redirect(stderrFd, 2);

   std::vector<String> words = plainWords(command);
   pid_t pid = 0;
   int err = 0;
   if (!words.empty()) {
      std::vector<char *> argv;
      for (auto &w : words) argv.push_back(w.data());
      argv.push_back(nullptr);
      err = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
   }
   if (words.empty() || err == ENOEXEC) {
      // The shell runs what exec cannot: scripts without #!, and syntax.
      char sh[] = "/bin/sh", c[] = "-c";
      String text = command;
      char *argv[] = {sh, c, text.data(), nullptr};
      err = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
   }
   posix_spawn_file_actions_destroy(&actions);
   if (err != 0) return spawnResult(err);

   int status = 0;
   while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) return 127;
   }
   if (WIFEXITED(status)) return WEXITSTATUS(status);
   if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
   return 127;
}

}  // namespace Loom
