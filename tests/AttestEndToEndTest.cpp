// The owner's verifier against the switch's service, both built programs:
// sentrel-attestd serving a software TPM whose PCRs a firmware's log
// extended, sentrel-verify judging it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "tests/AttestdProcess.h"
#include "tests/SoftwareQuote.h"
#include "tests/ToolsExtend.h"

using namespace SentrelTest;
using SentrelEvidence::kAlgSha256;

namespace {

constexpr char const *kBiosLog = "sys/kernel/security/tpm0/binary_bios_measurements";

struct VerifyRun {
   int exitCode;
   String out, err;
};

VerifyRun runVerify(std::vector<String> const &args) {
   TempDir io;
   String cmd = SENTREL_VERIFY_PATH;
   for (auto const &a : args) cmd += " '" + a + "'";
   cmd += " </dev/null >" + io.path() + "/out 2>" + io.path() + "/err";
   int const status = std::system(cmd.c_str());
   return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(io.path() + "/out"),
           slurp(io.path() + "/err")};
}

// A switch: a software TPM extended as its firmware's log says, the log
// where the kernel shows it, the DMI identity, an attestation key made by
// the service itself; the service started and stopped as the test says.
struct AttestedSwitch : ::testing::Test {
   void SetUp() override {
      if (!tpm.running()) GTEST_SKIP() << tpm.failure();
      if (Loom::runCommandForOutput("command -v tpm2_pcrextend").exitCode != 0) GTEST_SKIP() << "tpm2-tools is missing";
      String said;
      ASSERT_TRUE(extendWithTools(tpm.tcti(), plan, said)) << said;
      root.file(kBiosLog, writeEventLog(plan));
      root.file("sys/class/dmi/id/sys_vendor", "Example Networks\n");
      root.file("sys/class/dmi/id/product_name", "EX-4832\n");
      root.file("sys/class/dmi/id/product_serial", "EXN2047A0193\n");
      auto const made = Loom::runCommandForOutput(String(SENTREL_ATTESTD_PATH) + " --tcti '" + tpm.tcti() +
                                                  "' --create-ak 2>" + dir.path() + "/create.err");
      ASSERT_EQ(made.exitCode, 0) << slurp(dir.path() + "/create.err");
      // The PEM key and its TPM name, as the owner keeps them.
      ak = dir.file("leaf1.pem", made.output);
      baseline = dir.file("baseline.json", bootOf(plan, kAlgSha256).eventLog);
   }
   std::unique_ptr<AttestdProcess> start() {
      auto d = std::make_unique<AttestdProcess>(SENTREL_ATTESTD_PATH,
                                                std::vector<String>{"--tcti", tpm.tcti(), "--sysroot", root.path()},
                                                dir.path() + "/attestd.log");
      EXPECT_TRUE(d->serving()) << slurp(dir.path() + "/attestd.log");
      return d;
   }
   SoftwareTpm tpm{"sha256"};
   LogPlan const plan = smallBoot();
   TempDir root, dir;
   String ak, baseline;
};

}  // namespace

TEST_F(AttestedSwitch, TrustedAloneAndBesideADeadSwitchThenUntrustedOnceAPcrMovesOn) {
   {
      auto const attestd = start();
      VerifyRun const r =
         runVerify({"--ak", ak, "--baseline", baseline, "--target", "leaf1=" + attestd->address(), "--format", "json"});
      EXPECT_EQ(r.exitCode, 0) << r.out << r.err << slurp(dir.path() + "/attestd.log");
      auto const report = parseJson(r.out);
      ASSERT_TRUE(report.IsObject()) << r.out;
      auto const &leaf1 = report["switches"][0];
      EXPECT_STREQ(leaf1["verdict"].GetString(), "trusted") << leaf1["reason"].GetString();
      EXPECT_STREQ(leaf1["evidence"]["replayedBank"][0].GetString(), "sha256");
      EXPECT_EQ(leaf1["evidence"]["eventCount"].GetUint(), 15u);
      EXPECT_EQ(leaf1["evidence"]["baselineDifference"].Size(), 0u);

      // A live switch and a dead one: each its verdict, the run exits 4.
      int held = -1;
      std::uint16_t const dead = freeLoopbackPort(&held);
      VerifyRun const both = runVerify({"--ak", ak, "--baseline", baseline, "--target", "leaf1=" + attestd->address(),
                                        "--target", "leaf2=127.0.0.1:" + std::to_string(dead), "--timeout", "5"});
      close(held);
      EXPECT_EQ(both.exitCode, 4) << both.out << both.err;
      EXPECT_NE(both.out.find("leaf1  " + attestd->address() + "\n  verdict               trusted\n"), String::npos)
         << both.out;
      EXPECT_NE(both.out.find("\n  verdict               unreachable\n  reason                UNAVAILABLE: "),
                String::npos)
         << both.out;
      EXPECT_TRUE(both.out.ends_with("1 trusted, 0 untrusted, 1 unreachable\n")) << both.out;
      EXPECT_EQ(attestd->stop(), 0) << slurp(dir.path() + "/attestd.log");
   }
   // Something the log does not tell of is measured into PCR 4.
   String said;
   LogPlan more{.banks = {kAlgSha256}};
   more.events.push_back({4, SentrelEvidence::EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\evil.efi"), {}});
   ASSERT_TRUE(extendWithTools(tpm.tcti(), more, said)) << said;
   auto const attestd = start();
   VerifyRun const r = runVerify({"--ak", ak, "--baseline", baseline, "--target", "leaf1=" + attestd->address()});
   EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
   EXPECT_NE(r.out.find("  verdict               untrusted\n"
                        "  reason                check 5 (event log): PCR sha256:4 does not bear out the log\n"
                        "  event log             crypto-agile, 15 events, banks sha256; replayed sha256\n"
                        "  mismatched PCR        sha256:4\n"),
             String::npos)
      << r.out;
}
