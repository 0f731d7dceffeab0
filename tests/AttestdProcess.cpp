#include "tests/AttestdProcess.h"

#include <arpa/inet.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace SentrelTest {

// A socket on loopback connected to `port`, or for port 0 bound to a free
// one: the port, 0 when that failed. The socket is closed either way.
static std::uint16_t loopback(std::uint16_t port) {
   sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
   auto *address = reinterpret_cast<sockaddr *>(&a);
   socklen_t size = sizeof a;
   int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   bool const done =
      port ? connect(s, address, size) == 0 : bind(s, address, size) == 0 && getsockname(s, address, &size) == 0;
   close(s);
   return done ? ntohs(a.sin_port) : 0;
}

AttestdProcess::AttestdProcess(String const &program, std::vector<String> const &args, String const &logFile)
    : port_(loopback(0)) {
   // Through a shell that becomes the program: its redirections are the plumbing.
   String command = "exec '" + program + "'";
   for (auto const &a : args) command += " '" + a + "'";
   command += " --no-syslog --listen " + address() + " </dev/null >>'" + logFile + "' 2>&1";
   char const *argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
   if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ) != 0) pid_ = -1;
}

bool AttestdProcess::serving() {
   for (int i = 0; i < 1000 && pid_ > 0; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) != 0) return pid_ = -1, false;
      if (loopback(port_)) return true;
      usleep(20000);
   }
   return false;
}

int AttestdProcess::stop() {
   int status = 0;
   if (pid_ <= 0 || kill(pid_, SIGTERM) != 0) return -1;
   // One that has not ended within 10 seconds is killed, and reported so (137).
   for (int i = 0; i < 1000 && waitpid(pid_, &status, WNOHANG) == 0; ++i) usleep(10000);
   if (waitpid(pid_, &status, WNOHANG) == 0) kill(pid_, SIGKILL), waitpid(pid_, &status, 0);
   pid_ = -1;
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace SentrelTest
