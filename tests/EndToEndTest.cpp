#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>

#include "Sentrel/platform/Json.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

// A whole switch run through the built host: a system root, fake commands
// first in PATH, and bootloader and image files named relative to the state
// file. Every run reports in JSON with the problem and entry traces on.
class EndToEnd : public testing::Test {
 protected:
   EndToEnd() {
      sw.script("bin/lscpu", "echo 'Vendor ID:           TestVendor'\n");
      sw.file("root/proc/cmdline", "ro Tarn=7.1 quiet\n");
   }

   // `togglesDir` reaches the host through its environment; an empty folder
   // leaves every toggle on.
   HostRun run(Strings args, String const &togglesDir = "") {
      args.insert(args.begin(), {"--sysroot", sw.path() + "/root", "--format", "json", "--trace", "2,7"});
      return runHost(args, {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH"),
                            "SENTREL_TOGGLES_DIR=" + (togglesDir.empty() ? toggles.path() : togglesDir)});
   }

   // Runs with `entities` as the state and `script` (if any), expects a clean
   // exit and returns the report.
   rapidjson::Document report(String const &entities, String const &script = "", Strings args = {},
                              String const &togglesDir = "") {
      args.insert(args.end(), {"--state", sw.file("state.json", R"({"entities": {)" + entities + "}}")});
      if (!script.empty()) args.insert(args.end(), {"--script", sw.file("script", script)});
      auto r = run(args, togglesDir);
      EXPECT_EQ(r.exitCode, 0) << r.err;
      rapidjson::Document d;
      d.Parse(r.out.c_str());
      EXPECT_FALSE(d.HasParseError()) << r.out;
      // An empty report keeps the lookups below from tripping the JSON assertions.
      if (d.HasParseError()) d.Parse(R"({"entities": {}, "stateMachines": {}, "log": [], "trace": []})");
      return d;
   }

   TempDir sw, toggles;
};

String compact(rapidjson::Value const &v) {
   rapidjson::StringBuffer buf;
   rapidjson::Writer<rapidjson::StringBuffer> w(buf);
   v.Accept(w);
   return buf.GetString();
}

Strings logTexts(rapidjson::Document const &d) {
   Strings out;
   for (auto const &l : d["log"].GetArray()) out.push_back(l["text"].GetString());
   return out;
}

// Trace texts of every level whose text or function mentions `what`, in order.
Strings tracesAbout(rapidjson::Document const &d, String const &what) {
   Strings out;
   for (auto const &t : d["trace"].GetArray()) {
      String const text = t["text"].GetString();
      if (text.find(what) != String::npos || String(t["function"].GetString()) == what) out.push_back(text);
   }
   return out;
}

bool traced(rapidjson::Document const &d, String const &text) {
   for (auto const &t : d["trace"].GetArray()) {
      if (t["text"].GetString() == text) return true;
   }
   return false;
}

String const kMb = "void Sentrel::MeasuredBootVersionSm::";

}  // namespace

