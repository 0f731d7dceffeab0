#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "Sentrel/platform/String.h"

// The TPM's PCR values and enabled banks, from the kernel's sysfs files or
// from the TPM itself, for the replay of the event log to be compared with.
namespace SentrelEvidence {

using Loom::String;

struct BankValues {
   std::map<std::uint32_t, String> values;  // raw digest bytes by PCR index: those that were read
   String problem;  // empty when every wanted PCR was read, else why not
   String hint;     // what to do, when there is something to do
};

struct PcrValues {
   std::vector<String> enabledBanks;  // TPM names of the banks the TPM has enabled ("sha1", "sha256", ...), sorted
   String enabledBanksProblem;        // why they could not be told
   String enabledBanksHint;
   std::map<std::uint16_t, BankValues> banks;  // per algorithm asked for
   String source;                              // "sysfs" or the TCTI configuration used
};

// The TCTI through which the TPM is reached when none is named: the kernel's
// resource manager, which the firmware's TPM has already been started for.
inline constexpr char kDefaultTcti[] = "device:/dev/tpmrm0";

// The PCR values wanted, by algorithm: from /sys/class/tpm/tpm0/pcr-<alg>/<index>
// (hex text, Linux 5.12 and later) below the system root when the kernel
// exposes pcr-<alg> folders; otherwise from the TPM through ESYS over `tcti`
// (default kDefaultTcti, its device below the system root), with the enabled
// banks from the TPM's PCR allocation.
PcrValues readPcrValues(std::map<std::uint16_t, std::set<std::uint32_t>> const &wanted,
                        std::optional<String> const &tcti);

}  // namespace SentrelEvidence
