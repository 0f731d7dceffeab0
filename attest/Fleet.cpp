#include "attest/Fleet.h"

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/support/channel_arguments.h>
#include <algorithm>
#include <map>
#include <openssl/rand.h>
#include <stdexcept>

#include "attest/attestz.grpc.pb.h"

namespace SentrelAttest {

namespace {

using namespace openconfig::attestz;

// A fresh nonce per switch and per run: a quote of it cannot be an old one.
constexpr std::size_t kNonceBytes = 32;

Tpm20HashAlgo hashAlgo(std::uint16_t bank) {
   switch (bank) {
      case SentrelEvidence::kAlgSha1: return TPM_2_0_HASH_ALGO_SHA1;
      case SentrelEvidence::kAlgSha384: return TPM_2_0_HASH_ALGO_SHA384;
      case SentrelEvidence::kAlgSha512: return TPM_2_0_HASH_ALGO_SHA512;
      default: return TPM_2_0_HASH_ALGO_SHA256;
   }
}

// One switch's call, alive from its start to its completion.
struct Call {
   std::size_t index = 0;
   String nonce;
   std::shared_ptr<grpc::Channel> channel;
   std::unique_ptr<TpmAttestzService::Stub> stub;
   grpc::ClientContext context;
   AttestRequest request;
   AttestResponse response;
   grpc::Status status;
   std::unique_ptr<grpc::ClientAsyncResponseReader<AttestResponse>> reader;
};

}  // namespace

String statusText(grpc::StatusCode code, String const &message) {
   static char const *const names[] = {"OK",
                                       "CANCELLED",
                                       "UNKNOWN",
                                       "INVALID_ARGUMENT",
                                       "DEADLINE_EXCEEDED",
                                       "NOT_FOUND",
                                       "ALREADY_EXISTS",
                                       "PERMISSION_DENIED",
                                       "RESOURCE_EXHAUSTED",
                                       "FAILED_PRECONDITION",
                                       "ABORTED",
                                       "OUT_OF_RANGE",
                                       "UNIMPLEMENTED",
                                       "INTERNAL",
                                       "UNAVAILABLE",
                                       "DATA_LOSS",
                                       "UNAUTHENTICATED"};
   auto const n = static_cast<std::size_t>(code);
   String const name = n < std::size(names) ? names[n] : "status " + std::to_string(n);
   return message.empty() ? name : name + ": " + message;
}

std::vector<Judgement> attestFleet(std::vector<Target> const &targets, FleetOptions const &options) {
   std::vector<Judgement> judgements(targets.size());
   grpc::CompletionQueue queue;
   grpc::ChannelArguments args;
   args.SetMaxReceiveMessageSize(static_cast<int>(options.maxResponseBytes));
   // Each switch its own connection: one that misbehaves touches no other.
   args.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
   // Every nonce before any call: nothing is in flight should OpenSSL fail.
   std::vector<String> nonces(targets.size(), String(kNonceBytes, '\0'));
   for (auto &n : nonces) {
      if (RAND_bytes(reinterpret_cast<unsigned char *>(n.data()), kNonceBytes) != 1) {
         throw std::runtime_error("OpenSSL gives no random bytes for a nonce");
      }
   }
   std::map<Call *, std::unique_ptr<Call>> inFlight;
   std::size_t next = 0, done = 0;

   auto start = [&]() {
      auto call = std::make_unique<Call>();
      call->index = next++;
      Target const &t = targets[call->index];
      call->nonce = std::move(nonces[call->index]);
      call->request.mutable_control_card_selection()->set_role(CONTROL_CARD_ROLE_ACTIVE);
      call->request.set_nonce(call->nonce);
      call->request.set_hash_algo(hashAlgo(options.bank));
      for (std::size_t pcr = 0; pcr < options.pcrs.size(); ++pcr) {
         if (options.pcrs.test(pcr)) call->request.add_pcr_indices(static_cast<std::int32_t>(pcr));
      }
      call->channel = grpc::CreateCustomChannel(t.address, options.credentials, args);
      call->stub = TpmAttestzService::NewStub(call->channel);
      call->context.set_deadline(std::chrono::system_clock::now() + options.timeout);
      call->reader = call->stub->AsyncAttest(&call->context, call->request, &queue);
      call->reader->Finish(&call->response, &call->status, call.get());
      Call *tag = call.get();
      inFlight.emplace(tag, std::move(call));
   };

   std::size_t const jobs = std::max(1u, options.jobs);
   while (next < targets.size() && inFlight.size() < jobs) start();
   while (!inFlight.empty()) {
      void *tag = nullptr;
      bool ok = false;
      if (!queue.Next(&tag, &ok)) break;
      auto node = inFlight.extract(static_cast<Call *>(tag));
      Call &call = *node.mapped();
      Target const &t = targets[call.index];
      Judgement &j = judgements[call.index];
      if (!call.status.ok()) {
         j.verdict = Verdict::Unreachable;
         j.reason = statusText(call.status.error_code(), call.status.error_message());
      } else if (!ok) {
         // The switch answered, with something that is not a response: a
         // switch that cannot say what it booted is not trusted.
         j.verdict = Verdict::Untrusted;
         j.reason = "the switch's answer is not an AttestResponse";
      } else {
         if (options.received) options.received(t, call.nonce, call.response);
         j = judge(call.response, Expectation{call.nonce, options.bank, options.pcrs, t.trust, t.baseline});
      }
      node.mapped().reset();
      ++done;
      if (options.progress) options.progress(done, targets.size());
      while (next < targets.size() && inFlight.size() < jobs) start();
   }
   queue.Shutdown();
   void *tag = nullptr;
   bool ok = false;
   while (queue.Next(&tag, &ok)) {
   }
   return judgements;
}

}  // namespace SentrelAttest
