#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>

#include "Sentrel/platform/Json.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

// A small switch: a system root, a fake lscpu of an unknown vendor, and
// bootloader files whose paths a state file names relative to itself.
class HostTest : public testing::Test {
 protected:
   HostTest() {
      sw.script("bin/lscpu", "echo 'Vendor ID:           TestVendor'\n");
      sw.file("root/proc/cmdline", "ro Tarn=7.1 quiet\n");
      sw.file("tarn-version", "2\n");
      sw.file("vexo.json", R"({"measuredBootVersion": "1.1"})");
      sw.file("features", "secureboot:26\nbootguard:10\n");
   }

   HostRun run(std::vector<String> args, String const &input = "") {
      // The test's own arguments come last and win.
      args.insert(args.begin(), {"--sysroot", sw.path() + "/root", "--toggles", toggles.path()});
      return runHost(args, {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH")}, input);
   }

   String state(String const &entities) {
      return sw.file("state.json", R"({"entities": {)" + entities + "}}");
   }

   static rapidjson::Document parse(String const &text) {
      rapidjson::Document d;
      d.Parse(text.c_str(), text.size());
      EXPECT_FALSE(d.HasParseError()) << text;
      return d;
   }

   TempDir sw, toggles;
};

String const kInputs = R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "tarn-version",
                                                    "vexoVersionFilePath": "vexo.json"},
   "tarn/features/status": {"featuresFilePath": "features"},
   "tarn/sb/status": {"supported": true, "ready": true, "statusFlags": 1, "enabledPcrBank": ["sha256"]},
   "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "measuredBootEnabled": false,
                                       "configReady": true})";

}  // namespace

