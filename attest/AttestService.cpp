#include "attest/AttestService.h"

#include "evidence/Bytes.h"

namespace SentrelAttestd {

AttestService::AttestService(CardIdentity card, Attestor &attestor, std::size_t maxQueued, RequestLog log)
    : card_(std::move(card)), attestor_(attestor), log_(std::move(log)), worker_(maxQueued) {}

grpc::ServerUnaryReactor *AttestService::Attest(grpc::CallbackServerContext *context, AttestRequest const *request,
                                                AttestResponse *response) {
   grpc::ServerUnaryReactor *const reactor = context->DefaultReactor();
   auto finish = [this, context, request, reactor](grpc::Status const &status) {
      String line = "Attest from " + context->peer() + ": " + describeRequest(*request) + ": " +
                    statusCodeName(status.error_code());
      if (!status.ok()) line += ": " + status.error_message();
      log_(line, status.error_code());
      reactor->Finish(status);
   };
   auto checked = checkAttestRequest(*request, card_);
   if (auto const *refused = std::get_if<grpc::Status>(&checked)) {
      finish(*refused);
      return reactor;
   }
   bool const queued = worker_.offer([this, context, response, finish, wanted = std::move(std::get<QuoteWanted>(checked))] {
      // A caller that gave up while it waited is not worth the TPM's time.
      if (context->IsCancelled()) {
         finish({grpc::StatusCode::CANCELLED, "the caller cancelled the request, or its deadline passed, while it waited for the TPM"});
         return;
      }
      finish(attestor_.attest(wanted, *response));
   });
   if (!queued && worker_.closed()) {
      finish({grpc::StatusCode::UNAVAILABLE, "the service is stopping"});
   } else if (!queued) {
      finish({grpc::StatusCode::RESOURCE_EXHAUSTED,
              SentrelEvidence::concat("the TPM is busy and ", worker_.maxQueued(),
                                      worker_.maxQueued() == 1 ? " request waits" : " requests wait",
                                      " for it already: ask again later")});
   }
   return reactor;
}

bool AttestService::drain(std::chrono::milliseconds grace) {
   worker_.close();
   return worker_.waitIdle(std::chrono::steady_clock::now() + grace);
}

}  // namespace SentrelAttestd

