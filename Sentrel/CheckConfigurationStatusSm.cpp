#include "Sentrel/CheckConfigurationStatusSm.h"

#include <cstdint>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/Toggles.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/Reason.h"

#define SENTREL_CHECK_CONFIGURATION_STATUS_SM_OPS(X) X(checkConfigurationStatus) X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, CheckConfigurationStatusSm, checkConfigurationStatus,
                          SENTREL_CHECK_CONFIGURATION_STATUS_SM_ARGS, SENTREL_CHECK_CONFIGURATION_STATUS_SM_OPS)

namespace Sentrel {

namespace {

constexpr std::uint16_t secureBootDisabledBit = Tarn::Secureboot::Status::secureBootDisabledBit;
constexpr std::uint16_t measuredBootEnabledBit = Tarn::Secureboot::Status::measuredBootEnabledBit;

}  // namespace

CheckConfigurationStatusSm::CheckConfigurationStatusSm(
   Ptr<Ledger::EntityManager> const &entityManager,
   Ptr<Hardware::Sentrel::Config const> const &defaultSentrelStatus,
   Ptr<Tarn::Secureboot::Status const> const &sbStatus)
    : entityManager_(entityManager),
      defaultSentrelStatus_(defaultSentrelStatus),
      sbStatus_(sbStatus),
      defaultSentrelStatusReactor_(*this, defaultSentrelStatus.ptr(), {Hardware::Sentrel::Config::Attr::configReady},
                                   [this](unsigned) { handleDefaultSentrelStatusConfigReady(); }),
      sbStatusReactor_(*this, sbStatus.ptr(), {Tarn::Secureboot::Status::Attr::ready},
                       [this](unsigned) { handleSbStatusReady(); }) {
   if (toggleSentrelMfgExpectedConfigCheckEnabled()) handleInitialized();
}

void CheckConfigurationStatusSm::handleDefaultSentrelStatusConfigReady() {
   if (toggleSentrelMfgExpectedConfigCheckEnabled()) checkConfigurationStatus();
}

void CheckConfigurationStatusSm::handleSbStatusReady() {
   if (toggleSentrelMfgExpectedConfigCheckEnabled()) checkConfigurationStatus();
}

void CheckConfigurationStatusSm::handleInitialized() {
   TRACE7("void Sentrel::CheckConfigurationStatusSm::handleInitialized()");
   checkConfigurationStatus();
   initialized_ = true;
}

void CheckConfigurationStatusSm::checkConfigurationStatus() {
   TRACE7("void Sentrel::CheckConfigurationStatusSm::checkConfigurationStatus()");
   if (!defaultSentrelStatus_ || !sbStatus_) {
      TRACE2("defaultSentrelStatus or sbStatus is null, skipping");
      return;
   }
   if (!defaultSentrelStatus_->configReady() || !sbStatus_->ready()) {
      TRACE2("defaultSentrelStatus or sbStatus is not ready, skipping");
      static char const notCompared[] =
         "not ready, so secure boot and measured boot were not compared with the manufacturing defaults";
      if (!sbStatus_->ready()) Loom::reasonIs(*sbStatus_, {Tarn::Secureboot::Status::Attr::ready}, notCompared);
      if (!defaultSentrelStatus_->configReady()) Loom::reasonIs(*defaultSentrelStatus_, {Hardware::Sentrel::Config::Attr::configReady}, notCompared);
      return;
   }
   std::uint16_t const flags = sbStatus_->statusFlags();
   // Only a setting that is off against an "on" default is an operator
   // matter; the reverse is merely noted. The two bits read in opposite
   // senses: bit 0 says secure boot is off, bit 5 says measured boot is on.
   bool const secureBootOff = (flags & secureBootDisabledBit) != 0;
   bool const secureBootDefault = defaultSentrelStatus_->secureBootEnabled();
   if (secureBootOff && secureBootDefault) {
      Loom::log(SENTREL_WARNING, "Secure boot", "disabled", "enabled");
   } else if (!secureBootOff && !secureBootDefault) {
      TRACE2("SecureBoot is currently enabled (default: disabled)");
   }
   bool const measuredBootOn = (flags & measuredBootEnabledBit) != 0;
   bool const measuredBootDefault = defaultSentrelStatus_->measuredBootEnabled();
   if (measuredBootOn && !measuredBootDefault) {
      TRACE2("MeasuredBoot is currently enabled (default: disabled)");
   } else if (!measuredBootOn && measuredBootDefault) {
      Loom::log(SENTREL_WARNING, "Measured boot", "disabled", "enabled");
   }
}

}  // namespace Sentrel
