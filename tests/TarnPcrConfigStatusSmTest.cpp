#include <filesystem>
#include <gtest/gtest.h>
#include <optional>

#include "Sentrel/TarnPcrConfigStatusSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Loom::StringSet;
using Strings = std::vector<String>;

namespace {

String const kNotConfigured = "REQUIRED_PCR_NOT_CONFIGURED", kNotEnabled = "REQUIRED_PCR_NOT_ENABLED",
             kTpm12 = "PCR_CONFIG_FOUND_ON_TPM12";
String const kSm = "void Sentrel::TarnPcrConfigStatusSm::";

// The PCR status entity of a seeded ledger, its three files in a temporary
// directory.
struct Pcr {
   TempDir dir;
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<Tarn::PcrConfig::Status> status = entityAt<Tarn::PcrConfig::Status>(*em, "tarn/pcrConfig/status");
   Ptr<Tarn::Secureboot::Status> sb = entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status");

   Pcr(String const &required, String const &configured, String const &errorLog, StringSet const &enabled = {}) {
      status->requiredPcrBankFilePathIs(dir.file("required", required));
      status->configuredPcrBankFilePathIs(dir.file("boot-config", configured));
      status->errorLogFilePathIs(dir.file("errors.log", errorLog));
      for (auto const &bank : enabled) sb->enabledPcrBankIs(bank);
   }
   Ptr<Sentrel::TarnPcrConfigStatusSm> run() const {
      return Sentrel::TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs(em, status, sb);
   }
   std::vector<bool> flags() const {
      return {status->requiredPcrNotConfigured(), status->requiredPcrNotEnabled(), status->pcrConfigFoundOnTpm12()};
   }
};

}  // namespace

// Required banks are every word; configured ones the first PCRBANK= line,
// split at "+" and kept exactly as written. The sets only grow, and a file
// that cannot be read leaves its set as it was.
TEST(TarnPcrConfigStatusSm, BankFilesAreReadAsWritten) {
   struct Case {
      std::optional<String> required, config;  // none: no file
      StringSet wantRequired, wantConfigured;  // besides "old"
      unsigned cannotOpen;                     // traces naming the required-bank file
   };
   std::vector<Case> const cases{
      {"sha256\nsha384\n", "A=1\nPCRBANK=sha1+sha256\nPCRBANK=sha384\n", {"sha256", "sha384"}, {"sha1", "sha256"}, 0},
      {"\tsha384\r\nsha256  sha256\n", "PCRBANK=sha256+\n", {"sha256", "sha384"}, {"sha256"}, 0},
      {"sha256 SHA1 sha1", "PCRBANK=+sha256\n", {"SHA1", "sha1", "sha256"}, {"", "sha256"}, 0},
      {"", "PCRBANK=\nPCRBANK=sha1\n", {}, {}, 0},
      {"", "PCRBANK=sha1+sha256\r\n", {}, {"sha1", "sha256\r"}, 0},
      {"", " PCRBANK=sha1\npcrbank=sha256\nPCRBANK\n", {}, {}, 0},
      {"sha256", std::nullopt, {"sha256"}, {}, 1},
      {std::nullopt, std::nullopt, {}, {}, 2},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.required.value_or("<absent>") + " / " + c.config.value_or("<absent>"));
      Pcr pcr(c.required.value_or(""), c.config.value_or(""), "");
      if (!c.required) std::filesystem::remove(pcr.dir.path() + "/required");
      if (!c.config) std::filesystem::remove(pcr.dir.path() + "/boot-config");
      pcr.status->requiredPcrBankIs("old");
      pcr.status->configuredPcrBankIs("old");
      Recorder rec;
      EXPECT_TRUE(pcr.run()->initialized());
      StringSet required = c.wantRequired, configured = c.wantConfigured;
      required.insert("old"), configured.insert("old");
      EXPECT_EQ(pcr.status->requiredPcrBank(), required);
      EXPECT_EQ(pcr.status->configuredPcrBank(), configured);
      EXPECT_EQ(rec.traceTexts(2), Strings(c.cannotOpen, "Cannot open " + pcr.dir.path() + "/required"));
   }
}

