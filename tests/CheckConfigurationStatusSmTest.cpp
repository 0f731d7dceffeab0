#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>

#include "Sentrel/CheckConfigurationStatusSm.h"
#include "Sentrel/platform/Toggle.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

String const notReady = "defaultSentrelStatus or sbStatus is not ready, skipping";
char const *const checkEntry = "void Sentrel::CheckConfigurationStatusSm::checkConfigurationStatus()";

// Both inputs of a seeded ledger, ready, with both defaults on and the flags
// of a platform running with secure boot and measured boot off.
struct Inputs {
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<Hardware::Sentrel::Config> defaults =
      entityAt<Hardware::Sentrel::Config>(*em, "hardware/sentrel/config/sentrel");
   Ptr<Tarn::Secureboot::Status> sb = entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status");

   Inputs() {
      defaults->secureBootEnabledIs(true);
      defaults->measuredBootEnabledIs(true);
      defaults->configReadyIs(true);
      sb->statusFlagsIs(0x0001);
      sb->readyIs(true);
   }
   Ptr<Sentrel::CheckConfigurationStatusSm> run() const {
      return Sentrel::CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(em, defaults, sb);
   }
};

std::size_t checks(Recorder const &rec) {
   auto const t = rec.traceTexts(7);
   return static_cast<std::size_t>(std::count(t.begin(), t.end(), checkEntry));
}

}  // namespace

TEST(CheckConfigurationStatusSm, WarnsOnlyOfASettingOffAgainstAnOnDefault) {
   struct Case {
      bool secureDefault;
      bool measuredDefault;
      std::uint16_t flags;
      std::vector<String> wantLogs;
      std::vector<String> wantTraces;
   };
   std::vector<Case> const cases{
      {true, true, 0x0001, {kSecureBootOffWarning, kMeasuredBootOffWarning}, {}},
      {true, true, 0x0020, {}, {}},
      {false, false, 0x0020, {},
       {kSecureBootOnTrace,
        kMeasuredBootOnTrace}},
      {false, false, 0x0001, {}, {}},
      {true, false, 0x0000, {}, {}},
      {false, true, 0x0021, {}, {}},
      // No other bit counts.
      {true, true, 0xffdf, {kSecureBootOffWarning, kMeasuredBootOffWarning}, {}},
      {false, false, 0xfffe, {},
       {kSecureBootOnTrace,
        kMeasuredBootOnTrace}},
      {true, true, 0xffde, {kMeasuredBootOffWarning}, {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(testing::Message() << c.secureDefault << c.measuredDefault << " 0x" << std::hex << c.flags);
      Inputs in;
      in.defaults->secureBootEnabledIs(c.secureDefault);
      in.defaults->measuredBootEnabledIs(c.measuredDefault);
      in.sb->statusFlagsIs(c.flags);
      Recorder rec;
      EXPECT_TRUE(in.run()->initialized());
      EXPECT_EQ(rec.logTexts(), c.wantLogs);
      for (auto const &l : rec.logs()) {
         EXPECT_EQ(l.name, "SENTREL_WARNING");
         EXPECT_EQ(l.severity, 4);
      }
      EXPECT_EQ(rec.traceTexts(2), c.wantTraces);
   }
}

TEST(CheckConfigurationStatusSm, NullOrUnreadyInputsAreSkipped) {
   struct Case {
      char const *name;
      bool nullDefaults;
      bool nullSb;
      bool configReady;
      bool ready;
      String wantTrace;
   };
   String const null = "defaultSentrelStatus or sbStatus is null, skipping";
   std::vector<Case> const cases{
      {"null defaults", true, false, true, true, null},
      {"null sbStatus", false, true, true, true, null},
      {"defaults not ready", false, false, false, true, notReady},
      {"sbStatus not ready", false, false, true, false, notReady},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      Inputs in;
      in.defaults->configReadyIs(c.configReady);
      in.sb->readyIs(c.ready);
      Ptr<Hardware::Sentrel::Config const> defaults = c.nullDefaults ? nullptr : in.defaults;
      Ptr<Tarn::Secureboot::Status const> sb = c.nullSb ? nullptr : in.sb;
      Recorder rec;
      auto sm = Sentrel::CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, defaults, sb);
      EXPECT_TRUE(sm->initialized());
      EXPECT_EQ(rec.traceTexts(2), std::vector<String>{c.wantTrace});
      EXPECT_TRUE(rec.logs().empty());
   }
}

TEST(CheckConfigurationStatusSm, ReadinessChangesRerunTheCheck) {
   Inputs in;
   in.sb->readyIs(false);
   auto sm = in.run();
   Recorder rec;

   in.sb->readyIs(true);
   EXPECT_EQ(rec.logTexts(), (std::vector<String>{kSecureBootOffWarning, kMeasuredBootOffWarning}));
   rec.clear();
   in.sb->readyIs(false);
   in.defaults->configReadyIs(false);
   EXPECT_EQ(rec.traceTexts(2), std::vector<String>(2, notReady));
   rec.clear();
   in.defaults->configReadyIs(true);
   EXPECT_EQ(checks(rec), 1u);

   // Other attributes, and a machine with notifications off, check nothing.
   rec.clear();
   in.sb->statusFlagsIs(0x0020);
   in.sb->supportedIs(true);
   in.defaults->secureBootEnabledIs(false);
   in.defaults->measuredBootEnabledIs(false);
   sm->hasNotificationActiveIs(false);
   in.sb->readyIs(true);
   in.defaults->configReadyIs(false);
   EXPECT_EQ(checks(rec), 0u);
   EXPECT_TRUE(rec.logs().empty());

   sm->hasNotificationActiveIs(true);
   EXPECT_EQ(in.sb->subscriberCount(), 1u);
   EXPECT_EQ(in.defaults->subscriberCount(), 1u);
   sm = nullptr;
   EXPECT_EQ(in.sb->subscriberCount(), 0u);
   EXPECT_EQ(in.defaults->subscriberCount(), 0u);
}

TEST(MfgExpectedConfigCheckToggleOff, NothingIsCheckedTracedOrLogged) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Inputs in;
   Recorder rec;
   auto sm = in.run();
   auto withNull = Sentrel::CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, nullptr, in.sb);
   EXPECT_FALSE(sm->initialized());
   EXPECT_FALSE(withNull->initialized());
   in.sb->readyIs(false);
   in.sb->readyIs(true);
   in.defaults->configReadyIs(false);
   in.defaults->configReadyIs(true);
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_TRUE(rec.logs().empty());
   EXPECT_FALSE(sm->initialized());
   EXPECT_EQ(Loom::toggleQueryCountForTest("SentrelMfgExpectedConfigCheck"), 1u);
}
