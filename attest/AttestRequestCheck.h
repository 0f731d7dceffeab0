#pragma once

#include <bitset>
#include <grpcpp/support/status.h>
#include <string>
#include <variant>

#include "attest/CardIdentity.h"
#include "attest/attestz.grpc.pb.h"
#include "evidence/EventLog.h"
#include "tpm/Quote.h"

// What an Attest request asks of the TPM, checked before the TPM is asked:
// a pure function of the request and the card, for the service and its
// fuzzer alike.
namespace SentrelAttestd {

using openconfig::attestz::AttestRequest;

// A request that the TPM may answer.
struct QuoteWanted {
   TPMI_ALG_HASH bank;
   std::bitset<SentrelEvidence::kPcrCount> pcrs;
   String nonce;
   SentrelTpm::QuoteRequest quoteRequest() const { return {bank, pcrs, nonce}; }
};

// The bank that `hash_algo` names (UNSPECIFIED is sha256, what the AK
// signs with), or TPM2_ALG_NULL for a value that names none.
TPMI_ALG_HASH bankOf(int hashAlgo);

// The quote the request asks for, or the status that refuses it:
// INVALID_ARGUMENT for no card selected, no nonce or one over 64 bytes, a
// hash_algo that names no bank, no PCR or one outside 0-23; NOT_FOUND for
// a card other than this one (the standby, another serial, a slot).
std::variant<QuoteWanted, grpc::Status> checkAttestRequest(AttestRequest const &request, CardIdentity const &card);

// The request as the service's log shows it: the card asked for, the
// nonce's length, the bank and the PCRs ("role ACTIVE, nonce 32 bytes,
// sha256 PCRs 0-7,9"). Never longer than a line.
String describeRequest(AttestRequest const &request);

// A status code's name, as gRPC spells it ("INVALID_ARGUMENT").
char const *statusCodeName(grpc::StatusCode code);

}  // namespace SentrelAttestd