// A line sets the flag of the keyword it begins with; the flags decide the
// warnings, always in the order not configured, not enabled, TPM 1.2, and
// the sets only name the banks concerned.
TEST(TarnPcrConfigStatusSm, ErrorLogKeywordsSetTheFlagsAndTheWarningsNameTheBanks) {
   struct Case {
      String required, config;
      StringSet enabled;
      String log;
      Strings found, reasons;  // keywords found, warnings logged
   };
   std::vector<Case> const cases{
      {"sha384\nsha256", "PCRBANK=sha1", {}, kNotConfigured + "_EXTRA\nother\n" + kNotConfigured + " sha1\n",
       {kNotConfigured, kNotConfigured}, {"Required PCR bank sha256 sha384 is not configured in PCRBANK"}},
      {"sha256 SHA384", "", {}, kNotConfigured, {kNotConfigured},
       {"Required PCR bank SHA384 sha256 is not configured in PCRBANK"}},
      {"sha256", "PCRBANK=sha256", {}, kNotConfigured, {kNotConfigured},
       {"Required PCR bank is not configured in PCRBANK"}},
      {"sha1 sha256 sha384", "PCRBANK=sha1+sha256+sha384", {"sha256"},
       kTpm12 + "\n" + kNotEnabled + " sha256\n" + kNotConfigured + "\n", {kTpm12, kNotEnabled, kNotConfigured},
       {"Required PCR bank is not configured in PCRBANK", "Required PCR bank sha1 sha384 is not currently enabled",
        "PCR bank boot-config found on TPM 1.2 system"}},
      {"sha256", "", {}, " " + kNotConfigured + "\nrequired_pcr_not_configured\nREQUIRED_PCR_NOT\nsha256 x\n", {}, {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.log);
      Pcr pcr(c.required, c.config, c.log, c.enabled);
      // An opened log clears what an earlier run found.
      pcr.status->requiredPcrNotConfiguredIs(true);
      pcr.status->requiredPcrNotEnabledIs(true);
      pcr.status->pcrConfigFoundOnTpm12Is(true);
      Recorder rec;
      pcr.run();
      auto const has = [&](String const &k) { return std::find(c.found.begin(), c.found.end(), k) != c.found.end(); };
      EXPECT_EQ(pcr.flags(), (std::vector<bool>{has(kNotConfigured), has(kNotEnabled), has(kTpm12)}));
      Strings traces, logs;
      for (auto const &k : c.found) traces.push_back(k + " error found");
      String const logging = "Logging PCR bank config warning due to required PCR bank not ";
      if (has(kNotConfigured)) traces.push_back(logging + "configured");
      if (has(kNotEnabled)) traces.push_back(logging + "enabled");
      if (has(kTpm12)) traces.push_back("Logging PCR config warning due to PCR bank config found on TPM 1.2 system");
      EXPECT_EQ(rec.traceTexts(2), traces);
      for (auto const &r : c.reasons) logs.push_back(kPcrWarningHead + r);
      EXPECT_EQ(rec.logTexts(), logs);
   }
}

TEST(TarnPcrConfigStatusSm, ALaterMachineWithoutErrorLogKeepsTheFlags) {
   Pcr pcr("sha256", "PCRBANK=sha256", kNotEnabled + "\n");
   pcr.run();
   std::filesystem::remove(pcr.dir.path() + "/errors.log");
   Recorder rec;
   EXPECT_TRUE(pcr.run()->initialized());
   EXPECT_EQ(pcr.flags(), (std::vector<bool>{false, true, false}));
   EXPECT_EQ(rec.traceTexts(2), Strings{"Cannot open Tarn PCR config error log file"});
   EXPECT_TRUE(rec.logs().empty());
   // No warning pass without a log.
   EXPECT_EQ(rec.traceTexts(7), (Strings{kSm + "handleInitialized()", kSm + "readRequiredPcrBank()",
                                         kSm + "readConfiguredPcrBank()", kSm + "checkPcrConfigErrorLog()"}));
}

TEST(PcrMultibankToggleOff, NothingIsReadOrTraced) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Pcr pcr("sha256", "PCRBANK=sha1", kNotConfigured + "\n");
   Recorder rec;
   EXPECT_TRUE(pcr.run()->initialized());
   EXPECT_TRUE(pcr.status->requiredPcrBank().empty());
   EXPECT_TRUE(pcr.status->configuredPcrBank().empty());
   EXPECT_FALSE(pcr.status->requiredPcrNotConfigured());
   EXPECT_EQ(rec.traceTexts(7), Strings{kSm + "handleInitialized()"});
   EXPECT_EQ(rec.traces().size(), 1u);
   EXPECT_TRUE(rec.logs().empty());
}
