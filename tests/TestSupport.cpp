#include "TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/types/StateTree.h"

namespace SentrelTest {

TempDir::TempDir() {
   String tmpl = (std::filesystem::temp_directory_path() / "sentrel-test-XXXXXX").string();
   char *p = mkdtemp(tmpl.data());
   if (!p) std::abort();
   path_ = p;
}

TempDir::~TempDir() {
   std::error_code ec;
   // Restore permissions a test took away, so that everything can go.
   for (auto const &e : std::filesystem::recursive_directory_iterator(path_, ec)) {
      std::filesystem::permissions(e.path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
   }
   std::filesystem::remove_all(path_, ec);
}

String TempDir::file(String const &name, String const &content, unsigned mode) const {
   std::filesystem::path p = std::filesystem::path(path_) / name;
   std::filesystem::create_directories(p.parent_path());
   std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
   chmod(p.c_str(), mode);
   return p.string();
}

String TempDir::script(String const &name, String const &body) const {
   return file(name, "#!/bin/sh\n" + body, 0755);
}

PathPrepend::PathPrepend(String const &dir) {
   char const *p = std::getenv("PATH");
   old_ = p ? p : "";
   setenv("PATH", (dir + ":" + old_).c_str(), 1);
}

PathPrepend::~PathPrepend() { setenv("PATH", old_.c_str(), 1); }

Recorder::Recorder() {
   Loom::traceLevelsIs("Sentrel", 0x3ff);
   Loom::traceSinkIs([this](Loom::TraceRecord const &r) { traces_.push_back(r); });
   Loom::logSinkIs([this](Loom::LogRecord const &r) { logs_.push_back(r); });
}

Recorder::~Recorder() {
   Loom::traceLevelsIs("Sentrel", 0);
   Loom::traceSinkIs(nullptr);
   Loom::logSinkIs(nullptr);
}

std::vector<String> Recorder::traceTexts(int level) const {
   std::vector<String> out;
   for (auto const &t : traces_) {
      if (t.level == level) out.push_back(t.text);
   }
   return out;
}

std::vector<String> Recorder::logTexts() const {
   std::vector<String> out;
   for (auto const &l : logs_) out.push_back(l.text);
   return out;
}

String shellQuoted(String const &s) {
   String q = "'";
   for (char c : s) q += c == '\'' ? String("'\\''") : String(1, c);
   return q + "'";
}

String slurp(String const &path) {
   std::ifstream in(path, std::ios::binary);
   return String(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

HostRun runHost(std::vector<String> const &args, std::vector<String> const &env, String const &input) {
   TempDir io;
   String cmd = "env";
   for (auto const &e : env) cmd += " " + shellQuoted(e);
   cmd += " " + shellQuoted(SENTREL_HOST_PATH) + " --no-syslog";
   for (auto const &a : args) cmd += " " + shellQuoted(a);
   cmd += " <" + shellQuoted(io.file("in", input)) + " >" + shellQuoted(io.path() + "/out") + " 2>" +
          shellQuoted(io.path() + "/err");
   int const status = std::system(cmd.c_str());
   int const code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
   return {code, slurp(io.path() + "/out"), slurp(io.path() + "/err")};
}

FakeSwitch::FakeSwitch() {
   sw.script("bin/lscpu", "echo 'Vendor ID:           TestVendor'\n");
   sw.file("root/proc/cmdline", "ro Tarn=7.1 quiet\n");
}

HostRun FakeSwitch::run(std::vector<String> args, std::vector<String> env, String const &input) const {
   args.insert(args.begin(), {"--sysroot", sw.path() + "/root"});
   env.insert(env.begin(),
              {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH"), "SENTREL_TOGGLES_DIR=" + toggles.path()});
   return runHost(args, env, input);
}

String FakeSwitch::state(String const &entities) const {
   return sw.file("state.json", R"({"entities": {)" + entities + "}}");
}

void FakeSwitch::bootloaderFiles() const {
   sw.file("tarn-version", "2\n");
   sw.file("vexo.json", R"({"measuredBootVersion": "1.1"})");
   sw.file("features", "secureboot:26\nbootguard:10\n");
}

rapidjson::Document parseJson(String const &text) {
   rapidjson::Document d;
   d.Parse(text.c_str(), text.size());
   EXPECT_FALSE(d.HasParseError()) << text;
   return d;
}

PublicationLog::PublicationLog(Loom::Entity const &e)
    : reactor_(*this, &e, [this](unsigned a) { attrs.push_back(a); }) {
   reactor_.subscribe();
}

Loom::TypeInfo const &PublicationLog::typeData() const {
   static Loom::TypeInfo const t{"PublicationLog", {}, {}, nullptr};
   return t;
}

Ptr<Ledger::EntityManager> seededLedger() {
   auto em = Loom::make<Ledger::EntityManager>();
   Sentrel::stateTreeSeed(*em);
   return em;
}

std::uint16_t freeLoopbackPort(int *held) {
   sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
   socklen_t size = sizeof a;
   int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   EXPECT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), size), 0);
   getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
   if (held) {
      *held = s;
   } else {
      close(s);
   }
   return ntohs(a.sin_port);
}

SoftwareTpm::SoftwareTpm(String const &banks) : banks_(banks) {
   for (char const *tool : {"swtpm", "swtpm_setup"}) {
      if (Loom::runCommandForOutput(String("command -v ") + tool).exitCode != 0) {
         failure_ = String(tool) + " is not installed";
         return;
      }
   }
   // The daemon, orphaned by the swtpm that starts it, stays this process's child to be reaped.
   if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
      failure_ = "cannot become the subreaper of swtpm's daemon";
      return;
   }
   start(true);
}

SoftwareTpm::~SoftwareTpm() { stop(); }

bool SoftwareTpm::start(bool manufacture) {
   // swtpm returns once it serves both ports, or has failed to bind them:
   // another process may take one after the probe, so others are tried.
   Loom::CommandResult r;
   for (int attempt = 0; attempt < 5 && r.exitCode != 0; ++attempt) {
      String const port = std::to_string(freeLoopbackPort());
      tcti_ = "swtpm:host=127.0.0.1,port=" + port;
      String const setup = manufacture ? "swtpm_setup --tpm2 --pcr-banks " + banks_ + " --tpmstate $d --overwrite && "
                                       : String();
      r = Loom::runCommandForOutput("exec 2>&1; d=" + state_.path() + " p=" + port + "; " + setup +
                                    "swtpm socket --tpm2 --daemon --pid file=$d/pid --tpmstate dir=$d"
                                    " --server type=tcp,port=$p --ctrl type=tcp,port=$((p + 1))"
                                    " --flags not-need-init,startup-clear");
   }
   failure_ = r.exitCode == 0 ? String() : "swtpm did not start: " + r.output;
   return running();
}

void SoftwareTpm::stop() {
   String const pid = slurp(state_.path() + "/pid");
   if (!pid.empty() && kill(std::stoi(pid), SIGKILL) == 0) waitpid(std::stoi(pid), nullptr, 0);
   std::filesystem::remove(state_.path() + "/pid");
}

bool SoftwareTpm::restart() {
   stop();
   return start(false);
}

}  // namespace SentrelTest

int main(int argc, char **argv) {
   // Tests never write to the machine's system log.
   Loom::logSyslogIs(false, nullptr);
   testing::InitGoogleTest(&argc, argv);
   return RUN_ALL_TESTS();
}
