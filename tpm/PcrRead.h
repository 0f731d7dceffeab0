#pragma once

#include <bitset>
#include <cstdint>
#include <vector>

#include "evidence/Verdict.h"
#include "tpm/TpmConnection.h"

namespace SentrelTpm {

// The PCRs `pcrs` of every bank the TPM has enabled (its PCR allocation),
// each bank in as few TPM2_PCR_Read commands as the TPM allows. When the
// allocation cannot be read, the banks `otherwise` are asked for, and the
// result says that the enabled banks are unknown. Problems name the TPM by
// its TCTI and each failure by its response code.
SentrelEvidence::TpmPcrs readPcrs(TpmConnection const &tpm, std::bitset<SentrelEvidence::kPcrCount> pcrs,
                                  std::vector<std::uint16_t> const &otherwise);

}  // namespace SentrelTpm