TEST_F(EndToEnd, MeasuredBootVersionsFollowTheirPathAttributes) {
   sw.file("mb/tarn", "2\n");
   sw.file("mb/vexo.json", R"({"other": 1, "measuredBootVersion": "1.1"})");
   String const tarnNew = sw.file("mb/tarn-new", "3\r\nignored\n");
   String const startup[] = {kMb + "handleInitialized()", kMb + "readTarnMeasuredBootVersion()",
                             kMb + "readVexoMeasuredBootVersion()"};
   struct Case {
      char const *name;
      String script;
      String tarn, vexo;
      Strings afterStartup;  // traces of the machine after its start-up
   };
   std::vector<Case> const cases{
      {"no script", "", "2", "1.1", {}},
      {"tarn path changed: only the tarn file is read again",
       "set sentrel/measuredBootVersion tarnVersionFilePath \"" + tarnNew + "\"\n", "3\r", "1.1",
       {kMb + "readTarnMeasuredBootVersion()"}},
      {"vexo path changed to a missing file",
       "set sentrel/measuredBootVersion vexoVersionFilePath \"/nonexistent.json\"\n", "2", "", {kMb + "readVexoMeasuredBootVersion()", "Cannot find Vexo measured boot version file"}},
      {"tarn path changed to a missing file",
       "set sentrel/measuredBootVersion tarnVersionFilePath \"" + sw.path() + "/none\"\n", "", "1.1",
       {kMb + "readTarnMeasuredBootVersion()", "Cannot open Tarn measured boot version file"}},
      {"same path and written versions trigger nothing",
       "set sentrel/measuredBootVersion tarnVersionFilePath \"" + sw.path() + "/mb/tarn\"\n"
       "set sentrel/measuredBootVersion tarn \"9\"\nset sentrel/measuredBootVersion vexo \"8\"\n",
       "9", "8", {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      auto d = report(R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "mb/tarn",
                                                         "vexoVersionFilePath": "mb/vexo.json"})",
                      c.script);
      auto const &mbv = d["entities"]["sentrel/measuredBootVersion"];
      EXPECT_EQ(mbv["tarn"].GetString(), c.tarn);
      EXPECT_EQ(mbv["vexo"].GetString(), c.vexo);
      Strings expected(std::begin(startup), std::end(startup));
      expected.insert(expected.end(), c.afterStartup.begin(), c.afterStartup.end());
      Strings got;  // the machine's own traces, in the report's order
      for (auto const &t : d["trace"].GetArray()) {
         String const text = t["text"].GetString(), fn = t["function"].GetString();
         if (text.starts_with(kMb) || fn.ends_with("MeasuredBootVersion")) got.push_back(text);
      }
      EXPECT_EQ(got, expected);
      EXPECT_TRUE(d["stateMachines"]["measuredBootVersion"]["initialized"].GetBool());
   }
}

