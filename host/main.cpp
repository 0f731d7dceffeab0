#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/ReadFile.h"
#include "host/Host.h"
#include "host/OutputFile.h"
#include "host/Output.h"
#include "host/Version.h"

namespace {

// State files and scripts are a few kilobytes; more is a wrong path (a
// device, a log), not input to wait for.
constexpr std::size_t kMaxInputBytes = std::size_t{16} << 20;

// The whole of a file named on the command line, "-" being standard input.
SentrelHost::String readAll(SentrelHost::String const &path, char const *what) {
   Loom::FileText f = path == "-" ? Loom::readWholeFd(STDIN_FILENO, kMaxInputBytes)
                                  : Loom::readWholeFile(path, kMaxInputBytes);
   if (!f.ok()) throw SentrelHost::UsageError(std::string(what) + " " + path + ": " + f.problem());
   return std::move(f.text);
}

}  // namespace

int main(int argc, char **argv) {
   using namespace SentrelHost;
   // First of all, before any file or socket is opened.
   if (auto problem = secureStandardDescriptors()) {
      std::fprintf(stderr, "sentrel: %s\n", problem->c_str());
      return 2;
   }
   // A reader that stops early (| head) is then an EPIPE from write: the run
   // ends quietly, with the status it would have had, as the reader chose to
   // stop. Any other failed write loses the report: exit 2.
   std::signal(SIGPIPE, SIG_IGN);
   auto written = [](int err) {
      if (err == 0 || err == EPIPE) return true;
      std::fprintf(stderr, "sentrel: cannot write the report to standard output: %s\n", std::strerror(err));
      return false;
   };
   try {
      Options options = parseOptions(argc, argv);
      if (options.help) return written(writeAll(STDOUT_FILENO, kUsage)) ? 0 : 2;
      if (options.version) return written(writeAll(STDOUT_FILENO, "sentrel " SENTREL_VERSION "\n")) ? 0 : 2;
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
      bool reported = true;
      if (options.outputPath) {
         writeFileAtomically(*options.outputPath, out);
      } else {
         reported = written(writeAll(STDOUT_FILENO, out));
      }
      bool const unknown = host.anyUnknown();
      bool const clean = host.shutDown();
      if (!reported) return 2;
      if (!clean) return 3;
      if (options.failOnWarning && !host.logs().empty()) return 1;
      return options.failOnUnknown && unknown ? 4 : 0;
   } catch (UsageError const &e) {
      // Paths and values are echoed as they were given: no raw control bytes.
      std::fprintf(stderr, "sentrel: %s\n", Loom::printable(e.what()).c_str());
      if (std::strncmp(e.what(), "unknown argument", 16) == 0) std::fputs(kUsage, stderr);
      return 2;
   } catch (std::exception const &e) {
      std::fprintf(stderr, "sentrel: %s\n", Loom::printable(e.what()).c_str());
      return 2;
   }
}
