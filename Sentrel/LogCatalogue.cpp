#include "Sentrel/LogCatalogue.h"

namespace Sentrel {

// Standard-action codes, interpreted by the log facility.
#define SENTREL_ACTION_1 "\x01"
#define SENTREL_ACTION_2 "\x02"

// The descriptors lie together, in this order, in their own writable section:
// one array, so that neither the compiler nor the linker reorders or pads them.
__attribute__((section(".velmo_logmsg"), used, aligned(8))) Loom::LogDescriptor logCatalogue[5] = {
   {"SENTREL_INTEGRITY_LOAD_KEY_FAIL", "Failed to load certificate %s in keyring (%s). %s.",
    "The certificate could not be loaded in the keyring", SENTREL_ACTION_1, 4, 0},
   {"SENTREL_INTEGRITY", "Integrity error of type %s (%s), for file %s, invoked by %s",
    "The Integrity Measurement Architecture (IMA) apparaisal raised a warning", SENTREL_ACTION_1, 4, 0},
   {"SENTREL_WARNING", "%s is currently %s (default: %s)",
    "Configuration values differ from manufacturing defaults. Velmo recommends using default settings.",
    "If this setting was not intentionally modified, please contact support for assistance restoring the "
    "default setting.",
    4, 0},
   {"MEASUREDBOOT_PCR_CONFIG_WARNING",
    "Error found in PCR bank config. Measured boot functionality may be limited. Please check PCR bank config. "
    "Reason: %s",
    "Error found in PCR bank config.", "Check PCR bank config", 4, 0},
   {"TARN_DEPRECATION_WARNING",
    "%s will be deprecated soon. Reason: Secure boot will not work after May 2027 due to certificate "
    "expiration. ",
    "Currently installed Tarn will be deprecated soon.", SENTREL_ACTION_2, 4, 0},
};

Loom::LogDescriptor &SENTREL_INTEGRITY_LOAD_KEY_FAIL_DESC = logCatalogue[0];
Loom::LogDescriptor &SENTREL_INTEGRITY_DESC = logCatalogue[1];
Loom::LogDescriptor &SENTREL_WARNING_DESC = logCatalogue[2];
Loom::LogDescriptor &MEASUREDBOOT_PCR_CONFIG_WARNING_DESC = logCatalogue[3];
Loom::LogDescriptor &TARN_DEPRECATION_WARNING_DESC = logCatalogue[4];

}  // namespace Sentrel