TEST_F(EndToEnd, BootloaderFeaturesAndTheDeprecationWarning) {
   struct Case {
      char const *name;
      String features;
      std::optional<String> cmdline;  // none: no /proc/cmdline in the system root
      bool supported;
      String script;
      bool sbOutdated, pcrMultibank, measuredboot;
      Strings logs;
      String trace;  // a level-2 trace that must be in the report, if any
   };
   String const set = "set tarn/sb/status supported ";
   std::vector<Case> const cases{
      {"outdated: warned at start-up and again when support comes back", "secureboot:26\nbootguard:10\n",
       "ro Tarn=7.1 quiet\n", true, set + "false\n" + set + "true\n", true, false, false,
       {"Tarn=7.1" + kDeprecationTail, "Tarn=7.1" + kDeprecationTail}, "Logging Tarn Deprecation Warning"},
      {"support withdrawn clears outdated", "secureboot:26\n", "x=1 Tarn=a.b Tarn=c\n", true, set + "false\n",
       false, false, false, {"Tarn=a.b" + kDeprecationTail}, ""},
      {"support arriving after start-up warns then", "secureboot:26\n", "Tarn=7.1\n", false, set + "true\n",
       true, false, false, {"Tarn=7.1" + kDeprecationTail}, ""},
      {"54 gives multibank and measured boot", "secureboot:54\n", "Tarn=7.1\n", true, "", false, true, true, {},
       ""},
      {"no Tarn entry", "secureboot:26\n", "ro Tarn= quiet\n", true, "", true, false, false,
       {"This version of Tarn" + kDeprecationTail}, "Cannot find Tarn version in /proc/cmdline"},
      {"no command line", "secureboot:26\n", std::nullopt, true, "", true, false, false,
       {"This version of Tarn" + kDeprecationTail}, "Cannot open /proc/cmdline"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      sw.file("tarn/features", c.features);
      std::remove((sw.path() + "/root/proc/cmdline").c_str());
      if (c.cmdline) sw.file("root/proc/cmdline", *c.cmdline);
      auto d = report(R"("tarn/features/status": {"featuresFilePath": "tarn/features"},
                         "tarn/sb/status": {"supported": )" +
                         String(c.supported ? "true" : "false") + "}",
                      c.script);
      auto const &fs = d["entities"]["tarn/features/status"];
      EXPECT_EQ(fs["sbOutdated"].GetBool(), c.sbOutdated);
      EXPECT_EQ(fs["pcrMultibankSupported"].GetBool(), c.pcrMultibank);
      EXPECT_EQ(fs["measuredbootSupported"].GetBool(), c.measuredboot);
      EXPECT_EQ(logTexts(d), c.logs);
      for (auto const &l : d["log"].GetArray()) EXPECT_STREQ(l["name"].GetString(), "TARN_DEPRECATION_WARNING");
      if (!c.trace.empty()) {
         EXPECT_TRUE(traced(d, c.trace)) << c.trace;
      }
   }
}

TEST_F(EndToEnd, FeatureRevisionsArePublishedAsTheyWereRead) {
   sw.file("tarn/features", "secureboot:-1\nbootguard: 12abc\nbad:x\nsecureboot :5\n");
   auto d = report(R"("tarn/features/status": {"featuresFilePath": "tarn/features"})");
   EXPECT_EQ(compact(d["entities"]["tarn/features/status"]["featureRev"]),
             R"({"bootguard":12,"secureboot":4294967295,"secureboot ":5})");
   EXPECT_TRUE(traced(d, "Invalid value for version number, not an integer"));
}

TEST_F(EndToEnd, PcrConfigurationAndItsWarningsSurviveARestartWithoutTheLog) {
   // lscpu runs once per agent, before the PCR machine: on the second agent
   // it removes the error log, so that the restarted machine finds none.
   sw.script("bin/lscpu", "if [ -e '" + sw.path() + "/seen' ]; then rm -f '" + sw.path() + "/tarn/errors.log'; fi\n" +
                             "touch '" + sw.path() + "/seen'\necho 'Vendor ID: TestVendor'\n");
   sw.file("vexo/required", "sha384\n sha256\tsha384\n");
   String const required = sw.path() + "/vexo/required";
   struct Case {
      char const *name;
      String bootConfig;  // empty: no file
      String script;
      Strings configured, logs, traces;
   };
   std::vector<Case> const cases{
      {"start-up reads the log", "A=1\nPCRBANK=sha1+sha256\nPCRBANK=sha384\n", "", {"sha1", "sha256"},
       {kPcrWarningHead + "Required PCR bank sha384 is not configured in PCRBANK",
        kPcrWarningHead + "Required PCR bank sha384 is not currently enabled",
        kPcrWarningHead + "PCR bank boot-config found on TPM 1.2 system"},
       {"REQUIRED_PCR_NOT_CONFIGURED error found", "REQUIRED_PCR_NOT_ENABLED error found",
        "PCR_CONFIG_FOUND_ON_TPM12 error found",
        "Logging PCR bank config warning due to required PCR bank not configured",
        "Logging PCR bank config warning due to required PCR bank not enabled",
        "Logging PCR config warning due to PCR bank config found on TPM 1.2 system"}},
      {"restart without the log keeps the flags; no boot config names the required file", "", "restart\n", {},
       {kPcrWarningHead + "Required PCR bank sha256 sha384 is not configured in PCRBANK",
        kPcrWarningHead + "Required PCR bank sha384 is not currently enabled",
        kPcrWarningHead + "PCR bank boot-config found on TPM 1.2 system"},
       {"Cannot open " + required, "REQUIRED_PCR_NOT_CONFIGURED error found",
        "REQUIRED_PCR_NOT_ENABLED error found", "PCR_CONFIG_FOUND_ON_TPM12 error found",
        "Logging PCR bank config warning due to required PCR bank not configured",
        "Logging PCR bank config warning due to required PCR bank not enabled",
        "Logging PCR config warning due to PCR bank config found on TPM 1.2 system", "Cannot open " + required,
        "Cannot open Tarn PCR config error log file"}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      std::remove((sw.path() + "/seen").c_str());
      sw.file("tarn/errors.log", "REQUIRED_PCR_NOT_CONFIGURED\nREQUIRED_PCR_NOT_ENABLED sha384\n"
                                 " PCR_CONFIG_FOUND_ON_TPM12\nPCR_CONFIG_FOUND_ON_TPM12\n");
      std::remove((sw.path() + "/tarn/boot-config").c_str());
      if (!c.bootConfig.empty()) sw.file("tarn/boot-config", c.bootConfig);
      auto d = report(R"("tarn/pcrConfig/status": {"requiredPcrBankFilePath": "vexo/required",
                            "configuredPcrBankFilePath": "tarn/boot-config", "errorLogFilePath": "tarn/errors.log"},
                         "tarn/sb/status": {"enabledPcrBank": ["sha256"]})",
                      c.script);
      auto const &pcr = d["entities"]["tarn/pcrConfig/status"];
      EXPECT_EQ(compact(pcr["requiredPcrBank"]), R"(["sha256","sha384"])");
      Strings configured;
      for (auto const &b : pcr["configuredPcrBank"].GetArray()) configured.push_back(b.GetString());
      EXPECT_EQ(configured, c.configured);
      EXPECT_TRUE(pcr["requiredPcrNotConfigured"].GetBool());
      EXPECT_TRUE(pcr["requiredPcrNotEnabled"].GetBool());
      EXPECT_TRUE(pcr["pcrConfigFoundOnTpm12"].GetBool());
      EXPECT_EQ(logTexts(d), c.logs);
      Strings got;
      for (auto const &t : d["trace"].GetArray()) {
         if (t["level"].GetInt() == 2 && String(t["function"].GetString()).find("Pcr") != String::npos) {
            got.push_back(t["text"].GetString());
         }
      }
      EXPECT_EQ(got, c.traces);
   }
}

