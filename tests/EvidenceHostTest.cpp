// Measured boot evidence through the built host: a switch with a TPM 2.0,
// its event log written by the tests' writer, and the PCR values in sysfs.
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "TestSupport.h"

using namespace SentrelTest;
using namespace SentrelEvidence;
namespace fs = std::filesystem;
using Strings = std::vector<String>;

namespace {

char const kLog[] = "root/sys/kernel/security/tpm0/binary_bios_measurements";

// A switch whose TPM holds what `plan` replays to, in sysfs.
struct Switch {
   explicit Switch(LogPlan const &plan) {
      host.sw.file("root/sys/class/tpm/tpm0/tpm_version_major", "2\n");
      host.sw.file(kLog, writeEventLog(plan));
      for (auto const &[key, value] : replayedPcrs(plan)) pcr(tpmAlgorithm(key.first)->name, key.second, value);
   }
   void pcr(std::string_view bank, std::uint32_t index, String const &value) const {
      host.sw.file("root/sys/class/tpm/tpm0/pcr-" + String(bank) + "/" + std::to_string(index), hex(value) + "\n");
   }
   // What the JSON report says of the evidence, a line each: its sets, its
   // reasons and its warnings.
   String evidence(Strings args = {}, int exit = 0) const {
      args.insert(args.begin(), {"--live", "--format", "json"});
      auto const r = host.run(args);
      EXPECT_EQ(r.exitCode, exit) << r.err;
      auto const d = parseJson(r.out);
      auto const &e = d["entities"]["sentrel/measuredBootEvidence"];
      if (!e.IsObject()) return "absent\n";
      String out = String("format ") + e["eventLogFormat"].GetString() + ", " + std::to_string(e["eventCount"].GetUint()) +
                   " events\n";
      for (char const *set :
           {"logBank", "replayedBank", "mismatchedPcr", "unextendedBank", "unverifiedBank", "baselineDifference"}) {
         out += set + String(":");
         for (auto const &s : e[set].GetArray()) out += String(" ") + s.GetString();
         out += "\n";
      }
      for (auto const &g : d["diagnostics"].GetArray()) {
         if (g["entity"] == "sentrel/measuredBootEvidence") {
            out += String("why ") + g["attribute"].GetString() + ": " + g["reason"].GetString() + "\n";
         }
      }
      for (auto const &l : d["log"].GetArray()) {
         if (l["name"] == "MEASUREDBOOT_EVIDENCE_WARNING") out += String("warning: ") + l["text"].GetString() + "\n";
      }
      return out;
   }
   FakeSwitch host;
};

void expectLines(String const &got, Strings const &lines) {
   for (auto const &l : lines) EXPECT_NE(got.find(l), String::npos) << l << "\nin:\n" << got;
}

}  // namespace

