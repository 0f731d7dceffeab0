#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

String compact(rapidjson::Value const &v) {
   rapidjson::StringBuffer buf;
   rapidjson::Writer<rapidjson::StringBuffer> w(buf);
   v.Accept(w);
   return buf.GetString();
}

Strings texts(rapidjson::Value const &records) {
   Strings out;
   for (auto const &r : records.GetArray()) out.push_back(r["text"].GetString());
   return out;
}

// A whole switch run through the built host, reporting in JSON with the
// problem and entry traces on; its files are named relative to the state file.
class EndToEnd : public testing::Test {
 protected:
   rapidjson::Document report(String const &entities, String const &script = "", Strings args = {}) {
      args.insert(args.end(), {"--format", "json", "--trace", "2,7", "--state", s.state(entities)});
      if (!script.empty()) args.insert(args.end(), {"--script", s.sw.file("script", script)});
      auto r = s.run(args);
      EXPECT_EQ(r.exitCode, 0) << r.err;
      return parseJson(r.out);
   }
   FakeSwitch s;
};

}  // namespace

// Every machine on one switch; the script moves a path, withdraws and
// restores secure boot support and readiness, then hides the PCR error log
// and restarts the agent, which keeps the PCR flags without warning again.
TEST_F(EndToEnd, OneSwitchFromStartUpThroughScriptAndRestart) {
   s.sw.file("mb/tarn", "2\n");
   s.sw.file("mb/vexo.json", R"({"measuredBootVersion": "1.1"})");
   s.sw.file("features", "secureboot:26\nbootguard:-1\n");
   s.sw.file("required", "sha256 sha384\n");
   s.sw.file("boot-config", "PCRBANK=sha1+sha256\n");
   s.sw.file("errors.log", "REQUIRED_PCR_NOT_ENABLED\n");
   String const script = "set sentrel/measuredBootVersion tarnVersionFilePath \"" + s.sw.file("mb/tarn-new", "3\n") +
                         "\"\n" R"(set tarn/sb/status supported false
set tarn/sb/status supported true
set tarn/sb/status ready false
set tarn/sb/status ready true
set tarn/pcrConfig/status errorLogFilePath "/nonexistent"
restart
)";
   auto d = report(R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "mb/tarn",
                                                     "vexoVersionFilePath": "mb/vexo.json"},
      "tarn/features/status": {"featuresFilePath": "features"},
      "tarn/pcrConfig/status": {"requiredPcrBankFilePath": "required", "configuredPcrBankFilePath": "boot-config",
                                "errorLogFilePath": "errors.log"},
      "tarn/sb/status": {"supported": true, "ready": true, "statusFlags": 1, "enabledPcrBank": ["sha256"]},
      "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "measuredBootEnabled": false,
                                          "configReady": true})",
                   script);
   auto const &e = d["entities"];
   EXPECT_EQ(compact(e["sentrel/measuredBootVersion"]["tarn"]), R"("3")");
   EXPECT_EQ(compact(e["sentrel/measuredBootVersion"]["vexo"]), R"("1.1")");
   EXPECT_EQ(compact(e["tarn/features/status"]["featureRev"]), R"({"bootguard":4294967295,"secureboot":26})");
   EXPECT_TRUE(e["tarn/features/status"]["sbOutdated"].GetBool());
   EXPECT_EQ(compact(e["tarn/pcrConfig/status"]["configuredPcrBank"]), R"(["sha1","sha256"])");
   EXPECT_TRUE(e["tarn/pcrConfig/status"]["requiredPcrNotEnabled"].GetBool());
   for (auto const &sm : d["stateMachines"].GetObject()) {
      EXPECT_TRUE(!sm.value.HasMember("initialized") || sm.value["initialized"].GetBool()) << sm.name.GetString();
   }
   String const deprecated = "Tarn=7.1" + kDeprecationTail;
   String const notEnabled = kPcrWarningHead + "Required PCR bank sha384 is not currently enabled";
   EXPECT_EQ(texts(d["log"]), (Strings{deprecated, notEnabled, kSecureBootOffWarning, deprecated, kSecureBootOffWarning,
                                       deprecated, kSecureBootOffWarning}));
   Strings names;
   for (auto const &l : d["log"].GetArray()) {
      names.push_back(l["name"].GetString());
      EXPECT_EQ(l["severity"].GetInt(), 4);
   }
   EXPECT_EQ(names[1], "MEASUREDBOOT_PCR_CONFIG_WARNING");
   EXPECT_EQ(names[3], "TARN_DEPRECATION_WARNING");
   EXPECT_EQ(names[4], "SENTREL_WARNING");
   for (auto const &t : d["trace"].GetArray()) EXPECT_TRUE(t["level"].GetInt() == 2 || t["level"].GetInt() == 7);
   Strings const traces = texts(d["trace"]);
   for (String const t : {"Logging CPU vendor ID: TestVendor", "Cannot open Tarn PCR config error log file",
                          "defaultSentrelStatus or sbStatus is not ready, skipping",
                          "void Sentrel::MeasuredBootVersionSm::readTarnMeasuredBootVersion()"}) {
      EXPECT_NE(std::find(traces.begin(), traces.end(), t), traces.end()) << t;
   }
}

// The option wins over an all-on toggle folder in the environment.
TEST_F(EndToEnd, TogglesTurnedOffByTheOption) {
   TempDir off;
   off.file("SecureBoot.json", R"({"PcrMultibank": false})");
   off.file("Sentrel.json", R"({"SentrelMfgExpectedConfigCheck": false, "PlatformFirstInstructionSecurity": false})");
   off.file("Halyard.json", R"({"SentrelIma": false})");
   String const lscpuRan = s.sw.path() + "/lscpu-ran";
   s.sw.script("bin/lscpu", "touch '" + lscpuRan + "'\necho 'Vendor ID: GenuineIntel'\n");
   s.sw.file("required", "sha256\n");
   s.sw.file("errors.log", "REQUIRED_PCR_NOT_CONFIGURED\n");
   String const entities = R"("tarn/pcrConfig/status": {"requiredPcrBankFilePath": "required",
                                                     "errorLogFilePath": "errors.log"},
      "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "configReady": true},
      "tarn/sb/status": {"ready": false, "statusFlags": 1})";
   auto d = report(entities, "set tarn/sb/status ready true\n", {"--toggles", off.path()});
   EXPECT_TRUE(d["stateMachines"]["integrityKeyring"].IsNull());
   EXPECT_FALSE(d["stateMachines"]["checkConfigurationStatus"]["initialized"].GetBool());
   EXPECT_EQ(compact(d["entities"]["tarn/pcrConfig/status"]["requiredPcrBank"]), "[]");
   EXPECT_FALSE(std::filesystem::exists(lscpuRan));
   EXPECT_EQ(d["log"].Size(), 0u);  // neither the configuration check nor the PCR warning
}

TEST_F(EndToEnd, AbsentSecureBootStatusAbortsTheHost) {
   rlimit core{};  // the designed abort leaves no core file behind
   getrlimit(RLIMIT_CORE, &core);
   rlimit const noCore{0, core.rlim_max};
   setrlimit(RLIMIT_CORE, &noCore);
   auto r = s.run({"--state", s.state(R"("tarn/sb/status": null)")});
   setrlimit(RLIMIT_CORE, &core);
   EXPECT_EQ(r.exitCode, 128 + SIGABRT);
   EXPECT_EQ(r.out, "");
   EXPECT_NE(r.err.find("null Ptr<Tarn::Secureboot::Status"), String::npos) << r.err;
}
