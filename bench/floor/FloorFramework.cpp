// The least a framework library must do for a whole run: start one command
// with posix_spawnp and hand back its standard output.
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

__attribute__((visibility("default"))) std::string floorRun(char const *command) {
   int fds[2];
   if (pipe2(fds, O_CLOEXEC) != 0) return {};
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
   posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
   char *argv[] = {const_cast<char *>(command), nullptr};
   pid_t pid = 0;
   int const err = posix_spawnp(&pid, command, &actions, nullptr, argv, environ);
   posix_spawn_file_actions_destroy(&actions);
   close(fds[1]);
   int status = 0;
   if (err == 0) waitpid(pid, &status, 0);
   std::string out;
   char chunk[64];
   ssize_t n;
   while ((n = read(fds[0], chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<std::size_t>(n));
   close(fds[0]);
   return out;
}
