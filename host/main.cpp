#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/Host.h"
#include "host/OutputFile.h"

namespace {

// State files and scripts are a few kilobytes; more is a wrong path (a
// device, a log), not input to wait for.
constexpr std::size_t kMaxInputBytes = std::size_t{16} << 20;

// The whole of a file named on the command line, "-" being standard input.
SentrelHost::String readAll(SentrelHost::String const &path, char const *what) {
   auto fail = [&](SentrelHost::String const &problem) {
      return SentrelHost::UsageError(std::string(what) + " " + path + ": " + problem);
   };
   int const fd = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw fail(std::strerror(errno));
   struct stat st {};
   if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      close(fd);
      throw fail("is a folder, not a file");
   }
   SentrelHost::String text;
   char chunk[65536];
   ssize_t n;
   while ((n = read(fd, chunk, sizeof chunk)) != 0) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 || text.size() + static_cast<std::size_t>(n) > kMaxInputBytes) {
         int const err = errno;
         if (fd != STDIN_FILENO) close(fd);
         throw fail(n < 0 ? std::strerror(err) : "larger than 16 MiB");
      }
      text.append(chunk, static_cast<std::size_t>(n));
   }
   if (fd != STDIN_FILENO) close(fd);
   return text;
}

}  // namespace

int main(int argc, char **argv) {
   using namespace SentrelHost;
   try {
      Options options = parseOptions(argc, argv);
      if (options.help) {
         std::fputs(kUsage, stdout);
         return 0;
      }
      if (options.version) {
         std::fputs("sentrel " SENTREL_VERSION "\n", stdout);
         return 0;
      }
      std::optional<String> state, script;
      if (options.statePath) state = readAll(*options.statePath, "--state");
      if (options.scriptPath) script = readAll(*options.scriptPath, "--script");

      Host host(options);
      host.loadAgent();
      host.seedLedger();
      if (options.live) host.applyLive();
      if (state) host.applyState(*options.statePath, *state);
      host.startAgent();
      // Output is held back until the run is complete: a failing script
      // command prints nothing partial.
      String out;
      if (script) host.runScript(*options.scriptPath == "-" ? "<stdin>" : *options.scriptPath, *script, out);
      out += host.report();
      if (options.outputPath) {
         writeFileAtomically(*options.outputPath, out);
      } else {
         std::fwrite(out.data(), 1, out.size(), stdout);
         std::fflush(stdout);
      }
      bool const unknown = !host.diagnostics().empty();
      if (!host.shutDown()) return 3;
      if (options.failOnWarning && !host.logs().empty()) return 1;
      return options.failOnUnknown && unknown ? 4 : 0;
   } catch (UsageError const &e) {
      std::fprintf(stderr, "sentrel: %s\n", e.what());
      if (std::strncmp(e.what(), "unknown argument", 16) == 0) std::fputs(kUsage, stderr);
      return 2;
   } catch (std::exception const &e) {
      std::fprintf(stderr, "sentrel: %s\n", e.what());
      return 2;
   }
}
