#include <filesystem>
#include <gtest/gtest.h>
#include <set>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

// A small switch whose bootloader files a state file names relative to itself;
// what the JSON report shows is proved by the host cases.
class HostTest : public testing::Test {
 protected:
   HostTest() { s.bootloaderFiles(); }
   HostRun run(std::vector<String> const &args, String const &input = "") { return s.run(args, {}, input); }
   FakeSwitch s;
};

}  // namespace

TEST_F(HostTest, ScriptFromStandardInputInTextFormat) {
   auto r = run({"--state", s.state(kInputs), "--script", "-"}, "invoke tarnFeature getRunningTarnVersion\n");
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_EQ(r.out.substr(0, 9), "Tarn=7.1\n");
   EXPECT_NE(r.out.find("  tarn                 2\n"), String::npos) << r.out;
   EXPECT_NE(r.out.find(String("  SENTREL_WARNING: Secure boot is currently disabled (default: enabled)\n")), String::npos);
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
                                         "SENTREL_WARNING", "MEASUREDBOOT_EVIDENCE_WARNING"}));
      EXPECT_TRUE(d["entities"]["sentrel/firstInstructionSecurity"]["systemFused"].GetBool());
      // One story: the inputs say what the TPM whose log is replayed has.
      auto const &sb = d["entities"]["tarn/sb/status"];
      EXPECT_EQ(sb["statusFlags"].GetUint() & 32, 32u) << "measured boot on";
      std::set<String> inputs, tpm;
      for (auto const &b : sb["enabledPcrBank"].GetArray()) inputs.insert(b.GetString());
      for (auto const &e : std::filesystem::directory_iterator(SENTREL_SOURCE_DIR "/examples/switch/" + String(variant) +
                                                                "/root/sys/class/tpm/tpm0")) {
         if (e.path().filename().string().starts_with("pcr-")) tpm.insert(e.path().filename().string().substr(4));
      }
      EXPECT_EQ(inputs, tpm);
      auto const &evidence = d["entities"]["sentrel/measuredBootEvidence"];
      for (char const *set : {"mismatchedPcr", "unextendedBank", "baselineDifference"}) {
         EXPECT_EQ(evidence[set].Size(), 1u) << set;
      }
   }
}
