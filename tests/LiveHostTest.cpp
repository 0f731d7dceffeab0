#include <filesystem>
#include <gtest/gtest.h>
#include <map>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

String const kSecureBoot = "sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
String const kPsbStatus = "sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
String const kDefaults = "etc/sentrel/defaults.json";
String const kBothOn = R"({"secureBootEnabled": true, "measuredBootEnabled": true})";
String const kOn("\x06\0\0\0\x01", 5), kOff("\x06\0\0\0\0", 5);
String const kTpm2 = "sys/class/tpm/tpm0/tpm_version_major";
String const kEventLog = "sys/kernel/security/tpm0/binary_bios_measurements";
char const kIntel[] = "Vendor ID:           GenuineIntel";
char const kAmd[] = "Vendor ID:           AuthenticAMD";

// A Linux host below a system root (a path ending in "/" is an empty folder);
// only the fake commands are in PATH, so a missing one is not found.
struct LiveHost : FakeSwitch {
   LiveHost(std::map<String, String> const &files, String const &lscpu) {
      for (auto const &[path, content] : files) {
         if (path.ends_with("/")) std::filesystem::create_directories(sw.path() + "/root/" + path);
         else sw.file("root/" + path, content);
      }
      if (lscpu.empty()) std::filesystem::remove(sw.path() + "/bin/lscpu");
      else sw.script("bin/lscpu", "printf '%s\\n' '" + lscpu + "'\n");
   }
   HostRun run(std::vector<String> args, std::vector<String> env = {}) const {
      env.push_back("PATH=" + sw.path() + "/bin");
      return FakeSwitch::run(args, env);
   }
};

// The diagnostics as "entity attribute: reason [hint]".
std::vector<String> reasons(rapidjson::Value const &diags, String const &prefix = "") {
   std::vector<String> out;
   for (auto const &d : diags.GetArray()) {
      String const line = String(d["entity"].GetString()) + " " + d["attribute"].GetString() + ": " +
                          d["reason"].GetString() + " [" + d["hint"].GetString() + "]";
      if (line.starts_with(prefix)) out.push_back(line);
   }
   return out;
}

std::map<String, String> with(std::map<String, String> a, std::map<String, String> const &b) {
   a.insert(b.begin(), b.end());
   return a;
}

}  // namespace