TEST_F(EndToEnd, FirstInstructionSecurityOnIntelAndAmd) {
   // The register file of processor 0: MSR 0x13A is the 8 bytes at that offset.
   auto msr = [](std::uint64_t reg) {
      String image(0x13A, '\0');
      for (int i = 0; i < 8; ++i) image += static_cast<char>((reg >> (8 * i)) & 0xff);
      return image;
   };
   auto psb = [](std::size_t size, char modelRevision, char flags) {
      String image(size, '\x5a');  // nothing but bytes 73 and 75 is examined
      if (size > 75) image[73] = modelRevision, image[75] = flags;
      return image;
   };
   String const devHash = "a71ccf391616919449c7e2368b42002ca8cabfe19012cb0bb6692949a6309e3c";
   struct Case {
      char const *name;
      String vendor;
      std::optional<String> msr, psb;  // files in the system root
      String fuseStatus, keyHash;
      bool supported, systemFused, verifiedboot, measuredboot, devConfig;
      String vendorSpecific, trace;
      bool bootGuardUtilRan;
   };
   std::vector<Case> const cases{
      {"Intel, everything on, development key", "GenuineIntel", msr(0x100000060), std::nullopt, "True", devHash,
       true, true, true, true, true, R"({"string":")" + devHash + R"("})", "Logging CPU vendor ID: GenuineIntel",
       true},
      {"Intel without the msr driver", "GenuineIntel", std::nullopt, std::nullopt, "True", devHash, false, false,
       false, false, false, R"({"string":""})", "Cannot open /dev/cpu/0/msr", false},
      {"AMD, fused, development configuration", "AuthenticAMD", std::nullopt, psb(80, '\x2a', '\x13'), "", "",
       true, true, true, false, true, R"({"modelRevisionId":{"upperNibble":2,"lowerNibble":10}})", "", false},
      {"AMD without the variable", "AuthenticAMD", std::nullopt, std::nullopt, "", "", false, false, false, false,
       false, R"({"modelRevisionId":{"upperNibble":0,"lowerNibble":0}})", "Cannot open EFI variable file", false},
      {"AMD, variable too small", "AuthenticAMD", std::nullopt, psb(79, '\x2a', '\x13'), "", "", false, false,
       false, false, false, R"({"string":""})",
       "Error, EFI variable file smaller than expected, Expected 80 bytes, but only 79 bytes were read", false},
   };
   String const calls = sw.path() + "/bootguard-calls";
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      std::filesystem::remove_all(sw.path() + "/root/dev");
      std::filesystem::remove_all(sw.path() + "/root/sys");
      std::filesystem::remove(calls);
      if (c.msr) sw.file("root/dev/cpu/0/msr", *c.msr);
      if (c.psb) sw.file("root/sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01", *c.psb);
      sw.script("bin/lscpu", "printf 'Architecture: x86_64\\nVendor ID:   " + c.vendor + "\\nModel name: x\\n'\n");
      sw.script("bin/BootGuardUtil", "echo \"$*\" >>'" + calls + "'\ncase \"$2\" in\n  --status) echo '" +
                                        c.fuseStatus + "' ;;\n  --key-hash) echo '" + c.keyHash + "' ;;\nesac\n");
      auto d = report("");
      auto const &fis = d["entities"]["sentrel/firstInstructionSecurity"];
      EXPECT_EQ(fis["cpuVendor"].GetString(), c.vendor);
      EXPECT_EQ(fis["supported"].GetBool(), c.supported);
      EXPECT_EQ(fis["systemFused"].GetBool(), c.systemFused);
      EXPECT_EQ(fis["verifiedbootEnabled"].GetBool(), c.verifiedboot);
      EXPECT_EQ(fis["measuredbootEnabled"].GetBool(), c.measuredboot);
      EXPECT_EQ(fis["devConfig"].GetBool(), c.devConfig);
      EXPECT_EQ(compact(fis["vendorSpecific"]), c.vendorSpecific);
      if (!c.trace.empty()) {
         EXPECT_TRUE(traced(d, c.trace)) << c.trace;
      }
      EXPECT_EQ(std::filesystem::exists(calls), c.bootGuardUtilRan);
      EXPECT_TRUE(d["stateMachines"]["firstInstructionSecurity"]["initialized"].GetBool());
   }
}