TEST(EvidenceHost, ReplaysTheLogAgainstEveryBankOfTheTpm) {
   String const clean = "format crypto-agile, 14 events\nlogBank: sha1 sha256\nreplayedBank: sha1 sha256\n";
   auto remove = [](Switch &s, char const *path) { fs::remove_all(s.host.sw.path() + "/" + path); };
   auto log = [](Switch &s, LogPlan const &plan) { s.host.sw.file(kLog, writeEventLog(plan)); };
   // A bank's PCRs 0-7 all at `value`.
   auto bank = [](Switch &s, char const *name, String const &value) {
      for (std::uint32_t i = 0; i < 8; ++i) s.pcr(name, i, value);
   };
   LogPlan withPcr1000 = firmwareBoot(), sha1Layout = firmwareBoot();
   sha1Layout.format = EventLogFormat::Sha1;
   withPcr1000.events.push_back({1000, EV_IPL, "a PCR no TPM has", {}});
   String const end = std::to_string(writeEventLog(firmwareBoot()).size());
   struct Row {
      char const *name;
      std::function<void(Switch &)> change;
      Strings args, lines;
   } const rows[] = {
      {"clean", {}, {}, {clean + "mismatchedPcr:\nunextendedBank:\nunverifiedBank:\nbaselineDifference:\n"}},
      {"a PCR that differs", [](Switch &s) { s.pcr("sha256", 4, String(32, 'x')); }, {},
       {clean + "mismatchedPcr: sha256:4\nunextendedBank:\n",
        "warning: PCR sha256:4 does not match the firmware's event log replayed\n"}},
      {"a bank enabled that nothing extended", [&](Switch &s) { bank(s, "sha384", String(48, '\0')); }, {},
       {"unextendedBank: sha384\nunverifiedBank:\n",
        "warning: PCR bank sha384 is enabled on the TPM but the firmware never extended it\n"}},
      // Older firmware: a SHA-1 log on a TPM whose sha256 bank it extended too.
      {"a bank extended that the log does not carry", [&](Switch &s) { log(s, sha1Layout); }, {},
       {"format sha1, 13 events\nlogBank: sha1\nreplayedBank: sha1\nmismatchedPcr:\nunextendedBank:\n"
        "unverifiedBank: sha256\n"}},
      {"the kernel's folder of sm3_256", [&](Switch &s) { bank(s, "sm3", String(32, '\x5a')); }, {},
       {"unverifiedBank: sm3_256\n"}},
      {"an event on PCR 1000", [&](Switch &s) { log(s, withPcr1000); }, {},
       {"why eventLogFormat: /sys/kernel/security/tpm0/binary_bios_measurements: byte " + end + ": event 14 at byte " +
        end + ": its PCR index 1000 is past 23"}},
      {"a truncated log",
       [](Switch &s) { s.host.sw.file(kLog, slurp(s.host.sw.path() + "/" + kLog).substr(0, 300)); }, {},
       {"why eventLogFormat: /sys/kernel/security/tpm0/binary_bios_measurements: byte 2", "why baselineDifference: "}},
      {"an unreadable log",
       [&](Switch &s) { remove(s, kLog), fs::create_directories(s.host.sw.path() + "/" + kLog); }, {},
       {"why eventLogFormat: /sys/kernel/security/tpm0/binary_bios_measurements is a folder"}},
      {"no PCR files and no TPM to ask",
       [&](Switch &s) { remove(s, "root/sys/class/tpm/tpm0/pcr-sha1"), remove(s, "root/sys/class/tpm/tpm0/pcr-sha256"); },
       {"--tcti", "swtpm:host=127.0.0.1,port=1"},
       {"replayedBank:\n", "why replayedBank: cannot reach the TPM through swtpm:host=127.0.0.1,port=1",
        "why mismatchedPcr: cannot reach", "why unextendedBank: cannot reach", "why unverifiedBank: cannot reach"}},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      Switch s(firmwareBoot());
      if (row.change) row.change(s);
      auto const got = s.evidence(row.args);
      expectLines(got, row.lines);
      // Reasons where the row expects some, and only there.
      bool const broken = std::any_of(row.lines.begin(), row.lines.end(), [](auto const &l) { return l.starts_with("why"); });
      EXPECT_EQ(got.find("\nwhy ") != String::npos, broken) << got;
      // Warnings where the row names them, and only there: none for an unverified bank.
      bool const warned = std::any_of(row.lines.begin(), row.lines.end(), [](auto const &l) { return l.starts_with("warning"); });
      EXPECT_EQ(got.find("\nwarning: ") != String::npos, warned) << got;
   }
}

TEST(EvidenceHost, TheFleetBaselineNamesTheFirstEventThatDiffers) {
   TempDir dir;
   String const baseline = dir.path() + "/baseline.json";
   Switch(firmwareBoot()).evidence({"--write-baseline", baseline});
   // A record that is unique to each machine, marked so in the baseline.
   String text = slurp(baseline);
   auto const at = text.find("\"content_type\"", text.find("\"pcr\": 1,"));
   ASSERT_NE(at, String::npos) << text;
   dir.file("baseline.json", text.insert(at, "\"machine_unique\": true, "));
   String const grub = "4: event 4 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\debian\\grubx64.efi";
   struct Row {
      char const *name;
      LogPlan machine;
      String lines;
   } const rows[] = {
      {"the same boot", firmwareBoot(), "baselineDifference:\n"},
      {"a machine-unique event skipped", firmwareBoot("\\EFI\\BOOT\\BOOTX64.EFI", "\x02"), "baselineDifference:\n"},
      {"another boot application", firmwareBoot("\\EFI\\debian\\grubx64.efi"),
       "baselineDifference: " + grub + "\nwarning: PCR 4 differs from the baseline from " + grub.substr(3) + "\n"},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      auto const got = Switch(row.machine).evidence({"--baseline", baseline});
      expectLines(got, {row.lines});
      EXPECT_EQ(got.find("why"), String::npos) << got;
   }
   // People read the boot path as the firmware wrote it, one backslash a separator.
   auto const report = Switch(firmwareBoot("\\EFI\\debian\\grubx64.efi")).host.run({"--live", "--baseline", baseline});
   EXPECT_NE(report.out.find("  baselineDifference  " + grub + "\n"), String::npos) << report.out;
   EXPECT_NE(report.out.find("PCR 4 differs from the baseline from " + grub.substr(3) + "\n"), String::npos)
      << report.out;
}

TEST(EvidenceHost, NoTpm2NoEvidenceAndACollectedLogStandsAlone) {
   Switch s(firmwareBoot());
   fs::remove_all(s.host.sw.path() + "/root/sys/class/tpm");
   EXPECT_EQ(s.evidence(), "absent\n");
   // A collected log on a machine without a TPM: replayed, its PCRs unknown.
   s.host.sw.file("collected.log", writeEventLog(firmwareBoot()));
   expectLines(s.evidence({"--event-log", s.host.sw.path() + "/collected.log", "--tcti", "swtpm:host=127.0.0.1,port=1",
                           "--fail-on-unknown"},
                          4),
               {"format crypto-agile, 14 events\n", "why replayedBank: cannot reach the TPM"});
}
