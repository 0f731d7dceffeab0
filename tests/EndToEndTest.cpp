#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

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
   for (auto const &[name, content] : std::vector<std::pair<String, String>>{
           {"tarn-version", "2\n"}, {"vexo.json", R"({"measuredBootVersion": "1.1"})"}, {"features", "secureboot:26\n"},
           {"required", "sha256 sha384\n"}, {"boot-config", "PCRBANK=sha1+sha256\n"},
           {"errors.log", "REQUIRED_PCR_NOT_ENABLED\n"}}) {
      s.sw.file(name, content);
   }
   String const script = "set sentrel/measuredBootVersion tarnVersionFilePath \"" + s.sw.file("tarn-new", "3\n") +
                         "\"\n" R"(set tarn/sb/status supported false
set tarn/sb/status supported true
set tarn/sb/status ready false
set tarn/sb/status ready true
set tarn/pcrConfig/status errorLogFilePath "/nonexistent"
restart
)";
   auto d = report(kInputs + R"(, "tarn/pcrConfig/status": {"requiredPcrBankFilePath": "required",
      "configuredPcrBankFilePath": "boot-config", "errorLogFilePath": "errors.log"})",
                   script);
   auto const &e = d["entities"];
   EXPECT_STREQ(e["sentrel/measuredBootVersion"]["tarn"].GetString(), "3");
   EXPECT_TRUE(e["tarn/pcrConfig/status"]["requiredPcrNotEnabled"].GetBool());
   for (auto const &sm : d["stateMachines"].GetObject()) {
      EXPECT_TRUE(!sm.value.HasMember("initialized") || sm.value["initialized"].GetBool()) << sm.name.GetString();
   }
   String const deprecated = "Tarn=7.1" + kDeprecationTail;
   String const notEnabled = kPcrWarningHead + "Required PCR bank sha384 is not currently enabled";
   EXPECT_EQ(texts(d["log"]), (Strings{deprecated, notEnabled, kSecureBootOffWarning, deprecated, kSecureBootOffWarning,
                                       deprecated, kSecureBootOffWarning}));
   EXPECT_STREQ(d["log"][1]["name"].GetString(), "MEASUREDBOOT_PCR_CONFIG_WARNING");
   EXPECT_EQ(d["log"][1]["severity"].GetInt(), 4);
   for (auto const &t : d["trace"].GetArray()) EXPECT_TRUE(t["level"].GetInt() == 2 || t["level"].GetInt() == 7);
}

// What each toggle turns off is proved with the toggles off in a process of
// their own; here the option wins over an all-on folder in the environment.
TEST_F(EndToEnd, TheTogglesOptionWinsOverTheEnvironment) {
   TempDir off;
   off.file("Halyard.json", R"({"SentrelIma": false})");
   auto d = report("", "", {"--toggles", off.path()});
   EXPECT_TRUE(d["stateMachines"]["integrityKeyring"].IsNull());
   EXPECT_FALSE(d["toggles"]["SentrelIma"].GetBool());
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
