#include <gtest/gtest.h>
#include <set>
#include <sstream>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

// A small switch whose bootloader files a state file names relative to itself.
class HostTest : public testing::Test {
 protected:
   HostTest() { s.bootloaderFiles(); }
   HostRun run(std::vector<String> const &args, String const &input = "") { return s.run(args, {}, input); }
   FakeSwitch s;
};

}  // namespace

TEST_F(HostTest, NullMakesAnEntityAbsent) {
   String const state =
      s.state(R"("hardware/sentrel/config/sentrel": null, "sentrel/integrity/key/keyringColl": null)");
   auto r = run({"--state", state, "--format", "json", "--trace", "2"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   auto d = parseJson(r.out);
   EXPECT_TRUE(d["entities"]["hardware/sentrel/config/sentrel"].IsNull());
   EXPECT_TRUE(d["entities"]["sentrel/integrity/key/keyringColl"].IsNull());
   EXPECT_NE(r.out.find("defaultSentrelStatus or sbStatus is null, skipping"), String::npos);
}

TEST_F(HostTest, ScriptCommandsActThroughTheTypeDescriptions) {
   String const script = s.sw.file("script", R"(# comment and blank lines are skipped

show tarn/sb/status
set tarn/sb/status supported false
insert tarn/sb/status enabledPcrBank "sha384"
insert tarn/features/status featureRev {"extra": 5}
invoke tarnFeature getRunningTarnVersion
set agent sbStatus "tarn/sb/status"
set agent defaultSentrelStatus null
show
)");
   auto r = run({"--state", s.state(kInputs), "--format", "json", "--script", script});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   std::istringstream out(r.out);
   String lines[3];
   for (auto &l : lines) std::getline(out, l);
   EXPECT_EQ(lines[0],
             R"({"tarn/sb/status":{"supported":true,"ready":true,"statusFlags":1,"enabledPcrBank":["sha256"]}})");
   EXPECT_EQ(lines[1], "\"Tarn=7.1\"");
   auto shown = parseJson(lines[2]);
   EXPECT_FALSE(shown["entities"]["tarn/sb/status"]["supported"].GetBool());
   EXPECT_EQ(shown["entities"]["tarn/sb/status"]["enabledPcrBank"].Size(), 2u);
   EXPECT_EQ(shown["entities"]["tarn/features/status"]["featureRev"]["extra"].GetUint(), 5u);
}

TEST_F(HostTest, ScriptFromStandardInputInTextFormat) {
   auto r = run({"--state", s.state(kInputs), "--script", "-"}, "invoke tarnFeature getRunningTarnVersion\n");
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_EQ(r.out.substr(0, 9), "Tarn=7.1\n");
   EXPECT_NE(r.out.find("  tarn                 2\n"), String::npos) << r.out;
   EXPECT_NE(r.out.find("  SENTREL_WARNING: " + kSecureBootOffWarning + "\n"), String::npos);
}

TEST_F(HostTest, BadInputIsAUsageErrorNamingFilePositionAndProblem) {
   struct Case {
      String stateJson;  // empty: no --state
      String script;     // empty: no --script
      std::vector<String> extra;
      String error;
   };
   std::vector<Case> const cases{
      {R"({"entities": {"tarn/sb/status": {"ready": tru}}})", "", {}, "state.json: byte 45: Invalid value."},
      {R"({"entities": {"tarn/nothing": {}}})", "", {}, "byte 14: unknown entity path \"tarn/nothing\""},
      {R"({"entities": {"tarn/sb/status": {"colour": 1}}})", "", {},
       "byte 33: unknown attribute \"colour\" of tarn/sb/status"},
      {R"({"entities": {"tarn/sb/status": {"statusFlags": 65536}}})", "", {},
       "byte 48: statusFlags: expected an integer from 0 to 65535"},
      {R"({"entitis": {}})", "", {}, "byte 1: unknown member \"entitis\""},
      {"{\"entities\xe6", "", {}, "byte 10: Invalid encoding in string."},
      {"", "show\nfrobnicate x\n", {}, "script:2: unknown command \"frobnicate\""},
      {"", "\ninvoke nothing run\n", {}, "script:2: unknown state machine \"nothing\""},
      {"", "invoke tarnFeature fly\n", {}, "script:1: unknown operation \"fly\" of tarnFeature"},
      {"", "set tarn/sb/status enabledPcrBank \"x\"\n", {}, "script:1: enabledPcrBank is a set or map: use insert"},
      {"", "set tarn/sb/status ready 1\n", {}, "script:1: ready: expected true or false, not number"},
      {"", "set agent sbStatus \"tarn/features/status\"\n", {},
       "script:1: sbStatus: expected a Tarn::Secureboot::Status, not a Tarn::Features::Status"},
      {"", "set agent sbStatus \"tarn/elsewhere\"\n", {}, "script:1: sbStatus: no entity at \"tarn/elsewhere\""},
      {"", "set agent tarnFeatureSm \"tarn/sb/status\"\n", {}, "script:1: unknown attribute \"tarnFeatureSm\" of agent"},
      {"", "", {"--format", "xml"}, "--format takes text, json or openmetrics, not 'xml'"},
      {"", "", {"--trace", "2-"}, "--trace takes levels 0 to 9"},
      {"", "", {"--toggles", "/nonexistent"}, "--toggles /nonexistent: No such file"},
      {"", "", {"--state", "/"}, "--state /: is a folder, not a file"},
      {"", "", {"--script", "/dev/zero"}, "--script /dev/zero: larger than 16 MiB"},
      {"", "", {"--frob"}, "unknown argument '--frob'"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.error);
      std::vector<String> args = c.extra;
      if (!c.stateJson.empty()) args.insert(args.end(), {"--state", s.sw.file("state.json", c.stateJson)});
      if (!c.script.empty()) args.insert(args.end(), {"--script", s.sw.file("script", c.script)});
      auto r = run(args);
      EXPECT_EQ(r.exitCode, 2);
      EXPECT_EQ(r.out, "");  // nothing partial, not even the first show
      EXPECT_NE(r.err.find(c.error), String::npos) << r.err;
   }
}

TEST_F(HostTest, ReportIsValidJsonForAnyBytes) {
   s.sw.file("tarn-version", "a\xff\x01\"\\\xc3\xa9\n");
   auto r = run({"--state", s.state(kInputs), "--format", "json"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find(R"("tarn": "a\u00ff\u0001\"\\)" "\xc3\xa9" R"(")"), String::npos) << r.out;
   auto d = parseJson(r.out);
   EXPECT_STREQ(d["entities"]["sentrel/measuredBootVersion"]["tarn"].GetString(), "a\xc3\xbf\x01\"\\\xc3\xa9");
}

TEST(SampleSwitch, ShowsEveryKindOfWarningOnIntelAndAmd) {
   for (char const *variant : {"intel", "amd"}) {
      SCOPED_TRACE(variant);
      TempDir io;
      String const cmd = String("SENTREL=") + SENTREL_HOST_PATH + " " SENTREL_SOURCE_DIR "/examples/run.sh " +
                         variant + " --no-syslog --format json >" + io.path() + "/out 2>&1";
      ASSERT_EQ(std::system(cmd.c_str()), 0);
      String const out = slurp(io.path() + "/out");
      auto d = parseJson(out.substr(out.find("\n{")));  // after the script's invoke line
      std::set<String> kinds;
      for (auto const &l : d["log"].GetArray()) kinds.insert(l["name"].GetString());
      EXPECT_EQ(kinds, (std::set<String>{"TARN_DEPRECATION_WARNING", "MEASUREDBOOT_PCR_CONFIG_WARNING",
                                         "SENTREL_WARNING"}));
      EXPECT_TRUE(d["entities"]["sentrel/firstInstructionSecurity"]["systemFused"].GetBool());
   }
}
