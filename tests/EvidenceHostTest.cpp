// Measured boot evidence through the built host: a switch with a TPM 2.0,
// its event log written by the tests' writer, and the PCR values in sysfs.
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "TestSupport.h"

using namespace SentrelTest;
using namespace SentrelEvidence;

namespace {

char const kLog[] = "root/sys/kernel/security/tpm0/binary_bios_measurements";

// A firmware's boot: the CRTM, a boot variable, the boot application and
// secure boot's configuration, then the separators.
LogPlan boot(String const &bootApplication = "\\EFI\\BOOT\\BOOTX64.EFI", String const &bootOrder = "\x01") {
   LogPlan s;
   s.startupLocality = 3;
   s.events = {{0, EV_S_CRTM_VERSION, utf16("1.07"), {}},
               {1, EV_EFI_VARIABLE_BOOT, uefiVariableData("BootOrder", bootOrder), {}},
               {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData(bootApplication), {}},
               {7, EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), {}}};
   for (std::uint32_t pcr = 0; pcr < 8; ++pcr) s.events.push_back({pcr, EV_SEPARATOR, String(4, '\0'), {}});
   return s;
}

struct Switch {
   FakeSwitch host;
   // The switch's TPM holds what `plan` replays to, in sysfs.
   explicit Switch(LogPlan const &plan) {
      host.sw.file("root/sys/class/tpm/tpm0/tpm_version_major", "2\n");
      host.sw.file(kLog, writeEventLog(plan));
      for (auto const &[key, value] : replayedPcrs(plan)) pcr(tpmAlgorithm(key.first)->name, key.second, value);
   }
   void pcr(std::string_view bank, std::uint32_t index, String const &value) const {
      host.sw.file("root/sys/class/tpm/tpm0/pcr-" + String(bank) + "/" + std::to_string(index), hex(value) + "\n");
   }
   rapidjson::Document report(std::vector<String> args = {}, int exit = 0) const {
      args.insert(args.begin(), {"--live", "--format", "json"});
      auto const r = host.run(args);
      EXPECT_EQ(r.exitCode, exit) << r.err;
      return parseJson(r.out);
   }
};

std::vector<String> strings(rapidjson::Value const &v) {
   std::vector<String> out;
   for (auto const &s : v.GetArray()) out.emplace_back(s.GetString());
   return out;
}

// The evidence's reasons and warnings, as "attribute: reason" and texts.
std::vector<String> reasons(rapidjson::Document const &d) {
   std::vector<String> out;
   for (auto const &g : d["diagnostics"].GetArray()) {
      if (String(g["entity"].GetString()) == "sentrel/measuredBootEvidence") {
         out.push_back(String(g["attribute"].GetString()) + ": " + g["reason"].GetString());
      }
   }
   return out;
}
std::vector<String> warnings(rapidjson::Document const &d) {
   std::vector<String> out;
   for (auto const &l : d["log"].GetArray()) {
      if (String(l["name"].GetString()) == "MEASUREDBOOT_EVIDENCE_WARNING") out.emplace_back(l["text"].GetString());
   }
   return out;
}

using Strings = std::vector<String>;

}  // namespace

