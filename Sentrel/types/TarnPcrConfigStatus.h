#pragma once

#include "Sentrel/platform/EntityAttrs.h"

namespace Tarn::PcrConfig {

#define TARN_PCR_CONFIG_STATUS_ATTRS(X)                                               \
   X(set, Loom::StringSet, requiredPcrBank, {})                                       \
   X(set, Loom::StringSet, configuredPcrBank, {})                                     \
   X(value, Loom::String, errorLogFilePath, "/run/tarn/pcr-config-errors.log")        \
   X(value, Loom::String, requiredPcrBankFilePath, "/etc/vexo/required-pcr-banks")    \
   X(value, Loom::String, configuredPcrBankFilePath, "/run/tarn/boot-config")         \
   X(value, bool, requiredPcrNotConfigured, false)                                    \
   X(value, bool, requiredPcrNotEnabled, false)                                       \
   X(value, bool, pcrConfigFoundOnTpm12, false)

// Required, configured and failing TPM PCR banks of the bootloader.
class LOOM_API Status : public Loom::Entity {
   LOOM_ENTITY(Status, TARN_PCR_CONFIG_STATUS_ATTRS)
};

}  // namespace Tarn::PcrConfig
