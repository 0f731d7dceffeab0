#include <filesystem>
#include <gtest/gtest.h>

#include "Sentrel/TarnPcrConfigStatusSm.h"
#include "Sentrel/platform/Toggle.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Loom::StringSet;

namespace {

// The PCR status entity of a seeded ledger, its three files in a temporary
// directory.
struct Pcr {
   TempDir dir;
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<Tarn::PcrConfig::Status> status = entityAt<Tarn::PcrConfig::Status>(*em, "tarn/pcrConfig/status");
   Ptr<Tarn::Secureboot::Status> sb = entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status");
   String required = dir.path() + "/required";
   String configured = dir.path() + "/boot-config";
   String errorLog = dir.path() + "/errors.log";

   Pcr(String const &requiredText, String const &configuredText, String const &errorLogText,
       StringSet const &enabled = {}) {
      status->requiredPcrBankFilePathIs(dir.file("required", requiredText));
      status->configuredPcrBankFilePathIs(dir.file("boot-config", configuredText));
      status->errorLogFilePathIs(dir.file("errors.log", errorLogText));
      for (auto const &bank : enabled) sb->enabledPcrBankIs(bank);
   }
   Ptr<Sentrel::TarnPcrConfigStatusSm> run() const {
      return Sentrel::TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs(em, status, sb);
   }
   std::vector<bool> flags() const {
      return {status->requiredPcrNotConfigured(), status->requiredPcrNotEnabled(),
              status->pcrConfigFoundOnTpm12()};
   }
   void setAllFlags() const {
      status->requiredPcrNotConfiguredIs(true);
      status->requiredPcrNotEnabledIs(true);
      status->pcrConfigFoundOnTpm12Is(true);
   }
};

}  // namespace

