#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Json.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

String const kSecureBoot = "sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
String const kPsbStatus = "sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
String const kDefaults = "etc/sentrel/defaults.json";
String const kBothOn = R"({"secureBootEnabled": true, "measuredBootEnabled": true})";
String const kOn("\x06\0\0\0\x01", 5), kOff("\x06\0\0\0\0", 5);
char const kIntel[] = "Vendor ID:           GenuineIntel";
char const kAmd[] = "Vendor ID:           AuthenticAMD";

// MSR 0x13A with bit 32 (Boot Guard present) and nothing else.
String bootGuardMsr() {
   String m(0x13A + 8, '\0');
   m[0x13A + 4] = 1;
   return m;
}

// A Linux host below a system root; a path ending in "/" is an empty folder.
class LiveHost {
 public:
   LiveHost(std::map<String, String> const &files, String const &lscpu) {
      for (auto const &[path, content] : files) {
         if (path.ends_with("/")) {
            std::filesystem::create_directories(sw.path() + "/root/" + path);
         } else {
            sw.file("root/" + path, content);
         }
      }
      std::filesystem::create_directories(sw.path() + "/bin");
      if (!lscpu.empty()) sw.script("bin/lscpu", "printf '%s\\n' '" + lscpu + "'\n");
   }

   // Only the fake commands are in PATH: a missing one is not found.
   HostRun run(std::vector<String> args) {
      args.insert(args.begin(), {"--sysroot", sw.path() + "/root", "--toggles", toggles.path()});
      return runHost(args, {"PATH=" + sw.path() + "/bin"});
   }

   String root() const { return sw.path() + "/root/"; }
   TempDir sw, toggles;
};

rapidjson::Document parse(String const &text) {
   rapidjson::Document d;
   d.Parse(text.c_str(), text.size());
   EXPECT_FALSE(d.HasParseError()) << text;
   return d;
}

String compact(rapidjson::Value const &v) {
   rapidjson::StringBuffer b;
   rapidjson::Writer<rapidjson::StringBuffer> w(b);
   v.Accept(w);
   return b.GetString();
}

// The diagnostics of the first-instruction facts and the inputs, as
// "entity attr,attr: reason [hint]", facts of one entity with the same
// reason joined (the files of the bootloader are this machine's, not the
// fixture's).
std::vector<String> reasons(rapidjson::Value const &diags, String const &only = "") {
   std::vector<String> out;
   String entity, reason;
   for (auto const &d : diags.GetArray()) {
      String const e = d["entity"].GetString();
      bool const wanted = only.empty() ? e == "sentrel/firstInstructionSecurity" || e.starts_with("tarn/sb") ||
                                            e.starts_with("hardware")
                                       : e == only;
      if (!wanted) continue;
      String const r = String(d["reason"].GetString()) + " [" + d["hint"].GetString() + "]";
      if (!out.empty() && e == entity && r == reason) {
         out.back().insert(out.back().find(':'), String(",") + d["attribute"].GetString());
      } else {
         out.push_back(e + " " + d["attribute"].GetString() + ": " + r);
      }
      entity = e, reason = r;
   }
   return out;
}

String const kFis = "sentrel/firstInstructionSecurity ";
String const kNoUefi = "not booted through UEFI: /sys/firmware/efi does not exist []";
String const kAllFacts = "supported,systemFused,verifiedbootEnabled,measuredbootEnabled,devConfig,vendorSpecific: ";

struct Case {
   char const *name;
   std::map<String, String> files;
   String lscpu;
   String sb;      // tarn/sb/status as filled
   bool defaults;  // the defaults entity exists (both on, ready)
   std::vector<String> warnings;
   std::vector<String> reasons;
};

std::map<String, String> const kUefi{{kSecureBoot, kOn}, {kDefaults, kBothOn}};
std::map<String, String> withUefi(std::map<String, String> more) {
   more.insert(kUefi.begin(), kUefi.end());
   return more;
}
String const kNoMeasuredBoot = R"({"supported":true,"ready":true,"statusFlags":0,"enabledPcrBank":[]})";

