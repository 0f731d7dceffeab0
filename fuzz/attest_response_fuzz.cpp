// A switch's answer, which the verifier trusts in nothing: any bytes as an
// AttestResponse (protobuf's wire form, then its JSON mapping) through every
// check with a fixed key, nonce and baseline; and as the raw TPMS_ATTEST,
// TPMT_SIGNATURE and event log each check decodes.
// The seeds come from fuzz/attest_response_seeds.cpp.
#include <cstdlib>
#include <google/protobuf/stubs/logging.h>

#include "AttestFuzzKey.h"
#include "FuzzSupport.h"
#include "attest/QuoteChecks.h"
#include "attest/ResponseJson.h"
#include "attest/TrustAnchors.h"
#include "evidence/Cel.h"

namespace {

using namespace SentrelAttest;

Expectation const &expected() {
   static auto const *keys = [] {
      // A response that does not parse is what the fuzzer makes most: protobuf need not say so each time.
      google::protobuf::SetLogHandler(nullptr);
      setenv("TSS2_LOG", "marshal+none", 0);
      String problem;
      return new std::vector<PublicKey>(readPublicKeys(SentrelFuzz::kAttestKeyPublicPem, problem));
   }();
   static Expectation const e{SentrelFuzz::kAttestNonce, SentrelEvidence::kAlgSha256, std::nullopt, {*keys, nullptr}};
   return e;
}

// What every judgement holds to, whatever the response.
void judgeAndCheck(AttestResponse const &r, Expectation const &e) {
   Judgement const j = judge(r, e);
   bool const trusted = j.verdict == Verdict::Trusted;
   if (j.verdict == Verdict::Unreachable || trusted != j.reason.empty() || trusted == j.failed.has_value()) std::abort();
   // The findings come with check 5 alone: a trusted switch has them, one that failed before has none.
   if (j.failed != Check::EventLog && j.evidence.has_value() != trusted) std::abort();
   if (j.reason.size() > (std::size_t{1} << 20)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   String const bytes(reinterpret_cast<char const *>(data), size);
   Expectation const &e = expected();
   AttestResponse r;
   if (r.ParseFromString(bytes)) {
      judgeAndCheck(r, e);
      // With the response's own log as the baseline, and over any PCRs.
      auto const log = SentrelEvidence::parseCanonicalEventLog(r.eventlog_bytes());
      Expectation withBaseline = e;
      if (auto const *l = std::get_if<SentrelEvidence::EventLog>(&log)) withBaseline.baseline = l;
      judgeAndCheck(r, withBaseline);
   }
   AttestResponse fromJson;
   if (!responseFromJson(bytes, fromJson)) judgeAndCheck(fromJson, e);
   // Each decoder alone, on the bytes themselves.
   (void)checkSignature(bytes, bytes, e.trust.keys);
   (void)checkQuote(bytes, e, r.pcr_values());
   auto const log = checkEventLog(bytes, SentrelEvidence::kAlgSha256, r.pcr_values(), nullptr);
   if (!log.findings && !log.failure) std::abort();
   return 0;
}