TEST_F(HostTest, StateSeedsTheInputsAndTheReportShowsWhatTheAgentPublished) {
   auto r = run({"--state", state(kInputs), "--format", "json", "--trace", "2"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   auto d = parse(r.out);
   auto const &e = d["entities"];
   EXPECT_STREQ(e["sentrel/measuredBootVersion"]["tarn"].GetString(), "2");
   EXPECT_STREQ(e["sentrel/measuredBootVersion"]["vexo"].GetString(), "1.1");
   // Relative file paths are taken from the state file's folder.
   EXPECT_EQ(String(e["tarn/features/status"]["featuresFilePath"].GetString()), sw.path() + "/features");
   EXPECT_TRUE(e["tarn/features/status"]["sbOutdated"].GetBool());
   EXPECT_EQ(e["tarn/features/status"]["featureRev"]["secureboot"].GetUint(), 26u);
   EXPECT_STREQ(e["sentrel/firstInstructionSecurity"]["cpuVendor"].GetString(), "TestVendor");
   EXPECT_STREQ(e["sentrel/firstInstructionSecurity"]["vendorSpecific"]["string"].GetString(), "");
   EXPECT_EQ(e["tarn/sb/status"]["statusFlags"].GetUint(), 1u);
   EXPECT_TRUE(e["sentrel/integrity/key/keyringColl"].IsObject());
   for (auto const &sm : d["stateMachines"].GetObject()) {
      if (sm.value.HasMember("initialized")) {
         EXPECT_TRUE(sm.value["initialized"].GetBool()) << sm.name.GetString();
      }
   }
   ASSERT_EQ(d["log"].Size(), 2u);
   EXPECT_STREQ(d["log"][0]["name"].GetString(), "TARN_DEPRECATION_WARNING");
   EXPECT_STREQ(d["log"][0]["text"].GetString(),
                "Tarn=7.1 will be deprecated soon. Reason: Secure boot will not work after May 2027 due to "
                "certificate expiration. ");
   EXPECT_EQ(d["log"][1]["severity"].GetInt(), 4);
   EXPECT_STREQ(d["log"][1]["text"].GetString(), "Secure boot is currently disabled (default: enabled)");
   bool traced = false;
   for (auto const &t : d["trace"].GetArray()) {
      EXPECT_EQ(t["level"].GetInt(), 2);
      traced |= String(t["text"].GetString()) == "Logging Tarn Deprecation Warning";
   }
   EXPECT_TRUE(traced);
}

TEST_F(HostTest, NullMakesAnEntityAbsent) {
   auto r = run({"--state", state(R"("hardware/sentrel/config/sentrel": null,
                                     "sentrel/integrity/key/keyringColl": null)"),
                 "--format", "json", "--trace", "2"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   auto d = parse(r.out);
   EXPECT_TRUE(d["entities"]["hardware/sentrel/config/sentrel"].IsNull());
   EXPECT_TRUE(d["entities"]["sentrel/integrity/key/keyringColl"].IsNull());
   EXPECT_TRUE(d["stateMachines"]["checkConfigurationStatus"].IsObject());
   EXPECT_NE(r.out.find("defaultSentrelStatus or sbStatus is null, skipping"), String::npos);
}

TEST_F(HostTest, ScriptCommandsActThroughTheTypeDescriptions) {
   String const script = sw.file("script", R"(# comment and blank lines are skipped

show tarn/sb/status
set tarn/sb/status supported false
insert tarn/sb/status enabledPcrBank "sha384"
insert tarn/features/status featureRev {"extra": 5}
invoke tarnFeature getRunningTarnVersion
show
restart
)");
   auto r = run({"--state", state(kInputs), "--format", "json", "--trace", "7", "--script", script});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   std::vector<String> lines;
   std::size_t pos = 0;
   for (int i = 0; i < 3; ++i) {
      std::size_t const nl = r.out.find('\n', pos);
      lines.push_back(r.out.substr(pos, nl - pos));
      pos = nl + 1;
   }
   EXPECT_EQ(lines[0], R"({"tarn/sb/status":{"supported":true,"ready":true,"statusFlags":1,"enabledPcrBank":["sha256"]}})");
   EXPECT_EQ(lines[1], "\"Tarn=7.1\"");
   auto shown = parse(lines[2]);
   EXPECT_FALSE(shown["entities"]["tarn/sb/status"]["supported"].GetBool());
   EXPECT_EQ(shown["entities"]["tarn/sb/status"]["enabledPcrBank"].Size(), 2u);
   EXPECT_EQ(shown["entities"]["tarn/features/status"]["featureRev"]["extra"].GetUint(), 5u);
   // Turning supported off recomputed the outdated fact through the reactor.
   EXPECT_FALSE(shown["entities"]["tarn/features/status"]["sbOutdated"].GetBool());
   auto d = parse(r.out.substr(pos));
   int starts = 0;
   for (auto const &t : d["trace"].GetArray()) {
      starts += String(t["text"].GetString()) == "void Sentrel::TarnFeatureSm::handleInitialized()";
   }
   EXPECT_EQ(starts, 2);  // start-up and restart
}

TEST_F(HostTest, ScriptFromStandardInputInTextFormat) {
   auto r = run({"--state", state(kInputs), "--script", "-"}, "invoke tarnFeature getRunningTarnVersion\n");
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_EQ(r.out.substr(0, 9), "Tarn=7.1\n");
   EXPECT_NE(r.out.find("  tarn                 2\n"), String::npos) << r.out;
   EXPECT_NE(r.out.find("  SENTREL_WARNING: Secure boot is currently disabled (default: enabled)\n"), String::npos);
}

TEST_F(HostTest, BadInputIsAUsageErrorNamingFilePositionAndProblem) {
   struct Case {
      char const *name;
      String stateJson;  // empty: no --state
      String script;     // empty: no --script
      std::vector<String> extra;
      String error;
   };
   std::vector<Case> const cases{
      {"bad JSON", R"({"entities": {"tarn/sb/status": {"ready": tru}}})", "", {}, "state.json: byte 45: Invalid value."},
      {"unknown path", R"({"entities": {"tarn/nothing": {}}})", "", {}, "byte 14: unknown entity path \"tarn/nothing\""},
      {"unknown attribute", R"({"entities": {"tarn/sb/status": {"colour": 1}}})", "", {},
       "byte 33: unknown attribute \"colour\" of tarn/sb/status"},
      {"wrong type", R"({"entities": {"tarn/sb/status": {"statusFlags": 65536}}})", "", {},
       "byte 48: statusFlags: expected an integer from 0 to 65535"},
      {"unknown member", R"({"entitis": {}})", "", {}, "byte 1: unknown member \"entitis\""},
      {"file ends inside a UTF-8 sequence", "{\"entities\xe6", "", {}, "byte 10: Invalid encoding in string."},
      {"unknown command", "", "show\nfrobnicate x\n", {}, "script:2: unknown command \"frobnicate\""},
      {"unknown state machine", "", "\ninvoke nothing run\n", {}, "script:2: unknown state machine \"nothing\""},
      {"unknown operation", "", "invoke tarnFeature fly\n", {}, "script:1: unknown operation \"fly\" of tarnFeature"},
      {"set on a set", "", "set tarn/sb/status enabledPcrBank \"x\"\n", {}, "script:1: enabledPcrBank is a set or map: use insert"},
      {"bad value", "", "set tarn/sb/status ready 1\n", {}, "script:1: ready: expected true or false, not number"},
      {"bad format", "", "", {"--format", "xml"}, "--format takes text, json or openmetrics, not 'xml'"},
      {"bad trace", "", "", {"--trace", "2-"}, "--trace takes levels 0 to 9"},
      {"missing state", "", "", {"--state", "/nonexistent/state.json"}, "--state /nonexistent/state.json: No such file"},
      {"bad toggles", "", "", {"--toggles", "/nonexistent"}, "--toggles /nonexistent: No such file"},
      {"state is a folder", "", "", {"--state", "/"}, "--state /: is a folder, not a file"},
      {"script that never ends", "", "", {"--script", "/dev/zero"}, "--script /dev/zero: larger than 16 MiB"},
      {"unknown option", "", "", {"--frob"}, "unknown argument '--frob'"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      std::vector<String> args = c.extra;
      if (!c.stateJson.empty()) args.insert(args.end(), {"--state", sw.file("state.json", c.stateJson)});
      if (!c.script.empty()) args.insert(args.end(), {"--script", sw.file("script", c.script)});
      auto r = run(args);
      EXPECT_EQ(r.exitCode, 2);
      EXPECT_EQ(r.out, "");  // nothing partial, not even the first show
      EXPECT_NE(r.err.find(c.error), String::npos) << r.err;
   }
}

TEST_F(HostTest, FailOnWarningExitsOneOnlyWhenSomethingWasLogged) {
   EXPECT_EQ(run({"--state", state(kInputs), "--fail-on-warning"}).exitCode, 1);
   EXPECT_EQ(run({"--state", state(kInputs)}).exitCode, 0);
   EXPECT_EQ(run({"--fail-on-warning"}).exitCode, 0);
}

TEST_F(HostTest, ReportIsValidJsonForAnyBytes) {
   sw.file("tarn-version", "a\xff\x01\"\\\xc3\xa9\n");
   auto r = run({"--state", state(kInputs), "--format", "json"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find(R"("tarn": "a\u00ff\u0001\"\\)" "\xc3\xa9" R"(")"), String::npos) << r.out;
   auto d = parse(r.out);
   EXPECT_STREQ(d["entities"]["sentrel/measuredBootVersion"]["tarn"].GetString(), "a\xc3\xbf\x01\"\\\xc3\xa9");
}

TEST(SampleSwitch, ShowsEveryKindOfWarningOnIntelAndAmd) {
   for (char const *variant : {"intel", "amd"}) {
      SCOPED_TRACE(variant);
      TempDir io;
      String const cmd = String("SENTREL=") + SENTREL_HOST_PATH + " " SENTREL_SOURCE_DIR "/examples/run.sh " +
                         variant + " --no-syslog --format json >" + io.path() + "/out 2>&1";
      ASSERT_EQ(std::system(cmd.c_str()), 0);
      std::ifstream in(io.path() + "/out");
      String const out((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      rapidjson::Document d;
      d.Parse(out.c_str() + out.find("\n{"));  // after the script's invoke line
      ASSERT_FALSE(d.HasParseError()) << out;
      std::set<String> kinds;
      for (auto const &l : d["log"].GetArray()) kinds.insert(l["name"].GetString());
      EXPECT_EQ(kinds, (std::set<String>{"TARN_DEPRECATION_WARNING", "MEASUREDBOOT_PCR_CONFIG_WARNING",
                                         "SENTREL_WARNING"}));
      EXPECT_TRUE(d["entities"]["sentrel/firstInstructionSecurity"]["systemFused"].GetBool());
   }
}
