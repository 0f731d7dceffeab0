#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Trace.h"

namespace SentrelTest {

using Loom::String;

// A temporary directory, removed with everything in it.
class TempDir {
 public:
   TempDir();
   TempDir(TempDir const &) = delete;
   ~TempDir();
   String const &path() const { return path_; }
   // Writes `content` to `name` (parent folders made) and returns its path.
   String file(String const &name, String const &content, unsigned mode = 0644) const;
   // Writes an executable shell script.
   String script(String const &name, String const &body) const;

 private:
   String path_;
};

// The whole content of a file; empty when there is none.
String slurp(String const &path);
// `s` as one word for the shell.
String shellQuoted(String const &s);

// Puts a directory first in PATH while it lives.
class PathPrepend {
 public:
   explicit PathPrepend(String const &dir);
   ~PathPrepend();

 private:
   String old_;
};

// Collects every trace record (all levels on) and log message while it lives.
class Recorder {
 public:
   Recorder();
   ~Recorder();
   std::vector<Loom::TraceRecord> const &traces() const { return traces_; }
   std::vector<Loom::LogRecord> const &logs() const { return logs_; }
   // Trace texts at one level, in order.
   std::vector<String> traceTexts(int level) const;
   std::vector<String> logTexts() const;

 private:
   std::vector<Loom::TraceRecord> traces_;
   std::vector<Loom::LogRecord> logs_;
};

// One run of the built `sentrel` host.
struct HostRun {
   int exitCode;
   String out;
   String err;
};
// Runs the host with `args` (no syslog), in `env` (NAME=VALUE, added to this
// process's environment), with `input` on standard input.
HostRun runHost(std::vector<String> const &args, std::vector<String> const &env = {},
                String const &input = "");

// A switch for the built host: a system root (`root/`, with a kernel command
// line), fake commands first in PATH (`bin/`, an lscpu of an unknown vendor)
// and a toggle folder that leaves every toggle on.
// The entities of --state that point the agent at a switch's files
// (tarn-version, vexo.json, features) and fill its two inputs.
inline String const kInputs = R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "tarn-version",
                                                    "vexoVersionFilePath": "vexo.json"},
   "tarn/features/status": {"featuresFilePath": "features"},
   "tarn/sb/status": {"supported": true, "ready": true, "statusFlags": 1, "enabledPcrBank": ["sha256"]},
   "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "measuredBootEnabled": false,
                                       "configReady": true})";

struct FakeSwitch {
   FakeSwitch();
   // `env` comes after the switch's own settings and wins; so does an option.
   HostRun run(std::vector<String> args, std::vector<String> env = {}, String const &input = "") const;
   // A state file holding `entities`, the members of its "entities" object.
   String state(String const &entities) const;
   // Bootloader files beside the state file: version 2, image 1.1, secure
   // boot revision 26 and Boot Guard 10.
   void bootloaderFiles() const;
   TempDir sw, toggles;
};

// Parses a report, failing the test when it is not JSON.
rapidjson::Document parseJson(String const &text);

// Sees every change of one entity, by attribute, as it is published.
class PublicationLog : public Loom::Node {
 public:
   explicit PublicationLog(Loom::Entity const &e);
   Loom::TypeInfo const &typeData() const override;
   std::vector<unsigned> attrs;

 private:
   Loom::Reactor reactor_;
};

// An entity manager holding every entity of the state tree at its defaults.
Ptr<Ledger::EntityManager> seededLedger();

template <class T>
Ptr<T> entityAt(Ledger::EntityManager const &em, char const *path) {
   return Loom::ptrCast<T>(em.lookup(path));
}

// A free loopback port, bound by a new socket that nothing listens on: kept
// in `*held`, else closed.
std::uint16_t freeLoopbackPort(int *held = nullptr);

// A software TPM (swtpm) on loopback, manufactured with the PCR banks
// `banks` ("sha1,sha256") and its state in a folder of its own; killed and
// its state removed with the object, however the test ends. Tests skip
// themselves when it is not running(): failure() says why.
class SoftwareTpm {
 public:
   explicit SoftwareTpm(String const &banks = "sha1,sha256");
   SoftwareTpm(SoftwareTpm const &) = delete;
   ~SoftwareTpm();
   bool running() const { return failure_.empty(); }
   String const &failure() const { return failure_; }
   // The TCTI that reaches it: "swtpm:host=127.0.0.1,port=N".
   String const &tcti() const { return tcti_; }
   // Stops it and starts it again on its state, as a switch's reboot does:
   // the PCRs start anew, persistent objects stay. False when it does not.
   bool restart();

 private:
   bool start(bool manufacture);
   void stop();
   TempDir state_;
   String banks_, tcti_, failure_;
};

}  // namespace SentrelTest

// Tests of a toggle turned off run only in the process that ctest starts
// with the toggle directory tests/toggles/all-off.
#define SENTREL_ONLY_WITH_TOGGLES_OFF()                                   \
   do {                                                                   \
      if (!std::getenv("SENTREL_EXPECT_TOGGLES_OFF"))                     \
         GTEST_SKIP() << "runs in its own process with the toggles off"; \
   } while (0)
