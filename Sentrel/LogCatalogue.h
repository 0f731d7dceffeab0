#pragma once

#include "Sentrel/platform/Log.h"

namespace Sentrel {

// The five messages of the system log, in catalogue order.
extern Loom::LogDescriptor &SENTREL_INTEGRITY_LOAD_KEY_FAIL_DESC;
extern Loom::LogDescriptor &SENTREL_INTEGRITY_DESC;
extern Loom::LogDescriptor &SENTREL_WARNING_DESC;
extern Loom::LogDescriptor &MEASUREDBOOT_PCR_CONFIG_WARNING_DESC;
extern Loom::LogDescriptor &TARN_DEPRECATION_WARNING_DESC;

// Their handles, built at load time.
extern Loom::LogHandle SENTREL_INTEGRITY_LOAD_KEY_FAIL;
extern Loom::LogHandle SENTREL_INTEGRITY;
extern Loom::LogHandle SENTREL_WARNING;
extern Loom::LogHandle MEASUREDBOOT_PCR_CONFIG_WARNING;
extern Loom::LogHandle TARN_DEPRECATION_WARNING;

}  // namespace Sentrel
