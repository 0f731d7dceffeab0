#pragma once

#include "Sentrel/platform/Ledger.h"

namespace SentrelHost {

inline constexpr char kDefaultsFile[] = "/etc/sentrel/defaults.json";

// Fills the two inputs that other agents write on a switch from what the
// running Linux system says, read below the system root as those writers
// would: the secure boot status and the manufacturing defaults. What cannot
// be read is reported through the reason sink, on the fact it leaves
// unknown. A malformed or oversized defaults file is a UsageError naming it
// and the byte offset.
void readLiveInputs(Ledger::EntityManager &em);

// Whether the machine has a TPM 2.0 (below the system root).
bool tpm2Present();

}  // namespace SentrelHost