// Known off, known on, or unknown: never guessed. Every row runs three
// times, plain and with each --fail-on option.
TEST(LiveHost, InputsAreOnOffOrUnknownAndOnlyTheKnownAreWarnedAbout) {
   std::map<String, String> const uefi{{"sys/firmware/efi/efivars/Boot0000-x", "x"}};
   std::map<String, String> const tpm2{{kTpm2, "2\n"}, {"sys/class/tpm/tpm0/pcr-sha256/", ""}};
   String const sbUnknown = "tarn/sb/status statusFlags: secure boot state (bit 0) unknown";
   String const mbUnknown = "tarn/sb/status statusFlags: measured boot state (bit 5) unknown";
   struct Case {
      char const *name;
      std::map<String, String> files;
      unsigned flags;
      bool supported;
      unsigned warnings;
      std::vector<String> unknown;  // prefixes of the input's reasons, in order
   };
   std::vector<Case> const cases{
      {"not UEFI, no TPM, defaults on", {{kDefaults, kBothOn}}, 1, false, 2, {}},
      {"UEFI without a SecureBoot variable", with(uefi, {{kDefaults, kBothOn}}), 1, false, 2, {}},
      {"secure boot on, TPM 2.0 with an event log", with(tpm2, {{kSecureBoot, kOn}, {kDefaults, kBothOn}, {kEventLog, "log"}}),
       32, true, 0, {}},
      {"secure boot off, partial defaults", {{kSecureBoot, kOff}, {kDefaults, R"({"secureBootEnabled": true})"}}, 1, true, 1,
       {}},
      {"efivarfs not mounted, defaults on", {{"sys/firmware/efi/efivars/", ""}, {kDefaults, kBothOn}}, 0, false, 1,
       {"tarn/sb/status supported: secure boot state (bit 0) unknown: efivarfs is not mounted", sbUnknown}},
      {"efivarfs not mounted, no defaults", {{"sys/firmware/efi/efivars/", ""}}, 1, false, 0,
       {"tarn/sb/status supported: secure boot state (bit 0) unknown", sbUnknown}},
      {"SecureBoot variable of the wrong size", {{kSecureBoot, String("\x06\0\0", 3)}, {kDefaults, kBothOn}}, 0, true, 1,
       {sbUnknown + ": the SecureBoot variable holds 3 bytes, not 5"}},
      {"TPM 2.0, securityfs not mounted, defaults on",
       with(tpm2, {{kSecureBoot, kOn}, {kDefaults, kBothOn}, {"sys/kernel/security/", ""}}), 32, true, 0,
       {mbUnknown + ": securityfs is not mounted at /sys/kernel/security"}},
      {"TPM 2.0 without an event log in a mounted securityfs",
       with(tpm2, {{kSecureBoot, kOn}, {kDefaults, kBothOn}, {"sys/kernel/security/ima/", ""}}), 0, true, 1, {}},
      {"TPM 2.0 without bank folders", {{kTpm2, "2"}, {kSecureBoot, kOn}, {kEventLog, "log"}}, 32, true, 0,
       {"tarn/sb/status enabledPcrBank: the kernel lists no pcr-<algorithm> folders"}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      LiveHost host(c.files, "Vendor ID: TestVendor");
      auto const r = host.run({"--format", "json"});
      ASSERT_EQ(r.exitCode, 0) << r.err;
      auto d = parseJson(r.out);
      auto const &sb = d["entities"]["tarn/sb/status"];
      EXPECT_EQ(sb["statusFlags"].GetUint(), c.flags);
      EXPECT_EQ(sb["supported"].GetBool(), c.supported);
      EXPECT_TRUE(sb["ready"].GetBool());
      EXPECT_EQ(d["log"].Size(), c.warnings);
      auto const found = reasons(d["diagnostics"], "tarn/sb/status");
      ASSERT_EQ(found.size(), c.unknown.size()) << ::testing::PrintToString(found);
      for (std::size_t i = 0; i < found.size(); ++i) EXPECT_TRUE(found[i].starts_with(c.unknown[i])) << found[i];
      // The first-instruction facts are unknown on every row (no msr), so
      // --fail-on-unknown alone always fails; a warning wins over it.
      EXPECT_EQ(host.run({"--fail-on-warning"}).exitCode, c.warnings ? 1 : 0);
      EXPECT_EQ(host.run({"--fail-on-unknown"}).exitCode, 4);
      EXPECT_EQ(host.run({"--fail-on-unknown", "--fail-on-warning"}).exitCode, c.warnings ? 1 : 4);
   }
}

// Every kind of reason, where the fact fails: fixture, then the reason and
// hint that must be reported for one fact.
TEST(LiveHost, EveryReasonKindNamesTheFactTheCauseAndWhatToDo) {
   String const fis = "sentrel/firstInstructionSecurity supported: ";
   String const bootGuard = [] {
      String m(0x13A + 8, '\0');
      m[0x13A + 4] = 1;  // Boot Guard present
      return m;
   }();
   struct Case {
      char const *name;
      std::map<String, String> files;  // below the system root
      String lscpu;
      String state;                    // members of --state's "entities"
      String expected;                 // prefix of one diagnostic line
   };
   std::vector<Case> const cases{
      {"no msr device, no module loading", {}, kIntel, {},
       fis + "/dev/cpu/0/msr does not exist [this kernel cannot load modules and has no msr driver built in]"},
      {"no msr device, modules load", {{"proc/modules", ""}}, kIntel, {},
       fis + "/dev/cpu/0/msr does not exist [load the msr kernel module: modprobe msr]"},
      {"msr too short", {{"dev/cpu/0/msr", "x"}}, kIntel, {},
       fis + "cannot read MSR 0x13A from /dev/cpu/0/msr: fewer than 8 bytes were read []"},
      {"lscpu missing", {}, "", {}, "sentrel/firstInstructionSecurity cpuVendor: lscpu is not installed (not found in "
                                    "PATH) [install util-linux, which provides lscpu]"},
      {"lscpu without vendor", {}, "Architecture: x86_64", {},
       "sentrel/firstInstructionSecurity cpuVendor: lscpu prints no \"Vendor ID:\" line []"},
      {"BootGuardUtil missing", {{"dev/cpu/0/msr", bootGuard}}, kIntel, {},
       "sentrel/firstInstructionSecurity systemFused: BootGuardUtil is not installed (not found in PATH) []"},
      {"no PsbStatus variable", {{kSecureBoot, kOn}}, kAmd, {},
       fis + "no PsbStatus variable: the firmware does not publish the Platform Secure Boot state []"},
      {"short PsbStatus", {{kPsbStatus, String(79, '\0')}}, kAmd, {}, fis + "the PsbStatus variable holds 79 bytes, not 80 []"},
      {"long PsbStatus", {{kPsbStatus, String(81, '\0')}}, kAmd, {}, fis + "the PsbStatus variable holds more than 80 bytes []"},
      {"virtual machine", {{"proc/cpuinfo", "processor\t: 0\nflags\t\t: fpu hypervisor\n"}}, kAmd, {},
       fis + "running in a virtual machine (the CPU flags include hypervisor): first-instruction security is the "
             "host's and is not visible here; not booted through UEFI"},
      {"features file missing", {}, kIntel, R"("tarn/features/status": {"featuresFilePath": "missing"})",
       "tarn/features/status featureRev: cannot open SW/missing: No such file or directory [set featuresFilePath if the "
       "file is elsewhere]"},
      {"version file empty", {}, kIntel, R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "empty"})",
       "sentrel/measuredBootVersion tarn: SW/empty is empty or its first line is 64 characters or longer []"},
      {"image version not JSON", {}, kIntel, R"("sentrel/measuredBootVersion": {"vexoVersionFilePath": "empty"})",
       "sentrel/measuredBootVersion vexo: SW/empty is not valid JSON: The document is empty. (byte 0) []"},
      {"image version without the member", {}, kIntel, R"("sentrel/measuredBootVersion": {"vexoVersionFilePath": "obj"})",
       "sentrel/measuredBootVersion vexo: SW/obj has no \"measuredBootVersion\" member []"},
      {"boot config missing", {}, kIntel, R"("tarn/pcrConfig/status": {"configuredPcrBankFilePath": "missing"})",
       "tarn/pcrConfig/status configuredPcrBank: cannot open SW/missing"},
      {"error log a folder", {}, kIntel, R"("tarn/pcrConfig/status": {"errorLogFilePath": "."})",
       "tarn/pcrConfig/status requiredPcrNotConfigured: SW/. is a folder"},
      {"defaults unreadable", {{kDefaults + "/", ""}}, kIntel, {},
       "hardware/sentrel/config/sentrel : manufacturing defaults unknown: /etc/sentrel/defaults.json is a folder"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      LiveHost host(c.files, c.lscpu);
      host.sw.file("empty", "");
      host.sw.file("obj", "{}");
      std::vector<String> args{"--format", "json"};
      String const state = R"({"entities": {)" + c.state + "}}";
      if (!c.state.empty()) args.insert(args.end(), {"--live", "--state", host.sw.file("state.json", state)});
      auto const r = host.run(args);
      ASSERT_EQ(r.exitCode, 0) << r.err;
      String expected = c.expected;
      if (auto at = expected.find("SW/"); at != String::npos) expected.replace(at, 2, host.sw.path());
      auto const found = reasons(parseJson(r.out)["diagnostics"]);
      EXPECT_TRUE(std::any_of(found.begin(), found.end(), [&](String const &f) { return f.starts_with(expected); }))
         << expected << "\nin\n" << ::testing::PrintToString(found);
   }
}

