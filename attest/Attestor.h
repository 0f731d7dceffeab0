#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "attest/AttestRequestCheck.h"
#include "attest/AttestdOptions.h"
#include "attest/CardIdentity.h"
#include "attest/EventLogSource.h"
#include "tpm/Quote.h"

namespace SentrelAttestd {

using openconfig::attestz::AttestResponse;

// Everything an answer is made of, fixed when the service starts.
struct AttestorSetup {
   Tcti tcti;
   TPM2_HANDLE akHandle = SentrelTpm::kDefaultAkHandle;
   std::chrono::milliseconds commandTimeout{10000};
   CardIdentity card;
   String akCertPem;  // empty without --ak-cert
   String eventLogPath, eventLogShown;
};

// Answers checked requests with the TPM: the quote, the PCR values, the
// event log, the card and the AK's certificate. Keeps its connection to the
// TPM and the loaded AK between requests, and starts both again after a
// failure, so that a TPM that restarts, or a key made after the service
// started, is used by the next request. One thread only: the TPM worker's.
class Attestor {
 public:
   explicit Attestor(AttestorSetup setup);
   Attestor(Attestor const &) = delete;
   Attestor &operator=(Attestor const &) = delete;
   ~Attestor();

   // OK with `response` filled in; UNAVAILABLE when the log, the TPM or the
   // AK is missing or fails (the reason in the message, a TPM failure with
   // its response code); FAILED_PRECONDITION when the TPM has not enabled
   // the bank.
   grpc::Status attest(QuoteWanted const &wanted, AttestResponse &response);

 private:
   // The quote, on a connection and AK that work; a lost connection is
   // started again once.
   std::variant<SentrelTpm::PcrQuote, SentrelTpm::TpmProblem> quote(QuoteWanted const &wanted);
   std::optional<SentrelTpm::TpmProblem> connect();
   void forgetAk();
   void disconnect();

   AttestorSetup const setup_;
   EventLogSource eventLog_;
   std::unique_ptr<SentrelTpm::TpmConnection> tpm_;
   std::optional<ESYS_TR> ak_;
};

}  // namespace SentrelAttestd