TEST_F(EndToEnd, ConfigurationCheckRunsAgainWhenAnInputBecomesReady) {
   String const run = "void Sentrel::CheckConfigurationStatusSm::checkConfigurationStatus()";
   String const notReady = "defaultSentrelStatus or sbStatus is not ready, skipping";
   struct Case {
      char const *name;
      String sb, defaults, script;
      Strings traces, logs;
   };
   String const sbReady = "set tarn/sb/status ready ", configReady = "set hardware/sentrel/config/sentrel configReady ";
   std::vector<Case> const cases{
      {"secure boot status becomes ready, again and again", R"("ready": false, "statusFlags": 1)",
       R"("secureBootEnabled": true, "measuredBootEnabled": true, "configReady": true)",
       sbReady + "true\n" + sbReady + "false\n" + sbReady + "true\n", {run, notReady, run, run, notReady, run},
       {kSecureBootOffWarning, kMeasuredBootOffWarning, kSecureBootOffWarning, kMeasuredBootOffWarning}},
      {"defaults become ready, then not", R"("ready": true, "statusFlags": 33)",
       R"("secureBootEnabled": true, "measuredBootEnabled": true, "configReady": false)",
       configReady + "true\n" + configReady + "false\n", {run, notReady, run, run, notReady},
       {kSecureBootOffWarning}},
      {"settings on against off defaults are only traced", R"("ready": true, "statusFlags": 65534)",
       R"("secureBootEnabled": false, "measuredBootEnabled": false, "configReady": true)",
       sbReady + "false\n" + sbReady + "true\n",
       {run, kSecureBootOnTrace, kMeasuredBootOnTrace, run, notReady, run, kSecureBootOnTrace, kMeasuredBootOnTrace},
       {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      auto d = report(R"("tarn/sb/status": {)" + c.sb + R"(}, "hardware/sentrel/config/sentrel": {)" + c.defaults +
                         "}",
                      c.script);
      EXPECT_EQ(tracesAbout(d, "checkConfigurationStatus"), c.traces);
      EXPECT_EQ(logTexts(d), c.logs);
      for (auto const &l : d["log"].GetArray()) EXPECT_STREQ(l["name"].GetString(), "SENTREL_WARNING");
      EXPECT_TRUE(d["stateMachines"]["checkConfigurationStatus"]["initialized"].GetBool());
   }
}

TEST_F(EndToEnd, TogglesTurnedOffInTheHostsOwnProcess) {
   TempDir off;
   off.file("SecureBoot.json", R"({"PcrMultibank": false})");
   off.file("Sentrel.json", R"({"SentrelMfgExpectedConfigCheck": false, "PlatformFirstInstructionSecurity": false})");
   off.file("Halyard.json", R"({"SentrelIma": false})");
   String const lscpuRan = sw.path() + "/lscpu-ran";
   sw.script("bin/lscpu", "touch '" + lscpuRan + "'\necho 'Vendor ID: GenuineIntel'\n");
   sw.file("vexo/required", "sha256\n");
   sw.file("tarn/boot-config", "PCRBANK=sha1\n");
   sw.file("tarn/errors.log", "REQUIRED_PCR_NOT_CONFIGURED\n");
   String const entities = R"("tarn/pcrConfig/status": {"requiredPcrBankFilePath": "vexo/required",
          "configuredPcrBankFilePath": "tarn/boot-config", "errorLogFilePath": "tarn/errors.log"},
      "tarn/sb/status": {"ready": false, "statusFlags": 1},
      "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "configReady": true})";
   String const script = "set tarn/sb/status ready true\n";
   for (bool viaOption : {true, false}) {
      SCOPED_TRACE(viaOption ? "--toggles, over an all-on environment" : "SENTREL_TOGGLES_DIR");
      std::filesystem::remove(lscpuRan);
      auto d = viaOption ? report(entities, script, {"--toggles", off.path()})
                         : report(entities, script, {}, off.path());
      auto const &sms = d["stateMachines"];
      EXPECT_TRUE(sms["integrityKeyring"].IsNull());
      EXPECT_TRUE(sms["integritySyslog"].IsNull());
      EXPECT_FALSE(sms["checkConfigurationStatus"]["initialized"].GetBool());
      EXPECT_TRUE(sms["tarnPcrConfigStatus"]["initialized"].GetBool());
      EXPECT_TRUE(sms["firstInstructionSecurity"]["initialized"].GetBool());
      EXPECT_TRUE(sms["measuredBootVersion"]["initialized"].GetBool());
      auto const &pcr = d["entities"]["tarn/pcrConfig/status"];
      EXPECT_EQ(compact(pcr["requiredPcrBank"]), "[]");
      EXPECT_EQ(compact(pcr["configuredPcrBank"]), "[]");
      EXPECT_FALSE(pcr["requiredPcrNotConfigured"].GetBool());
      EXPECT_STREQ(d["entities"]["sentrel/firstInstructionSecurity"]["cpuVendor"].GetString(), "");
      EXPECT_FALSE(std::filesystem::exists(lscpuRan));
      EXPECT_EQ(d["log"].Size(), 0u);  // neither the configuration check nor the PCR warning
      EXPECT_EQ(tracesAbout(d, "checkConfigurationStatus"), Strings{});
      EXPECT_EQ(tracesAbout(d, "readRequiredPcrBank"), Strings{});
   }
}

TEST_F(EndToEnd, BrokenPreconditionsAbortTheHost) {
   struct Case {
      char const *name;
      String vexo;  // the image's measured boot JSON
      String entities;
      Strings stderrHas;
   };
   String const mbv = R"("sentrel/measuredBootVersion": {"vexoVersionFilePath": "vexo.json"})";
   std::vector<Case> const cases{
      {"top level of the image's JSON is an array", R"([{"measuredBootVersion": "1.1"}])", mbv,
       {"Assertion `IsObject()' failed"}},
      {"the image's version is a number", R"({"measuredBootVersion": 1.1})", mbv, {"Assertion `IsString()' failed"}},
      {"no secure boot status", "{}", R"("tarn/sb/status": null)",
       {"null Ptr<Tarn::Secureboot::Status", "> dereferenced"}},
   };
   // The designed aborts leave no core files behind.
   rlimit core{};
   getrlimit(RLIMIT_CORE, &core);
   rlimit const noCore{0, core.rlim_max};
   setrlimit(RLIMIT_CORE, &noCore);
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      sw.file("vexo.json", c.vexo);
      auto r = run({"--state", sw.file("state.json", R"({"entities": {)" + c.entities + "}}")});
      EXPECT_EQ(r.exitCode, 128 + SIGABRT);
      EXPECT_EQ(r.out, "");
      for (auto const &s : c.stderrHas) EXPECT_NE(r.err.find(s), String::npos) << r.err;
   }
   setrlimit(RLIMIT_CORE, &core);
}