TEST(TarnPcrConfigStatusSm, ConfiguredBanksComeFromTheFirstPcrbankLineSplitAtPlus) {
   struct Case {
      String config;
      StringSet want;
   };
   std::vector<Case> const cases{
      {"A=1\nPCRBANK=sha1+sha256\nPCRBANK=sha384\n", {"sha1", "sha256"}},
      {"PCRBANK=sha256+\n", {"sha256"}},
      {"PCRBANK=+sha256\n", {"", "sha256"}},
      {"PCRBANK=sha1++sha256", {"", "sha1", "sha256"}},
      {"PCRBANK=\nPCRBANK=sha1\n", {}},
      {"PCRBANK=sha1+sha256\r\n", {"sha1", "sha256\r"}},
      {"PCRBANK= sha256 \n", {" sha256 "}},
      {" PCRBANK=sha1\npcrbank=sha256\nPCRBANK\n", {}},
      {"", {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.config);
      Pcr pcr("", c.config, "");
      Recorder rec;
      EXPECT_TRUE(pcr.run()->initialized());
      EXPECT_EQ(pcr.status->configuredPcrBank(), c.want);
      EXPECT_TRUE(rec.traceTexts(2).empty());
   }
}

TEST(TarnPcrConfigStatusSm, RequiredBanksAreEveryWord) {
   struct Case {
      String required;
      StringSet want;
   };
   std::vector<Case> const cases{
      {"sha256\nsha384\n", {"sha256", "sha384"}},
      {"sha256  sha384", {"sha256", "sha384"}},
      {"\tsha384\r\nsha256 sha256\n", {"sha256", "sha384"}},
      {"sha256 SHA1 sha1", {"SHA1", "sha1", "sha256"}},
      {"", {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.required);
      Pcr pcr(c.required, "", "");
      pcr.run();
      EXPECT_EQ(pcr.status->requiredPcrBank(), c.want);
   }
}

TEST(TarnPcrConfigStatusSm, UnreadableBankFilesNameTheRequiredBankFileAndLeaveTheSetsAsTheyWere) {
   struct Case {
      bool requiredMissing;
      StringSet wantRequired;
      StringSet wantConfigured;
   };
   std::vector<Case> const cases{
      {true, {"old"}, {"old"}},
      {false, {"old", "sha256"}, {"old"}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.requiredMissing);
      Pcr pcr("sha256", "PCRBANK=sha1", "REQUIRED_PCR_NOT_ENABLED");
      pcr.status->requiredPcrBankIs("old");
      pcr.status->configuredPcrBankIs("old");
      std::filesystem::remove(pcr.configured);
      if (c.requiredMissing) std::filesystem::remove(pcr.required);
      Recorder rec;
      pcr.run();
      std::vector<String> want(c.requiredMissing ? 2 : 1, "Cannot open " + pcr.required);
      want.push_back("REQUIRED_PCR_NOT_ENABLED error found");
      want.push_back("Logging PCR bank config warning due to required PCR bank not enabled");
      EXPECT_EQ(rec.traceTexts(2), want);
      EXPECT_EQ(pcr.status->requiredPcrBank(), c.wantRequired);
      EXPECT_EQ(pcr.status->configuredPcrBank(), c.wantConfigured);
   }
}

TEST(TarnPcrConfigStatusSm, ErrorLogLinesSetTheFlagOfTheirLeadingKeyword) {
   struct Case {
      String log;
      std::vector<bool> wantFlags;  // not configured, not enabled, TPM 1.2
      std::vector<String> wantTraces;
   };
   std::vector<Case> const cases{
      {"REQUIRED_PCR_NOT_ENABLED sha256\nPCR_CONFIG_FOUND_ON_TPM12\n",
       {false, true, true},
       {"REQUIRED_PCR_NOT_ENABLED error found", "PCR_CONFIG_FOUND_ON_TPM12 error found"}},
      {" REQUIRED_PCR_NOT_CONFIGURED\nrequired_pcr_not_configured\nREQUIRED_PCR_NOT\n", {false, false, false}, {}},
      {"REQUIRED_PCR_NOT_CONFIGURED_EXTRA", {true, false, false}, {"REQUIRED_PCR_NOT_CONFIGURED error found"}},
      {"REQUIRED_PCR_NOT_CONFIGURED\nother\nREQUIRED_PCR_NOT_CONFIGURED sha1\n",
       {true, false, false},
       {"REQUIRED_PCR_NOT_CONFIGURED error found", "REQUIRED_PCR_NOT_CONFIGURED error found"}},
      {"", {false, false, false}, {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.log);
      Pcr pcr("", "", c.log);
      pcr.setAllFlags();  // an opened log clears what an earlier run found
      Recorder rec;
      pcr.run();
      EXPECT_EQ(pcr.flags(), c.wantFlags);
      std::vector<String> found;
      for (auto const &t : rec.traceTexts(2)) {
         if (t.ends_with(" error found")) found.push_back(t);
      }
      EXPECT_EQ(found, c.wantTraces);
   }
}

TEST(TarnPcrConfigStatusSm, WarningsNameTheBanksConcernedInOrder) {
   struct Case {
      String required;
      String config;
      StringSet enabled;
      String log;
      std::vector<String> wantReasons;
   };
   std::vector<Case> const cases{
      {"sha1 sha256", "PCRBANK=sha1", {"sha1", "sha256"}, "REQUIRED_PCR_NOT_CONFIGURED\n",
       {"Required PCR bank sha256 is not configured in PCRBANK"}},
      {"sha384\nsha256", "PCRBANK=sha1", {}, "REQUIRED_PCR_NOT_CONFIGURED\n",
       {"Required PCR bank sha256 sha384 is not configured in PCRBANK"}},
      {"sha256 SHA384", "", {}, "REQUIRED_PCR_NOT_CONFIGURED\n",
       {"Required PCR bank SHA384 sha256 is not configured in PCRBANK"}},
      {"sha256", "PCRBANK=sha256", {}, "REQUIRED_PCR_NOT_CONFIGURED\n",
       {"Required PCR bank is not configured in PCRBANK"}},
      {"sha1 sha256 sha384", "PCRBANK=sha1+sha256+sha384", {"sha256"},
       "PCR_CONFIG_FOUND_ON_TPM12\nREQUIRED_PCR_NOT_ENABLED\nREQUIRED_PCR_NOT_CONFIGURED\n",
       {"Required PCR bank is not configured in PCRBANK",
        "Required PCR bank sha1 sha384 is not currently enabled",
        "PCR bank boot-config found on TPM 1.2 system"}},
      {"sha256", "", {}, "sha256 missing\n", {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.required + " / " + c.log);
      Pcr pcr(c.required, c.config, c.log, c.enabled);
      Recorder rec;
      pcr.run();
      std::vector<String> want;
      for (auto const &r : c.wantReasons) want.push_back(kPcrWarningHead + r);
      EXPECT_EQ(rec.logTexts(), want);
      for (auto const &l : rec.logs()) {
         EXPECT_EQ(l.name, "MEASUREDBOOT_PCR_CONFIG_WARNING");
         EXPECT_EQ(l.severity, 4);
      }
   }
   // Each warning is announced by its own trace, in the same order.
   Pcr pcr("sha1", "", "PCR_CONFIG_FOUND_ON_TPM12\nREQUIRED_PCR_NOT_ENABLED\nREQUIRED_PCR_NOT_CONFIGURED\n");
   Recorder rec;
   pcr.run();
   std::vector<String> logging;
   for (auto const &t : rec.traceTexts(2)) {
      if (t.starts_with("Logging ")) logging.push_back(t);
   }
   EXPECT_EQ(logging,
             (std::vector<String>{"Logging PCR bank config warning due to required PCR bank not configured",
                                  "Logging PCR bank config warning due to required PCR bank not enabled",
                                  "Logging PCR config warning due to PCR bank config found on TPM 1.2 system"}));
}

TEST(TarnPcrConfigStatusSm, ALaterMachineWithoutErrorLogKeepsTheFlags) {
   Pcr pcr("sha256", "PCRBANK=sha256", "REQUIRED_PCR_NOT_ENABLED\n");
   pcr.run();
   ASSERT_EQ(pcr.flags(), (std::vector<bool>{false, true, false}));
   std::filesystem::remove(pcr.errorLog);
   Recorder rec;
   EXPECT_TRUE(pcr.run()->initialized());
   EXPECT_EQ(pcr.flags(), (std::vector<bool>{false, true, false}));
   EXPECT_EQ(rec.traceTexts(2), std::vector<String>{"Cannot open Tarn PCR config error log file"});
   EXPECT_TRUE(rec.logs().empty());
   // No warning pass without a log.
   EXPECT_EQ(rec.traceTexts(7), (std::vector<String>{"void Sentrel::TarnPcrConfigStatusSm::handleInitialized()",
                                                     "void Sentrel::TarnPcrConfigStatusSm::readRequiredPcrBank()",
                                                     "void Sentrel::TarnPcrConfigStatusSm::readConfiguredPcrBank()",
                                                     "void Sentrel::TarnPcrConfigStatusSm::checkPcrConfigErrorLog()"}));
}

TEST(PcrMultibankToggleOff, NothingIsReadOrTraced) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Pcr pcr("sha256", "PCRBANK=sha1", "REQUIRED_PCR_NOT_CONFIGURED\n");
   std::filesystem::remove(pcr.errorLog);
   Recorder rec;
   EXPECT_TRUE(pcr.run()->initialized());
   EXPECT_TRUE(pcr.run()->initialized());
   EXPECT_TRUE(pcr.status->requiredPcrBank().empty());
   EXPECT_TRUE(pcr.status->configuredPcrBank().empty());
   EXPECT_EQ(rec.traceTexts(7), std::vector<String>(2, "void Sentrel::TarnPcrConfigStatusSm::handleInitialized()"));
   EXPECT_EQ(rec.traces().size(), 2u);
   EXPECT_TRUE(rec.logs().empty());
   EXPECT_EQ(Loom::toggleQueryCountForTest("PcrMultibank"), 1u);
}