TEST(EvidenceHost, ReplaysTheLogAgainstEveryBankOfTheTpm) {
   struct Row {
      char const *name;
      std::function<void(Switch &)> change;
      Strings args;
      Strings replayed, mismatched, unextended, reasonStarts, warningTexts;
   };
   Row const rows[] = {
      {"clean", {}, {}, {"sha1", "sha256"}, {}, {}, {}, {}},
      {"a PCR that differs",
       [](Switch &s) { s.pcr("sha256", 4, String(32, 'x')); }, {}, {"sha1", "sha256"}, {"sha256:4"}, {}, {},
       {"PCR sha256:4 does not match the firmware's event log replayed"}},
      {"a bank enabled but not in the log",
       [](Switch &s) { s.pcr("sha384", 0, String(48, '\0')); }, {}, {"sha1", "sha256"}, {}, {"sha384"}, {},
       {"PCR bank sha384 is enabled on the TPM but the firmware never extended it"}},
      {"a bank left at zero",
       [](Switch &s) {
          for (std::uint32_t i = 0; i < 8; ++i) s.pcr("sha1", i, String(20, '\0'));
       },
       {}, {"sha1", "sha256"}, {"sha1:0", "sha1:1", "sha1:2", "sha1:3", "sha1:4", "sha1:5", "sha1:6", "sha1:7"},
       {"sha1"}, {}, {}},
      {"a truncated log",
       [](Switch &s) {
          String const log = slurp(s.host.sw.path() + "/" + kLog);
          s.host.sw.file(kLog, log.substr(0, log.size() - 3));
       },
       {}, {}, {}, {}, {"eventLogFormat: /sys/kernel/security/tpm0/binary_bios_measurements: byte "}, {}},
      {"an unreadable log",
       [](Switch &s) {
          std::filesystem::remove(s.host.sw.path() + "/" + kLog);
          std::filesystem::create_directories(s.host.sw.path() + "/" + kLog);
       },
       {}, {}, {}, {}, {"eventLogFormat: /sys/kernel/security/tpm0/binary_bios_measurements is a folder"}, {}},
      {"no PCR files and no TPM to ask",
       [](Switch &s) { std::filesystem::remove_all(s.host.sw.path() + "/root/sys/class/tpm/tpm0/pcr-sha1"),
                       std::filesystem::remove_all(s.host.sw.path() + "/root/sys/class/tpm/tpm0/pcr-sha256"); },
       {"--tcti", "swtpm:host=127.0.0.1,port=1"}, {}, {}, {},
       {"replayedBank: ", "mismatchedPcr: ", "unextendedBank: "}, {}},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      Switch s(boot());
      if (row.change) row.change(s);
      auto args = row.args;
      auto const d = s.report(args);
      auto const &e = d["entities"]["sentrel/measuredBootEvidence"];
      ASSERT_TRUE(e.IsObject());
      EXPECT_EQ(strings(e["replayedBank"]), row.replayed);
      EXPECT_EQ(strings(e["mismatchedPcr"]), row.mismatched);
      EXPECT_EQ(strings(e["unextendedBank"]), row.unextended);
      auto const got = reasons(d);
      EXPECT_EQ(got.size() >= row.reasonStarts.size(), true) << ::testing::PrintToString(got);
      for (auto const &start : row.reasonStarts) {
         EXPECT_TRUE(std::any_of(got.begin(), got.end(), [&](String const &r) { return r.starts_with(start); }))
            << start << " in " << ::testing::PrintToString(got);
      }
      if (row.reasonStarts.empty()) {
         EXPECT_EQ(got, Strings{});
      }
      if (!row.warningTexts.empty()) {
         EXPECT_EQ(warnings(d), row.warningTexts);
      }
      if (row.reasonStarts.empty()) {
         EXPECT_STREQ(e["eventLogFormat"].GetString(), "crypto-agile");
         EXPECT_EQ(e["eventCount"].GetUint(), 14u);  // the header, the locality and twelve events
         EXPECT_EQ(strings(e["logBank"]), (Strings{"sha1", "sha256"}));
      }
   }
}

TEST(EvidenceHost, TheFleetBaselineNamesTheFirstEventThatDiffers) {
   TempDir dir;
   String const baseline = dir.path() + "/baseline.json";
   {
      Switch reference(boot());
      reference.report({"--write-baseline", baseline});
   }
   // A record that is unique to each machine, marked so in the baseline.
   String text = slurp(baseline);
   auto const at = text.find("\"content_type\"", text.find("\"pcr\": 1,"));
   ASSERT_NE(at, String::npos) << text;
   text.insert(at, "\"machine_unique\": true, ");
   dir.file("baseline.json", text);
   struct Row {
      char const *name;
      LogPlan machine;
      Strings differences;
   };
   Row const rows[] = {
      {"the same boot", boot(), {}},
      {"a machine-unique event skipped", boot("\\EFI\\BOOT\\BOOTX64.EFI", "\x02"), {}},
      {"another boot application", boot("\\EFI\\debian\\grubx64.efi"),
       {"4: event 4 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\debian\\grubx64.efi"}},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      Switch s(row.machine);
      auto const d = s.report({"--baseline", baseline});
      EXPECT_EQ(strings(d["entities"]["sentrel/measuredBootEvidence"]["baselineDifference"]), row.differences);
      EXPECT_EQ(reasons(d), Strings{});
      Strings expected;
      for (auto const &diff : row.differences) {
         expected.push_back("PCR 4 differs from the baseline from " + diff.substr(3));
      }
      EXPECT_EQ(warnings(d), expected);
   }
}

TEST(EvidenceHost, NoTpm2NoEvidenceAndACollectedLogStandsAlone) {
   FakeSwitch host;
   auto d = parseJson(host.run({"--live", "--format", "json"}).out);
   EXPECT_TRUE(d["entities"]["sentrel/measuredBootEvidence"].IsNull());
   // A collected log on a machine without a TPM: replayed, its PCRs unknown.
   host.sw.file("collected.log", writeEventLog(boot()));
   auto const r = host.run({"--live", "--format", "json", "--event-log", host.sw.path() + "/collected.log",
                            "--tcti", "swtpm:host=127.0.0.1,port=1", "--fail-on-unknown"});
   EXPECT_EQ(r.exitCode, 4) << r.err;
   d = parseJson(r.out);
   EXPECT_EQ(d["entities"]["sentrel/measuredBootEvidence"]["eventCount"].GetUint(), 14u);
   EXPECT_FALSE(reasons(d).empty());
}
