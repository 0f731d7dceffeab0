#include <array>
#include <cstdint>
#include <gtest/gtest.h>

#include "Sentrel/CheckConfigurationStatusSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Strings = std::vector<String>;

namespace {

String const kNotReady = "defaultSentrelStatus or sbStatus is not ready, skipping";

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

}  // namespace

// Bit 0 says secure boot is off, bit 5 that measured boot is on; no other bit counts.
TEST(CheckConfigurationStatusSm, WarnsOnlyOfASettingOffAgainstAnOnDefault) {
   struct Case {
      bool secureDefault, measuredDefault;
      std::uint16_t flags;
      Strings logs, traces;
   };
   std::vector<Case> const cases{
      {true, true, 0x0020, {}, {}},
      {false, false, 0x0001, {}, {}},
      {true, true, 0xffdf, {kSecureBootOffWarning, kMeasuredBootOffWarning}, {}},
      {false, false, 0xfffe, {}, {kSecureBootOnTrace, kMeasuredBootOnTrace}},
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
      EXPECT_EQ(rec.logTexts(), c.logs);
      EXPECT_EQ(rec.traceTexts(2), c.traces);
   }
}

TEST(CheckConfigurationStatusSm, NullOrUnreadyInputsAreSkipped) {
   String const null = "defaultSentrelStatus or sbStatus is null, skipping";
   // null defaults, null sb, configReady, ready
   for (auto const [nullDefaults, nullSb, configReady, ready] :
        std::vector<std::array<bool, 4>>{{1, 0, 1, 1}, {0, 1, 1, 1}, {0, 0, 0, 1}, {0, 0, 1, 0}}) {
      SCOPED_TRACE(testing::Message() << nullDefaults << nullSb << configReady << ready);
      Inputs in;
      in.defaults->configReadyIs(configReady);
      in.sb->readyIs(ready);
      Recorder rec;
      auto sm = Sentrel::CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(
         in.em, nullDefaults ? nullptr : in.defaults, nullSb ? nullptr : in.sb);
      EXPECT_TRUE(sm->initialized());
      EXPECT_EQ(rec.traceTexts(2), Strings{nullDefaults || nullSb ? null : kNotReady});
      EXPECT_TRUE(rec.logs().empty());
   }
}

TEST(CheckConfigurationStatusSm, ReadinessChangesRerunTheCheck) {
   Inputs in;
   in.sb->readyIs(false);
   auto sm = in.run();
   Recorder rec;
   in.sb->readyIs(true);
   EXPECT_EQ(rec.logTexts(), (Strings{kSecureBootOffWarning, kMeasuredBootOffWarning}));
   in.sb->readyIs(false);
   in.defaults->configReadyIs(false);
   in.defaults->configReadyIs(true);
   EXPECT_EQ(rec.traceTexts(2), (Strings{kNotReady, kNotReady, kNotReady}));

   // Other attributes check nothing.
   rec.clear();
   in.sb->statusFlagsIs(0x0020);
   in.sb->supportedIs(true);
   in.defaults->secureBootEnabledIs(false);
   in.defaults->measuredBootEnabledIs(false);
   EXPECT_TRUE(rec.traces().empty());
}

TEST(MfgExpectedConfigCheckToggleOff, NothingIsCheckedTracedOrLogged) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Inputs in;
   Recorder rec;
   auto sm = in.run();
   auto withNull = Sentrel::CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, nullptr, in.sb);
   in.sb->readyIs(false);
   in.sb->readyIs(true);
   in.defaults->configReadyIs(false);
   in.defaults->configReadyIs(true);
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_TRUE(rec.logs().empty());
   EXPECT_FALSE(sm->initialized());
   EXPECT_FALSE(withNull->initialized());
}
