#include "TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/wait.h>

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

namespace {
String quoted(String const &s) {
   String q = "'";
   for (char c : s) q += c == '\'' ? String("'\\''") : String(1, c);
   return q + "'";
}
}  // namespace

String slurp(String const &path) {
   std::ifstream in(path, std::ios::binary);
   return String(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

HostRun runHost(std::vector<String> const &args, std::vector<String> const &env, String const &input) {
   TempDir io;
   String cmd = "env";
   for (auto const &e : env) cmd += " " + quoted(e);
   cmd += " " + quoted(SENTREL_HOST_PATH) + " --no-syslog";
   for (auto const &a : args) cmd += " " + quoted(a);
   cmd += " <" + quoted(io.file("in", input)) + " >" + quoted(io.path() + "/out") + " 2>" +
          quoted(io.path() + "/err");
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

}  // namespace SentrelTest

int main(int argc, char **argv) {
   // Tests never write to the machine's system log.
   Loom::logSyslogIs(false, nullptr);
   testing::InitGoogleTest(&argc, argv);
   return RUN_ALL_TESTS();
}
