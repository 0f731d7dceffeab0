// The verifier's work for one switch: its response parsed from the wire
// and judged by the five checks (key, signature, quote, PCR digest, the log
// replayed against the quoted PCRs and compared with the baseline), against
// the least a verification can cost: OpenSSL hashing the log's digests as a
// replay extends them, and checking one ECDSA signature. Both run in every
// iteration and are timed by this thread's CPU clock.
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include "HashFloor.h"
#include "attest/QuoteChecks.h"
#include "attest/TrustAnchors.h"
#include "evidence/Cel.h"
#include "tests/SoftwareQuote.h"

using namespace SentrelEvidence;
using namespace SentrelAttest;
using SentrelBench::HashFloor;
using SentrelBench::Seconds;
using SentrelBench::threadCpu;

namespace {

// One signature check with OpenSSL, of a signature as OpenSSL makes it.
class SignatureFloor {
 public:
   explicit SignatureFloor(String const &message) : key_(EVP_EC_gen("P-256")), message_(message) {
      EVP_MD_CTX *ctx = EVP_MD_CTX_new();
      std::size_t size = 0;
      EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key_);
      EVP_DigestSign(ctx, nullptr, &size, bytes(message_), message_.size());
      signature_.resize(size);
      EVP_DigestSign(ctx, reinterpret_cast<unsigned char *>(signature_.data()), &size, bytes(message_), message_.size());
      signature_.resize(size);
      EVP_MD_CTX_free(ctx);
   }
   SignatureFloor(SignatureFloor const &) = delete;
   ~SignatureFloor() { EVP_PKEY_free(key_); }
   bool run() const {
      EVP_MD_CTX *ctx = EVP_MD_CTX_new();
      bool const ok = EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key_) == 1 &&
                      EVP_DigestVerify(ctx, bytes(signature_), signature_.size(), bytes(message_), message_.size()) == 1;
      EVP_MD_CTX_free(ctx);
      return ok;
   }

 private:
   static unsigned char const *bytes(String const &s) { return reinterpret_cast<unsigned char const *>(s.data()); }
   EVP_PKEY *key_;
   String message_, signature_;
};

// range(0): events in the log; range(1): 0 a canonical event log, 1 the binary log.
void BM_VerifyResponse(benchmark::State &state) {
   auto const events = static_cast<std::size_t>(state.range(0));
   bool const binary = state.range(1) == 1;
   // Firmware logs carry SHA-1 beside SHA-256: the replay computes both.
   SentrelTest::LogPlan plan{.banks = {kAlgSha1, kAlgSha256}};
   plan.events = SentrelTest::firmwareEvents(events, 7);
   SentrelTest::SoftwareAttestationKey const key;
   auto const boot = SentrelTest::bootOf(plan, kAlgSha256);
   String const nonce(32, 'n');
   AttestResponse response = key.respond(nonce, boot, kAlgSha256, SentrelTest::defaultPcrs());
   if (binary) response.set_eventlog_bytes(SentrelTest::writeEventLog(plan));
   String const wire = response.SerializeAsString();

   auto const baseline = std::get<EventLog>(parseCanonicalEventLog(boot.eventLog));
   String problem;
   Expectation const expected{nonce, kAlgSha256, std::nullopt, {readPublicKeys(key.publicKeyPem(), problem), nullptr},
                              &baseline};
   if (judge(response, expected).verdict != Verdict::Trusted) return state.SkipWithError("the response is not trusted");
   HashFloor hashes(baseline);
   SignatureFloor const signature(response.quoted());

   Seconds verifyTime{}, floorTime{};
   for (auto _ : state) {
      auto const start = threadCpu();
      {
         AttestResponse received;
         received.ParseFromString(wire);
         benchmark::DoNotOptimize(judge(received, expected).verdict);
      }
      auto const verified = threadCpu();
      hashes.run();
      benchmark::DoNotOptimize(signature.run());
      auto const floored = threadCpu();
      verifyTime += verified - start;
      floorTime += floored - verified;
      state.SetIterationTime((verified - start).count());
   }
   auto const perRun = [&](Seconds d) { return d.count() * 1e6 / static_cast<double>(state.iterations()); };
   state.counters["verify_us"] = perRun(verifyTime);
   state.counters["floor_us"] = perRun(floorTime);
   state.counters["verify/floor"] = perRun(verifyTime) / perRun(floorTime);
   state.counters["response_KiB"] = static_cast<double>(wire.size()) / 1024;
}
BENCHMARK(BM_VerifyResponse)
   ->ArgNames({"events", "binary"})
   ->Args({100, 0})
   ->Args({1000, 0})
   ->Args({100, 1})
   ->Args({1000, 1})
   ->UseManualTime();

}  // namespace
