// An attestz AttestRequest as any client may send it: any bytes parsed as
// one, checked as the service checks it before the TPM is asked, and
// described as its log line shows it.
//
// The seeds are requests in protobuf's text format, encoded so:
//   protoc --proto_path=. --encode=openconfig.attestz.AttestRequest attest/attestz.proto
//     <request.txt >fuzz/corpus/attest_request_fuzz/NAME
#include <cstdlib>
#include <google/protobuf/stubs/logging.h>

#include "FuzzSupport.h"
#include "attest/AttestRequestCheck.h"

namespace {

// Text from the wire reaches the log only as printable ASCII.
bool printable(std::string const &text) {
   for (unsigned char const c : text) {
      if (c < 0x20 || c > 0x7e) return false;
   }
   return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelAttestd;
   // protobuf reports strings that are not UTF-8 on standard error: not a finding.
   static bool const quiet = (google::protobuf::SetLogHandler([](auto, auto, auto, auto const &) {}), true);
   (void)quiet;
   static CardIdentity const card{"Example Networks", "EX-4832", "EXN2047A0193", {}};
   AttestRequest request;
   if (!request.ParseFromArray(data, static_cast<int>(size))) return 0;

   String const line = describeRequest(request);
   if (line.size() > 512 || !printable(line)) std::abort();
   auto const checked = checkAttestRequest(request, card);
   if (auto const *refused = std::get_if<grpc::Status>(&checked)) {
      auto const code = refused->error_code();
      if (code != grpc::StatusCode::INVALID_ARGUMENT && code != grpc::StatusCode::NOT_FOUND) std::abort();
      if (refused->error_message().empty() || !printable(refused->error_message())) std::abort();
      return 0;
   }
   // What the TPM is asked for is what the request asked, within the TPM's bounds.
   auto const &wanted = std::get<QuoteWanted>(checked);
   if (wanted.nonce != request.nonce() || wanted.nonce.empty() || wanted.nonce.size() > SentrelTpm::kMaxNonceBytes) {
      std::abort();
   }
   if (wanted.bank != bankOf(request.hash_algo()) || wanted.bank == TPM2_ALG_NULL) std::abort();
   if (wanted.pcrs.none() || wanted.pcrs.count() > static_cast<std::size_t>(request.pcr_indices_size())) std::abort();
   for (std::int32_t const index : request.pcr_indices()) {
      if (index < 0 || index >= static_cast<std::int32_t>(wanted.pcrs.size()) || !wanted.pcrs.test(static_cast<std::size_t>(index))) {
         std::abort();
      }
   }
   return 0;
}
