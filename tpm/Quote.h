#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <string_view>
#include <variant>

#include "evidence/EventLog.h"
#include "tpm/AttestationKey.h"

namespace SentrelTpm {

// The most a quote's qualifyingData holds: a TPM2B_DATA, the size of the
// largest digest.
inline constexpr std::size_t kMaxNonceBytes = sizeof(TPM2B_DATA{}.buffer);

// What a verifier asks to be quoted.
struct QuoteRequest {
   TPMI_ALG_HASH bank;  // the PCR bank, by its algorithm
   std::bitset<SentrelEvidence::kPcrCount> pcrs;
   std::string_view nonce;  // at most kMaxNonceBytes
};

// One TPM2_Quote and the PCR values it covers.
struct PcrQuote {
   String quoted;     // the TPMS_ATTEST bytes, as the TPM returned them
   String signature;  // the TPMT_SIGNATURE over them, marshalled
   // The quoted PCRs of the bank, raw, by index: their digest in ascending
   // order with the signature's hash is the quote's pcrDigest.
   std::map<std::uint32_t, String> values;
};

// Quotes the PCRs of `request` with the loaded AK `ak`, its qualifyingData
// the nonce, and reads the same PCRs. A PCR extended between the read and
// the quote would make them disagree, so the values are read again until
// their digest is the quote's pcrDigest, and quoted again if need be
// (PcrsChanging after a few attempts). A bank the TPM has not enabled is
// BankNotEnabled, and nothing is quoted.
std::variant<PcrQuote, TpmProblem> quotePcrs(TpmConnection const &tpm, ESYS_TR ak, QuoteRequest const &request);

}  // namespace SentrelTpm
