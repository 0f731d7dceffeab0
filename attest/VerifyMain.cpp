// sentrel-verify: the owner's verifier. The options and every file they
// name are read and checked first (the setup); then each switch is asked
// for a quote of a fresh nonce and judged by the five checks, or a saved
// response is judged; one report is rendered and written; the exit status
// sums the verdicts up.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <google/protobuf/stubs/logging.h>
#include <grpc/support/log.h>
#include <unistd.h>

#include "Sentrel/platform/Printable.h"
#include "attest/Fleet.h"
#include "attest/ResponseJson.h"
#include "attest/VerifyReport.h"
#include "host/Output.h"
#include "host/OutputFile.h"
#include "host/UsageError.h"

namespace {

using namespace SentrelAttest;
using SentrelHost::UsageError;
using SentrelHost::writeAll;

// A saved response is a quote and a firmware's log in base64: what gRPC
// takes on the wire, and a third more.
constexpr std::size_t kMaxResponseFileBytes = kMaxResponseBytes / 3 * 4 + (std::size_t{1} << 20);

bool written(int err) {
   if (err == 0 || err == EPIPE) return true;
   std::fprintf(stderr, "sentrel-verify: cannot write the report to standard output: %s\n", std::strerror(err));
   return false;
}

String render(VerifyReport const &report, Format format) {
   switch (format) {
      case Format::Json: return jsonReport(report);
      case Format::OpenMetrics: return metricsReport(report);
      case Format::Text: break;
   }
   return textReport(report);
}

void checkSaveFolder(String const &dir) {
   std::error_code ec;
   if (!std::filesystem::is_directory(dir, ec)) throw UsageError("--save " + dir + ": not a folder");
   if (access(dir.c_str(), W_OK | X_OK) != 0) throw UsageError("--save " + dir + ": " + std::strerror(errno));
}

// --save: each response as it came and its nonce, so that
// `sentrel-verify --response DIR/NAME.json --nonce $(cat DIR/NAME.nonce)`
// checks it again. A response that cannot be written is said at once and
// fails the run, which goes on with the others.
class Saver {
 public:
   explicit Saver(String dir) : dir_(std::move(dir)) {}
   void operator()(Target const &t, String const &nonce, AttestResponse const &response) {
      String const base = dir_ + "/" + t.name;
      try {
         auto const json = responseToJson(response);
         if (!json) throw UsageError("--save " + base + ".json: protobuf cannot write this response as JSON");
         SentrelHost::writeFileAtomically(base + ".json", *json, "--save");
         SentrelHost::writeFileAtomically(base + ".nonce", SentrelEvidence::hexOf(nonce) + "\n", "--save");
      } catch (UsageError const &e) {
         std::fprintf(stderr, "sentrel-verify: %s\n", Loom::printable(e.what()).c_str());
         failed_ = true;
      }
   }
   bool failed() const { return failed_; }

 private:
   String dir_;
   bool failed_ = false;
};

int run(VerifyOptions const &o) {
   if (o.save) checkSaveFolder(*o.save);
   VerifySetup const setup(o);
   VerifyReport report{SentrelHost::thisRun(), {}};
   Saver saver(o.save.value_or(""));
   if (o.response) {
      AttestResponse response;
      if (auto const problem = responseFromJson(readInput(*o.response, "--response", kMaxResponseFileBytes), response)) {
         throw UsageError("--response " + *o.response + ": " + *problem);
      }
      Expectation const expected{*o.nonce, o.bank, o.pcrsGiven ? std::optional(o.pcrs) : std::nullopt,
                                 setup.offline.trust, setup.offline.baseline};
      report.switches.push_back({*o.response, "", judge(response, expected)});
   } else {
      FleetOptions f{.bank = o.bank, .pcrs = o.pcrs, .jobs = o.jobs, .timeout = o.timeout,
                     .credentials = setup.credentials};
      // Progress for people only: a terminal, and a line rewritten in place.
      bool const terminal = isatty(STDERR_FILENO) == 1;
      if (terminal) {
         f.progress = [](std::size_t done, std::size_t total) {
            std::fprintf(stderr, "\rattested %zu/%zu", done, total);
            if (done == total) std::fputc('\n', stderr);
         };
      }
      if (o.save) f.received = std::ref(saver);
      auto judgements = attestFleet(setup.targets, f);
      for (std::size_t i = 0; i < judgements.size(); ++i) {
         report.switches.push_back({setup.targets[i].name, setup.targets[i].address, std::move(judgements[i])});
      }
   }
   String const out = render(report, o.format);
   if (o.output) {
      SentrelHost::writeFileAtomically(*o.output, out);
   } else if (!written(writeAll(STDOUT_FILENO, out))) {
      return 2;
   }
   return saver.failed() ? 2 : exitStatus(report);
}

}  // namespace

int main(int argc, char **argv) {
   // First of all, before any file or socket is opened.
   if (auto problem = SentrelHost::secureStandardDescriptors()) {
      std::fprintf(stderr, "sentrel-verify: %s\n", problem->c_str());
      return 2;
   }
   std::signal(SIGPIPE, SIG_IGN);
   // Each switch's status names what went wrong with it; gRPC's own log
   // lines would say it again, out of order. GRPC_VERBOSITY asks for them.
   if (!std::getenv("GRPC_VERBOSITY")) gpr_set_log_function([](gpr_log_func_args *) {});
   // Protobuf says on standard error why a switch's answer did not parse;
   // the switch's verdict says that it did not.
   google::protobuf::SetLogHandler(nullptr);
   // So does tpm2-tss's marshalling of a quote that does not decode; TSS2_LOG asks for it.
   setenv("TSS2_LOG", "marshal+none", 0);
   try {
      VerifyOptions const options = parseVerifyOptions(argc, argv);
      if (options.help) return written(writeAll(STDOUT_FILENO, kVerifyUsage)) ? 0 : 2;
      if (options.version) return written(writeAll(STDOUT_FILENO, "sentrel-verify " SENTREL_VERSION "\n")) ? 0 : 2;
      return run(options);
   } catch (UsageError const &e) {
      // Paths and values are echoed as they were given: no raw control bytes.
      std::fprintf(stderr, "sentrel-verify: %s\n", Loom::printable(e.what()).c_str());
      if (std::strncmp(e.what(), "unknown argument", 16) == 0) std::fputs(kVerifyUsage, stderr);
      return 2;
   } catch (std::exception const &e) {
      std::fprintf(stderr, "sentrel-verify: %s\n", Loom::printable(e.what()).c_str());
      return 2;
   }
}
