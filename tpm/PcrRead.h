#pragma once

#include <cstdint>
#include <map>
#include <variant>
#include <vector>

#include "evidence/Verdict.h"
#include "tpm/TpmConnection.h"

namespace SentrelTpm {

using PcrSet = std::bitset<SentrelEvidence::kPcrCount>;

// The selection of `pcrs` of one bank, as TPM2_PCR_Read and TPM2_Quote take it.
TPML_PCR_SELECTION pcrSelection(TPMI_ALG_HASH bank, PcrSet pcrs);

// The PCRs `pcrs` of one bank, in as few TPM2_PCR_Read commands as the TPM
// allows (a response holds at most eight values); BankNotEnabled when the
// TPM returns none of them, as it does for a bank it has not allocated.
std::variant<std::map<std::uint32_t, String>, TpmProblem> readBankPcrs(TpmConnection const &tpm, TPMI_ALG_HASH bank,
                                                                       PcrSet pcrs);

// The PCRs `pcrs` of every bank the TPM has enabled (its PCR allocation).
// When the allocation cannot be read, the banks `otherwise` are asked for,
// and the result says that the enabled banks are unknown. Problems name the
// TPM by its TCTI and each failure by its response code.
SentrelEvidence::TpmPcrs readPcrs(TpmConnection const &tpm, PcrSet pcrs, std::vector<std::uint16_t> const &otherwise);

}  // namespace SentrelTpm
