#pragma once

#include <functional>

#include "attest/AttestRequestCheck.h"
#include "attest/Attestor.h"
#include "attest/TpmWorker.h"

namespace SentrelAttestd {

// How a finished request is logged: one line, and whether it succeeded.
using RequestLog = std::function<void(String const &line, grpc::StatusCode code)>;

// openconfig.attestz.TpmAttestzService/Attest. gRPC's threads only check
// the request and hand it to the service's TPM worker; the worker answers
// it with the Attestor and finishes the call. Each request is logged once
// it is finished: its peer, what it asked and the result.
class AttestService final : public openconfig::attestz::TpmAttestzService::CallbackService {
 public:
   // At most `maxQueued` requests wait for the TPM beside the one it answers.
   AttestService(CardIdentity card, Attestor &attestor, std::size_t maxQueued, RequestLog log);

   grpc::ServerUnaryReactor *Attest(grpc::CallbackServerContext *context, AttestRequest const *request,
                                    AttestResponse *response) override;

   // Refuses requests from now on (UNAVAILABLE), and waits at most `grace`
   // for those with the TPM or waiting for it: false when some are left.
   bool drain(std::chrono::milliseconds grace);

 private:
   CardIdentity const card_;
   Attestor &attestor_;
   RequestLog const log_;
   // Last, so that it is gone first: the jobs still queued are done while
   // everything they use is there.
   TpmWorker worker_;
};

}  // namespace SentrelAttestd
