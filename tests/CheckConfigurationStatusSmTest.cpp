#include <gtest/gtest.h>

#include "Sentrel/CheckConfigurationStatusSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::CheckConfigurationStatusSm;

namespace {

// Both inputs of a seeded ledger, ready, with both defaults on and the flags
// of a platform running with secure boot and measured boot off. The checks
// of the inputs the host can hold are proved through the host.
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
};

}  // namespace

// Without a secure boot status the other machines stop the host; this one skips.
TEST(CheckConfigurationStatusSm, ANullSecureBootStatusIsSkipped) {
   Inputs in;
   Recorder rec;
   auto sm = CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, in.defaults, nullptr);
   EXPECT_TRUE(sm->initialized());
   EXPECT_EQ(rec.traceTexts(2), std::vector<String>{"defaultSentrelStatus or sbStatus is null, skipping"});
   EXPECT_TRUE(rec.logs().empty());
}

// Off, the machine never enters, so no trace of its own would mark one.
TEST(MfgExpectedConfigCheckToggleOff, NothingIsCheckedTracedOrLogged) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Inputs in;
   Recorder rec;
   auto sm = CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, in.defaults, in.sb);
   auto withNull = CheckConfigurationStatusSm::CheckConfigurationStatusSmIs(in.em, nullptr, in.sb);
   in.sb->readyIs(false);
   in.sb->readyIs(true);
   in.defaults->configReadyIs(false);
   in.defaults->configReadyIs(true);
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_TRUE(rec.logs().empty());
   EXPECT_FALSE(sm->initialized());
   EXPECT_FALSE(withNull->initialized());
}
