#include <filesystem>
#include <gtest/gtest.h>

#include "TestSupport.h"

using namespace SentrelTest;

// What the JSON report shows of the live inputs and their reasons is proved by
// the host cases; here are the text report and the toggles turned off.

TEST(LiveHost, TextReportAnswersTheOperatorsQuestions) {
   FakeSwitch host;
   host.sw.script("bin/lscpu", "printf 'Vendor ID: GenuineIntel\\n'\n");
   host.sw.file("root/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c", String("\x06\0\0\0\x01", 5));
   host.sw.file("root/sys/class/tpm/tpm0/tpm_version_major", "2");
   host.sw.file("root/etc/sentrel/defaults.json", R"({"secureBootEnabled": true, "measuredBootEnabled": true})");
   for (char const *folder : {"sys/class/tpm/tpm0/pcr-sha1", "sys/class/tpm/tpm0/pcr-sha256", "sys/kernel/security"}) {
      std::filesystem::create_directories(host.sw.path() + "/root/" + folder);
   }
   // Only the fake commands: BootGuardUtil is not found.
   auto r = host.run({}, {"PATH=" + host.sw.path() + "/bin"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find("  supported            false\n"
                        "                       why:  /dev/cpu/0/msr does not exist\n"),
             String::npos)
      << r.out;
   EXPECT_NE(r.out.find("\nInputs:\n"
                        "  secure boot             on\n"
                        "  measured boot           unknown\n"
                        "                          why:  measured boot state (bit 5) unknown: securityfs is not "
                        "mounted at /sys/kernel/security\n"
                        "                          hint: mount it: mount -t securityfs securityfs /sys/kernel/security\n"
                        "  enabled PCR banks       sha1, sha256\n"
                        "  manufacturing defaults  secure boot on, measured boot on\n"),
             String::npos)
      << r.out;
   EXPECT_TRUE(r.out.ends_with("\n0 warnings, 26 unknown facts\n")) << r.out;
}

// Runs with every toggle off (tests/toggles/all-off): the facts left empty
// name the toggle and its file, and the report lists the toggles.
TEST(LiveHostToggleOff, FactsLeftEmptyByAToggleSayWhich) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   String const dir = std::getenv("SENTREL_TOGGLES_DIR");
   TempDir root;
   auto const r = runHost({"--sysroot", root.path(), "--format", "json"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   auto d = parseJson(r.out);
   std::vector<String> found;
   for (auto const &g : d["diagnostics"].GetArray()) {
      found.push_back(String(g["entity"].GetString()) + " " + g["attribute"].GetString() + ": " + g["reason"].GetString() +
                      " [" + g["hint"].GetString() + "]");
   }
   for (String const &expected :
        {"sentrel/firstInstructionSecurity cpuVendor: the feature toggle PlatformFirstInstructionSecurity is off (" +
            dir + "/Sentrel.json) []",
         "tarn/pcrConfig/status requiredPcrBank: the feature toggle PcrMultibank is off (" + dir +
            "/SecureBoot.json) []"}) {
      EXPECT_NE(std::find(found.begin(), found.end(), expected), found.end()) << expected;
   }
   EXPECT_FALSE(d["toggles"]["PcrMultibank"].GetBool());
   EXPECT_FALSE(d["toggles"]["SentrelIma"].GetBool());
   auto const text = runHost({"--sysroot", root.path()});
   EXPECT_NE(text.out.find("\nToggles not at their default:\n  PcrMultibank off (" + dir + "/SecureBoot.json)\n"),
             String::npos)
      << text.out;
}
