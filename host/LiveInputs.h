#pragma once

#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "host/Diagnostics.h"

namespace SentrelHost {

// Fills the two inputs that other agents write on a switch, from the running
// Linux system (below the system root), before the agent starts:
// "tarn/sb/status" from efivarfs and the TPM's sysfs and securityfs files,
// "hardware/sentrel/config/sentrel" from /etc/sentrel/defaults.json (made
// absent when that file cannot be read). Returns the reasons for what could
// not be read; a malformed defaults file is a UsageError.
std::vector<Diagnostic> fillLiveInputs(Ledger::EntityManager &em);

}  // namespace SentrelHost
