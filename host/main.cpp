// sentrel: the agent run outside a switch, as a pipeline. The configuration
// (options and environment, checked) makes a session (the state database,
// the live inputs, the state file, the agent); a script may drive it; then
// one report model is built, rendered in the chosen format, and written.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/ReadFile.h"
#include "host/JsonReport.h"
#include "host/MetricsReport.h"
#include "host/Output.h"
#include "host/OutputFile.h"
#include "host/ReportModel.h"
#include "host/Script.h"
#include "host/Session.h"
#include "host/TextReport.h"
#include "host/UsageError.h"
#include "host/Version.h"

namespace {

using namespace SentrelHost;

// State files and scripts are a few kilobytes; more is a wrong path (a
// device, a log), not input to wait for.
constexpr std::size_t kMaxInputBytes = std::size_t{16} << 20;

// The whole of a file named on the command line, "-" being standard input.
String readAll(String const &path, char const *what) {
   Loom::FileText f = path == "-" ? Loom::readWholeFd(STDIN_FILENO, kMaxInputBytes)
                                  : Loom::readWholeFile(path, kMaxInputBytes);
   if (!f.ok()) throw UsageError(std::string(what) + " " + path + ": " + f.problem());
   return std::move(f.text);
}

String render(ReportModel const &m, Format format) {
   switch (format) {
      case Format::Json: return jsonReport(m);
      case Format::OpenMetrics: return metricsReport(m);
      case Format::Text: break;
   }
   return textReport(m);
}

// A reader that stops early (| head) is an EPIPE from write: the run ends
// quietly, with the status it would have had, as the reader chose to stop.
// Any other failed write loses the report.
bool written(int err) {
   if (err == 0 || err == EPIPE) return true;
   std::fprintf(stderr, "sentrel: cannot write the report to standard output: %s\n", std::strerror(err));
   return false;
}

int run(Configuration const &config) {
   auto const &options = config.options;
   std::optional<String> state, script;
   if (options.statePath) state = readAll(*options.statePath, "--state");
   if (options.scriptPath) script = readAll(*options.scriptPath, "--script");

   Session session(config);
   session.loadAgent();
   session.seedLedger();
   if (options.live) session.applyLive();
   if (options.live || options.eventLog || options.writeBaseline) session.applyEvidence();
   if (state) session.applyState(*options.statePath, *state);
   session.startAgent();
   // Output is held back until the run is complete: a failing script
   // command prints nothing partial.
   String out;
   if (script) runScript(session, options.format, *options.scriptPath == "-" ? "<stdin>" : *options.scriptPath, *script, out);
   auto const model = reportModel(session, options.format != Format::Text);
   out += render(model, options.format);
   bool reported = true;
   if (options.outputPath) {
      writeFileAtomically(*options.outputPath, out);
   } else {
      reported = written(writeAll(STDOUT_FILENO, out));
   }
   bool const clean = session.shutDown();
   if (!reported) return 2;
   if (!clean) return 3;
   if (options.failOnWarning && !model.log.empty()) return 1;
   return options.failOnUnknown && model.unknownCount() > 0 ? 4 : 0;
}

}  // namespace

int main(int argc, char **argv) {
   // First of all, before any file or socket is opened.
   if (auto problem = secureStandardDescriptors()) {
      std::fprintf(stderr, "sentrel: %s\n", problem->c_str());
      return 2;
   }
   std::signal(SIGPIPE, SIG_IGN);
   try {
      Options options = parseOptions(argc, argv);
      if (options.help) return written(writeAll(STDOUT_FILENO, kUsage)) ? 0 : 2;
      if (options.version) return written(writeAll(STDOUT_FILENO, "sentrel " SENTREL_VERSION "\n")) ? 0 : 2;
      return run(configure(std::move(options)));
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
