#pragma once

#include "Sentrel/platform/Entity.h"

namespace Tarn::PcrConfig {

// Required, configured and failing TPM PCR banks of the bootloader.
class LOOM_API Status : public Loom::Entity {
 public:
   struct Attr {
      enum : unsigned {
         requiredPcrBank,
         configuredPcrBank,
         errorLogFilePath,
         requiredPcrBankFilePath,
         configuredPcrBankFilePath,
         requiredPcrNotConfigured,
         requiredPcrNotEnabled,
         pcrConfigFoundOnTpm12
      };
   };
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   Loom::StringSet const &requiredPcrBank() const { return requiredPcrBank_; }
   void requiredPcrBankIs(Loom::String const &bank) {
      insertInto(requiredPcrBank_, bank, Attr::requiredPcrBank);
   }
   Loom::StringSet const &configuredPcrBank() const { return configuredPcrBank_; }
   void configuredPcrBankIs(Loom::String const &bank) {
      insertInto(configuredPcrBank_, bank, Attr::configuredPcrBank);
   }
   Loom::String const &errorLogFilePath() const { return errorLogFilePath_; }
   void errorLogFilePathIs(Loom::String const &v) { assign(errorLogFilePath_, v, Attr::errorLogFilePath); }
   Loom::String const &requiredPcrBankFilePath() const { return requiredPcrBankFilePath_; }
   void requiredPcrBankFilePathIs(Loom::String const &v) {
      assign(requiredPcrBankFilePath_, v, Attr::requiredPcrBankFilePath);
   }
   Loom::String const &configuredPcrBankFilePath() const { return configuredPcrBankFilePath_; }
   void configuredPcrBankFilePathIs(Loom::String const &v) {
      assign(configuredPcrBankFilePath_, v, Attr::configuredPcrBankFilePath);
   }
   bool requiredPcrNotConfigured() const { return requiredPcrNotConfigured_; }
   void requiredPcrNotConfiguredIs(bool v) {
      assign(requiredPcrNotConfigured_, v, Attr::requiredPcrNotConfigured);
   }
   bool requiredPcrNotEnabled() const { return requiredPcrNotEnabled_; }
   void requiredPcrNotEnabledIs(bool v) { assign(requiredPcrNotEnabled_, v, Attr::requiredPcrNotEnabled); }
   bool pcrConfigFoundOnTpm12() const { return pcrConfigFoundOnTpm12_; }
   void pcrConfigFoundOnTpm12Is(bool v) { assign(pcrConfigFoundOnTpm12_, v, Attr::pcrConfigFoundOnTpm12); }

 protected:
   ~Status() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Loom::StringSet requiredPcrBank_;
   Loom::StringSet configuredPcrBank_;
   Loom::String errorLogFilePath_ = "/run/tarn/pcr-config-errors.log";
   Loom::String requiredPcrBankFilePath_ = "/etc/vexo/required-pcr-banks";
   Loom::String configuredPcrBankFilePath_ = "/run/tarn/boot-config";
   bool requiredPcrNotConfigured_ = false;
   bool requiredPcrNotEnabled_ = false;
   bool pcrConfigFoundOnTpm12_ = false;
};

}  // namespace Tarn::PcrConfig
