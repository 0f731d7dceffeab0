#include "tests/AttestdProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace SentrelTest {

namespace {

sockaddr_in loopback(std::uint16_t port) {
   return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
}

std::uint16_t freePort() {
   sockaddr_in a = loopback(0);
   socklen_t size = sizeof a;
   int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   bind(s, reinterpret_cast<sockaddr *>(&a), size);
   getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
   close(s);
   return ntohs(a.sin_port);
}

}  // namespace

AttestdProcess::AttestdProcess(String const &program, std::vector<String> args, String const &logFile)
    : port_(freePort()) {
   args.insert(args.end(), {"--no-syslog", "--listen", address()});
   std::vector<char *> argv{const_cast<char *>(program.c_str())};
   for (auto &a : args) argv.push_back(a.data());
   argv.push_back(nullptr);
   posix_spawn_file_actions_t files;
   posix_spawn_file_actions_init(&files);
   posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_addopen(&files, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
   posix_spawn_file_actions_addopen(&files, 2, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
   if (posix_spawn(&pid_, program.c_str(), &files, nullptr, argv.data(), environ) != 0) pid_ = -1;
   posix_spawn_file_actions_destroy(&files);
}

AttestdProcess::~AttestdProcess() { stop(); }

bool AttestdProcess::serving(std::chrono::seconds patience) {
   auto const until = std::chrono::steady_clock::now() + patience;
   while (pid_ > 0 && std::chrono::steady_clock::now() < until) {
      if (waitpid(pid_, nullptr, WNOHANG) != 0) {
         pid_ = -1;
         return false;
      }
      int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in const a = loopback(port_);
      bool const connected = connect(s, reinterpret_cast<sockaddr const *>(&a), sizeof a) == 0;
      close(s);
      if (connected) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
   }
   return false;
}

int AttestdProcess::stop() {
   if (pid_ <= 0) return -1;
   kill(pid_, SIGTERM);
   int status = 0;
   auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
   while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= until) {
         kill(pid_, SIGKILL);
         waitpid(pid_, &status, 0);
         break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   pid_ = -1;
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace SentrelTest