void expectRun(LiveHost &host, Case const &c) {
   auto r = host.run({"--format", "json"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   auto d = parse(r.out);
   EXPECT_EQ(compact(d["entities"]["tarn/sb/status"]), c.sb);
   EXPECT_EQ(compact(d["entities"]["hardware/sentrel/config/sentrel"]),
             c.defaults ? R"({"secureBootEnabled":true,"measuredBootEnabled":true,"configReady":true})" : "null");
   std::vector<String> warnings;
   for (auto const &l : d["log"].GetArray()) warnings.push_back(l["text"].GetString());
   EXPECT_EQ(warnings, c.warnings);
   EXPECT_EQ(reasons(d["diagnostics"]), c.reasons);
   EXPECT_EQ(d["trace"].Size(), 0u);  // level 2 was on for the reasons only
}

}  // namespace

TEST(LiveHost, FillsTheInputsFromTheSystemAndGivesAReasonForWhatItCouldNotRead) {
   std::vector<Case> const cases{
      {"UEFI, secure boot on, TPM 2.0 with sha1 and sha256",
       withUefi({{"sys/class/tpm/tpm0/tpm_version_major", "2\n"},
                 {"sys/class/tpm/tpm0/pcr-sha1/", ""},
                 {"sys/class/tpm/tpm0/pcr-sha256/", ""},
                 {"sys/kernel/security/tpm0/binary_bios_measurements", "log"}}),
       "Vendor ID: TestVendor",
       R"({"supported":true,"ready":true,"statusFlags":32,"enabledPcrBank":["sha1","sha256"]})",
       true, {}, {}},
      {"secure boot off, no TPM", {{kSecureBoot, kOff}, {kDefaults, kBothOn}}, "Vendor ID: TestVendor",
       R"({"supported":true,"ready":true,"statusFlags":1,"enabledPcrBank":[]})", true,
       {kSecureBootOffWarning, kMeasuredBootOffWarning}, {}},
      {"TPM 2.0 without bank folders, securityfs not mounted",
       withUefi({{"sys/class/tpm/tpm0/tpm_version_major", "2\n"}, {"sys/kernel/security/", ""}}),
       "Vendor ID: TestVendor", kNoMeasuredBoot, true, {kMeasuredBootOffWarning},
       {"tarn/sb/status statusFlags: measured boot state (bit 5) unknown: securityfs is not mounted at "
        "/sys/kernel/security [mount it: mount -t securityfs securityfs /sys/kernel/security]",
        "tarn/sb/status enabledPcrBank: the kernel lists no pcr-<algorithm> folders under /sys/class/tpm/tpm0 "
        "[Linux 5.12 and later list the PCR banks there]"}},
      {"not booted through UEFI, AMD", {{kDefaults, kBothOn}}, kAmd,
       R"({"supported":false,"ready":true,"statusFlags":0,"enabledPcrBank":[]})", true, {kMeasuredBootOffWarning},
       {kFis + "supported,systemFused,verifiedbootEnabled,devConfig,vendorSpecific: " + kNoUefi,
        "tarn/sb/status supported,statusFlags: " + kNoUefi}},
      {"efivarfs not mounted, AMD", {{"sys/firmware/efi/efivars/", ""}, {kDefaults, kBothOn}}, kAmd,
       R"({"supported":false,"ready":true,"statusFlags":0,"enabledPcrBank":[]})", true, {kMeasuredBootOffWarning},
       {kFis + "supported,systemFused,verifiedbootEnabled,devConfig,vendorSpecific: efivarfs is not mounted at "
               "/sys/firmware/efi/efivars [mount it: mount -t efivarfs efivarfs /sys/firmware/efi/efivars]",
        "tarn/sb/status supported,statusFlags: efivarfs is not mounted at /sys/firmware/efi/efivars [mount it: "
        "mount -t efivarfs efivarfs /sys/firmware/efi/efivars]"}},
      {"short PsbStatus", withUefi({{kPsbStatus, String(79, '\0')}}), kAmd, kNoMeasuredBoot, true,
       {kMeasuredBootOffWarning},
       {kFis + "supported,systemFused,verifiedbootEnabled,devConfig,vendorSpecific: the PsbStatus variable holds 79 "
               "bytes, not 80 []"}},
      {"virtual machine", withUefi({{"proc/cpuinfo", "processor\t: 0\nflags\t\t: fpu vme hypervisor lahf_lm\n"}}),
       kIntel, kNoMeasuredBoot, true,
       {kMeasuredBootOffWarning},
       {kFis + kAllFacts +
        "running in a virtual machine (the CPU flags include hypervisor): first-instruction security is the host's and is not "
        "visible here [run sentrel on the host itself]"}},
      {"no msr device", kUefi, kIntel, kNoMeasuredBoot, true, {kMeasuredBootOffWarning},
       {kFis + kAllFacts + "/dev/cpu/0/msr does not exist [load the msr kernel module: modprobe msr]"}},
      // Boot Guard present but neither verified nor measured boot: those two
      // are the platform's own answer and get no reason.
      {"BootGuardUtil missing", withUefi({{"dev/cpu/0/msr", bootGuardMsr()}}), kIntel, kNoMeasuredBoot, true,
       {kMeasuredBootOffWarning},
       {kFis + "systemFused,devConfig,vendorSpecific: BootGuardUtil is not installed (not found in PATH) []"}},
      {"lscpu missing", kUefi, "", kNoMeasuredBoot, true, {kMeasuredBootOffWarning},
       {kFis + "cpuVendor," + kAllFacts +
        "lscpu is not installed (not found in PATH) [install util-linux, which provides lscpu]"}},
      {"defaults absent", {{kSecureBoot, kOff}}, "Vendor ID: TestVendor",
       R"({"supported":true,"ready":true,"statusFlags":1,"enabledPcrBank":[]})", false, {},
       {"hardware/sentrel/config/sentrel : no manufacturing defaults (/etc/sentrel/defaults.json does not exist), "
        "so secure boot and measured boot were not compared with them [write them there, e.g. "
        R"({"secureBootEnabled": true, "measuredBootEnabled": true}, or give them with --state])"}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      LiveHost host(c.files, c.lscpu);
      expectRun(host, c);
   }
}

TEST(LiveHost, PermissionDeniedOnTheMsrDevice) {
   LiveHost host(withUefi({{"dev/cpu/0/msr", bootGuardMsr()}}), kIntel);
   String const msr = host.root() + "dev/cpu/0/msr";
   chmod(msr.c_str(), 0);
   if (access(msr.c_str(), R_OK) == 0) GTEST_SKIP() << "this user reads files without read permission";
   expectRun(host, {"msr not readable", {}, kIntel, kNoMeasuredBoot, true, {kMeasuredBootOffWarning},
                    {kFis + kAllFacts + "permission denied on /dev/cpu/0/msr [run as root]"}});
}

TEST(LiveHost, StateOverridesTheLiveInputsAndAloneLeavesThemUnfilled) {
   LiveHost host({{kSecureBoot, kOn}}, kIntel);
   String const state = host.sw.file("state.json", R"({"entities": {"tarn/sb/status": {"statusFlags": 32},
      "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "measuredBootEnabled": false,
                                          "configReady": true}}})");
   auto both = parse(host.run({"--live", "--state", state, "--format", "json"}).out);
   EXPECT_EQ(compact(both["entities"]["tarn/sb/status"]),
             R"({"supported":true,"ready":true,"statusFlags":32,"enabledPcrBank":[]})");
   EXPECT_EQ(both["log"].Size(), 0u);  // measured boot on, though not by default: only traced
   // The absent defaults came back from the state file, and took their reason with them.
   EXPECT_EQ(reasons(both["diagnostics"]),
             std::vector<String>{kFis + kAllFacts +
                                 "/dev/cpu/0/msr does not exist [load the msr kernel module: modprobe msr]"});

   // Its trace names the required-bank file whatever failed; a readable
   // error log without errors is no reason.
   host.sw.file("banks", "sha256\n");
   String const files = host.sw.file("files.json", R"({"entities": {"tarn/pcrConfig/status": {
      "requiredPcrBankFilePath": "banks", "configuredPcrBankFilePath": "missing", "errorLogFilePath": "banks"}}})");
   auto alone = parse(host.run({"--state", files, "--format", "json", "--trace", "7"}).out);
   EXPECT_EQ(reasons(alone["diagnostics"], "tarn/pcrConfig/status"),
             std::vector<String>{"tarn/pcrConfig/status configuredPcrBank: " + host.sw.path() +
                                 "/missing does not exist [set configuredPcrBankFilePath with --state if the file is "
                                 "elsewhere]"});
   EXPECT_FALSE(alone["entities"]["tarn/sb/status"]["supported"].GetBool());
   EXPECT_EQ(alone["trace"][0]["level"].GetInt(), 7);
   String const notCompared =
      ": not filled in, so secure boot and measured boot were not compared with the manufacturing defaults [run "
      "with --live, or give it with --state]";
   EXPECT_EQ(reasons(alone["diagnostics"]),
             (std::vector<String>{kFis + kAllFacts + "/dev/cpu/0/msr does not exist [load the msr kernel module: "
                                                     "modprobe msr]",
                                  "tarn/sb/status ready" + notCompared,
                                  "hardware/sentrel/config/sentrel configReady" + notCompared}));
}

TEST(LiveHost, TextReportShowsTheReasonUnderTheFact) {
   LiveHost host({{kSecureBoot, kOn}}, kIntel);
   auto r = host.run({});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find("  supported            false\n"
                        "                       why:  /dev/cpu/0/msr does not exist\n"
                        "                       hint: load the msr kernel module: modprobe msr\n"
                        "  systemFused          false\n"
                        "                       why:  as above\n"),
             String::npos)
      << r.out;
   EXPECT_NE(r.out.find("\nInputs:\n  hardware/sentrel/config/sentrel\n    why:  no manufacturing defaults"),
             String::npos)
      << r.out;
}

TEST(LiveHost, MalformedDefaultsFileIsAnUnusableInput) {
   LiveHost host({{kDefaults, R"({"secureBootEnabled": 1})"}}, kIntel);
   auto r = host.run({});
   EXPECT_EQ(r.exitCode, 2);
   EXPECT_EQ(r.out, "");
   EXPECT_EQ(r.err, "sentrel: /etc/sentrel/defaults.json: byte 22: secureBootEnabled: expected true or false, not "
                    "number\n");
}
