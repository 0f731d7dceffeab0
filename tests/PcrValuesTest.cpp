#include <cctype>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"
#include "host/evidence/PcrValues.h"

using namespace SentrelTest;
using namespace SentrelEvidence;
using SentrelHost::readPcrValues;

namespace {

// Each bank's values, problem and hint, by name.
using Banks = std::map<String, std::tuple<std::map<std::uint32_t, String>, String, String>>;
using Pcrs = std::bitset<kPcrCount>;
constexpr std::chrono::seconds kDeadline{10};

String upper(String text) {
   for (char &c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
   return text;
}

void expectBanks(TpmPcrs const &v, Banks const &expected) {
   Banks got;
   for (auto const &[name, bank] : v.banks) {
      got[name] = {bank.values, bank.problem ? bank.problem->why : "", bank.problem ? bank.problem->hint : ""};
   }
   EXPECT_EQ(got, expected);
}

// A software TPM with the sha1 and sha256 banks, and no sysfs PCR files:
// the TPM is asked.
struct PcrValuesSwtpm : ::testing::Test {
   void SetUp() override {
      if (!tpm.running()) GTEST_SKIP() << tpm.failure();
      if (Loom::runCommandForOutput("command -v tpm2_pcrextend").exitCode) GTEST_SKIP() << "tpm2-tools is missing";
      Loom::sysrootIs(root.path());
   }
   void TearDown() override { Loom::sysrootIs(""); }
   SoftwareTpm tpm;
   TempDir root;
};

}  // namespace

TEST(PcrValuesSysfs, ValuesAndTheProblemOfEachBank) {
   String const sha1 = hashOf(kAlgSha1, "pcr 0"), sha256 = hashOf(kAlgSha256, "pcr 7");
   String const pcrs = "/sys/class/tpm/tpm0/pcr-";
   // The files below .../pcr-, the PCRs wanted, each enabled bank's values, problem and hint.
   std::vector<std::tuple<std::map<String, String>, Pcrs, Banks>> const cases{
      // The kernel's upper-case hex and newline, or neither; a missing file leaves the others read.
      {{{"sha1/0", hex(sha1)}, {"sha1/5", hex(sha1)}, {"sha1/7", hex(sha1)},
        {"sha256/7", upper(hex(sha256)) + "\n"}},
       Pcrs(1 << 0 | 1 << 5 | 1 << 7),
       {{"sha1", {{{0, sha1}, {5, sha1}, {7, sha1}}, "", ""}},
        {"sha256", {{{7, sha256}}, "cannot open " + pcrs + "sha256/0: No such file or directory", ""}}}},
      // A NUL, two hex digits too many or too few, a file too large; the
      // kernel's folder of sm3_256 is pcr-sm3.
      {{{"sha1/0", String(20, '0') + '\0' + String(19, '0')}, {"sha256/0", hex(sha256) + "00\n"},
        {"sm3/0", hex(sha256).substr(2) + "\n"}, {"sha512/0", String(1000, '0')}, {"sm3/1", hex(sha256)}},
       Pcrs(1 << 0 | 1 << 1),
       {{"sha1", {{}, pcrs + "sha1/0 holds characters other than hex digits, not 40 hex digits", ""}},
        {"sha256", {{}, pcrs + "sha256/0 holds 66 characters, not 64 hex digits", ""}},
        {"sm3_256", {{{1, sha256}}, pcrs + "sm3/0 holds 62 characters, not 64 hex digits", ""}},
        {"sha512", {{}, pcrs + "sha512/0 larger than 256 bytes", ""}}}},
   };
   for (auto const &[files, wanted, banks] : cases) {
      TempDir root;
      Loom::sysrootIs(root.path());
      for (auto const &[name, content] : files) root.file(pcrs.substr(1) + name, content);
      TpmPcrs const v = readPcrValues(wanted, {kAlgSha1}, std::nullopt, kDeadline);
      EXPECT_FALSE(v.enabledBanksUnknown);
      expectBanks(v, banks);
   }
   Loom::sysrootIs("");
}

TEST(PcrValuesUnreachableTpm, WhyItCannotBeReachedIsEachLogBanksProblem) {
   TempDir root;
   Loom::sysrootIs(root.path());
   // A kernel older than 5.12 has the TPM's folder but no PCR files.
   root.file("sys/class/tpm/tpm0/tpm_version_major", "2\n");
   int s = -1;
   String const closed = "swtpm:host=127.0.0.1,port=" + std::to_string(freeLoopbackPort(&s)), dir = root.path();
   // The TCTI named, the problem and the hint.
   std::vector<std::tuple<std::optional<String>, String, String>> const cases{
      {closed, "cannot reach the TPM through " + closed + ": tcti:IO failure (0x000a000a)", ""},
      {std::nullopt, "cannot reach the TPM through device:/dev/tpmrm0: /dev/tpmrm0 does not exist",
       "load the TPM driver (tpm_tis or tpm_crb)"},
      {"device:" + dir, "cannot reach the TPM through device:" + dir + ": " + dir + " is a folder, not a file", ""},
      // Reached, but it ends without answering: no command is sent after that one.
      {"cmd:sleep 1",
       "cannot read the TPM's PCR allocation through cmd:sleep 1: tcti:Response is malformed (0x000a0011)", ""},
   };
   for (auto const &[tcti, problem, hint] : cases) {
      TpmPcrs const v = readPcrValues(Pcrs(3), {kAlgSha1, kAlgSha256}, tcti, kDeadline);
      ASSERT_TRUE(v.enabledBanksUnknown);
      EXPECT_EQ(v.enabledBanksUnknown->why, problem);
      EXPECT_EQ(v.enabledBanksUnknown->hint, hint);
      expectBanks(v, {{"sha1", {{}, problem, hint}}, {"sha256", {{}, problem, hint}}});
   }
   close(s);
   Loom::sysrootIs("");
}

TEST_F(PcrValuesSwtpm, ValuesOfEveryEnabledBankAreReadEightAtATime) {
   Pcrs const pcrs(0x1ffff);  // 0-16: three commands a bank
   std::map<String, std::map<std::uint32_t, String>> values;
   String command = "tpm2_pcrextend -T " + tpm.tcti();
   for (std::uint32_t i = 0; i < 17; ++i) {
      String const event = "event " + std::to_string(i);
      String const d1 = hashOf(kAlgSha1, event), d256 = hashOf(kAlgSha256, event);
      values["sha1"][i] = hashOf(kAlgSha1, String(20, '\0') + d1);
      values["sha256"][i] = hashOf(kAlgSha256, String(32, '\0') + d256);
      command += " " + std::to_string(i) + ":sha1=" + hex(d1) + ",sha256=" + hex(d256);
   }
   auto const r = Loom::runCommandForOutput(command + " 2>&1");
   ASSERT_EQ(r.exitCode, 0) << r.output;
   // The TPM's banks, whatever the log's.
   TpmPcrs const v = readPcrValues(pcrs, {kAlgSha384}, tpm.tcti(), kDeadline);
   EXPECT_FALSE(v.enabledBanksUnknown);
   expectBanks(v, {{"sha1", {values["sha1"], "", ""}}, {"sha256", {values["sha256"], "", ""}}});
}
