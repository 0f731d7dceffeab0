#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "Sentrel/platform/String.h"
#include "evidence/Verdict.h"

// The TPM's PCR values for the verdict, from the kernel's sysfs files or
// from the TPM itself.
namespace SentrelHost {

using Loom::String;

// The TCTI through which the TPM is reached when none is named: the kernel's
// resource manager, which the firmware's TPM has already been started for.
inline constexpr char kDefaultTcti[] = "device:/dev/tpmrm0";

// The PCRs `pcrs` of every enabled bank: from
// /sys/class/tpm/tpm0/pcr-<alg>/<index> (hex text, Linux 5.12 and later)
// below the system root where the kernel lists pcr-<alg> folders, which are
// then the enabled banks; otherwise from the TPM through ESYS over `tcti`
// (default kDefaultTcti, its device below the system root), the enabled
// banks from its PCR allocation, or `logBanks` when that cannot be read.
// Commands to the TPM are awaited `deadline` each.
SentrelEvidence::TpmPcrs readPcrValues(std::bitset<SentrelEvidence::kPcrCount> pcrs,
                                       std::vector<std::uint16_t> const &logBanks, std::optional<String> const &tcti,
                                       std::chrono::milliseconds deadline);

}  // namespace SentrelHost