TEST(LiveHost, StateAloneLeavesTheInputsUnfilledAndSaysSo) {
   LiveHost host({}, kIntel);
   String const state = host.sw.file("s.json", R"({"entities": {}})");
   auto d = parseJson(host.run({"--state", state, "--format", "json"}).out);
   String const notCompared =
      ": not ready, so secure boot and measured boot were not compared with the manufacturing defaults []";
   EXPECT_EQ(reasons(d["diagnostics"], "tarn/sb"), std::vector<String>{"tarn/sb/status ready" + notCompared});
   EXPECT_EQ(reasons(d["diagnostics"], "hardware"),
             std::vector<String>{"hardware/sentrel/config/sentrel configReady" + notCompared});
}

TEST(LiveHost, TextReportAnswersTheOperatorsQuestions) {
   LiveHost host({{kSecureBoot, kOn}, {kTpm2, "2"}, {"sys/class/tpm/tpm0/pcr-sha1/", ""},
                  {"sys/class/tpm/tpm0/pcr-sha256/", ""}, {kDefaults, kBothOn}, {"sys/kernel/security/", ""}},
                 kIntel);
   auto r = host.run({});
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
   EXPECT_TRUE(r.out.ends_with("\n0 warnings, 18 unknown facts\n")) << r.out;
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
   auto const found = reasons(d["diagnostics"]);
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
