#include "Sentrel/TarnPcrConfigStatusSm.h"

#include <string>
#include <string_view>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/FileReading.h"
#include "Sentrel/Toggles.h"
#include "Sentrel/SentrelTrace.h"

#define SENTREL_TARN_PCR_CONFIG_STATUS_SM_OPS(X)                                            \
   X(logPcrConfigError) X(checkPcrConfigErrorLog) X(readRequiredPcrBank) X(readConfiguredPcrBank) \
   X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, TarnPcrConfigStatusSm, tarnPcrConfigStatus,
                          SENTREL_TARN_PCR_CONFIG_STATUS_SM_ARGS, SENTREL_TARN_PCR_CONFIG_STATUS_SM_OPS)

namespace Sentrel {

using A = Tarn::PcrConfig::Status::Attr;

TarnPcrConfigStatusSm::TarnPcrConfigStatusSm(Ptr<Ledger::EntityManager> const &entityManager,
                                             Ptr<Tarn::PcrConfig::Status> const &tarnPcrConfigStatus,
                                             Ptr<Tarn::Secureboot::Status const> const &sbStatus)
    : entityManager_(entityManager), tarnPcrConfigStatus_(tarnPcrConfigStatus), sbStatus_(sbStatus) {
   handleInitialized();
}

void TarnPcrConfigStatusSm::handleInitialized() {
   TRACE7("void Sentrel::TarnPcrConfigStatusSm::handleInitialized()");
   if (togglePcrMultibankEnabled()) {
      readRequiredPcrBank();
      readConfiguredPcrBank();
      checkPcrConfigErrorLog();
   } else {
      toggleOffReason(tarnPcrConfigStatus_,
                      {A::requiredPcrBank, A::configuredPcrBank, A::requiredPcrNotConfigured, A::requiredPcrNotEnabled,
                       A::pcrConfigFoundOnTpm12},
                      "PcrMultibank", "SecureBoot.json");
   }
   initialized_ = true;
}

void TarnPcrConfigStatusSm::readRequiredPcrBank() {
   TRACE7("void Sentrel::TarnPcrConfigStatusSm::readRequiredPcrBank()");
   int err = 0;
   auto const text = readInputFile(*tarnPcrConfigStatus_, {A::requiredPcrBank}, A::requiredPcrBankFilePath,
                                   tarnPcrConfigStatus_->requiredPcrBankFilePath(), err);
   if (!text) {
      TRACE2("Cannot open " << tarnPcrConfigStatus_->requiredPcrBankFilePath());
      return;
   }
   // Any white space separates, so the file's line structure does not matter.
   static constexpr char space[] = " \t\n\v\f\r";
   for (auto start = text->find_first_not_of(space); start != String::npos;) {
      auto const end = text->find_first_of(space, start);
      tarnPcrConfigStatus_->requiredPcrBankIs(text->substr(start, end - start));
      start = text->find_first_not_of(space, end);
   }
}

void TarnPcrConfigStatusSm::readConfiguredPcrBank() {
   TRACE7("void Sentrel::TarnPcrConfigStatusSm::readConfiguredPcrBank()");
   int err = 0;
   auto const text = readInputFile(*tarnPcrConfigStatus_, {A::configuredPcrBank}, A::configuredPcrBankFilePath,
                                   tarnPcrConfigStatus_->configuredPcrBankFilePath(), err);
   if (!text) {
      // Names the required-bank file, not this one, as this message always has.
      TRACE2("Cannot open " << tarnPcrConfigStatus_->requiredPcrBankFilePath());
      return;
   }
   static constexpr char prefix[] = "PCRBANK=";
   Loom::Pieces lines(*text, '\n');
   for (std::string_view line; lines.next(line);) {
      if (!line.starts_with(prefix)) continue;
      // Pieces are kept exactly as written: a trailing "+" adds nothing, an
      // empty piece before a "+" is kept, and nothing is trimmed.
      Loom::Pieces banks(line.substr(sizeof prefix - 1), '+');
      for (std::string_view bank; banks.next(bank);) tarnPcrConfigStatus_->configuredPcrBankIs(String(bank));
      return;
   }
}

void TarnPcrConfigStatusSm::checkPcrConfigErrorLog() {
   TRACE7("void Sentrel::TarnPcrConfigStatusSm::checkPcrConfigErrorLog()");
   int err = 0;
   auto const text = readInputFile(*tarnPcrConfigStatus_,
                                   {A::requiredPcrNotConfigured, A::requiredPcrNotEnabled, A::pcrConfigFoundOnTpm12},
                                   A::errorLogFilePath, tarnPcrConfigStatus_->errorLogFilePath(), err);
   if (!text) {
      // The flags of an earlier run stand until a log can be read again.
      TRACE2("Cannot open Tarn PCR config error log file");
      return;
   }
   auto &status = *tarnPcrConfigStatus_;
   status.requiredPcrNotConfiguredIs(false);
   status.requiredPcrNotEnabledIs(false);
   status.pcrConfigFoundOnTpm12Is(false);
   Loom::Pieces lines(*text, '\n');
   for (std::string_view line; lines.next(line);) {
      if (line.starts_with("REQUIRED_PCR_NOT_CONFIGURED")) {
         TRACE2("REQUIRED_PCR_NOT_CONFIGURED error found");
         status.requiredPcrNotConfiguredIs(true);
      } else if (line.starts_with("REQUIRED_PCR_NOT_ENABLED")) {
         TRACE2("REQUIRED_PCR_NOT_ENABLED error found");
         status.requiredPcrNotEnabledIs(true);
      } else if (line.starts_with("PCR_CONFIG_FOUND_ON_TPM12")) {
         TRACE2("PCR_CONFIG_FOUND_ON_TPM12 error found");
         status.pcrConfigFoundOnTpm12Is(true);
      }
   }
   logPcrConfigError();
}

void TarnPcrConfigStatusSm::logPcrConfigError() {
   TRACE7("void Sentrel::TarnPcrConfigStatusSm::logPcrConfigError()");
   auto const &status = *tarnPcrConfigStatus_;
   std::string notEnabled;
   std::string notConfigured;
   for (auto const &bank : status.requiredPcrBank()) {
      if (!sbStatus_->enabledPcrBank().contains(bank)) notEnabled += bank + " ";
      if (!status.configuredPcrBank().contains(bank)) notConfigured += bank + " ";
   }
   // The flags decide; the lists only name the banks, and may be empty.
   if (status.requiredPcrNotConfigured()) {
      TRACE2("Logging PCR bank config warning due to required PCR bank not configured");
      Loom::log(MEASUREDBOOT_PCR_CONFIG_WARNING,
                "Required PCR bank " + notConfigured + "is not configured in PCRBANK");
   }
   if (status.requiredPcrNotEnabled()) {
      TRACE2("Logging PCR bank config warning due to required PCR bank not enabled");
      Loom::log(MEASUREDBOOT_PCR_CONFIG_WARNING, "Required PCR bank " + notEnabled + "is not currently enabled");
   }
   if (status.pcrConfigFoundOnTpm12()) {
      TRACE2("Logging PCR config warning due to PCR bank config found on TPM 1.2 system");
      Loom::log(MEASUREDBOOT_PCR_CONFIG_WARNING, "PCR bank boot-config found on TPM 1.2 system");
   }
}

}  // namespace Sentrel
