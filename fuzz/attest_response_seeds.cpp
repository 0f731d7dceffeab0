// Writes the seeds of attest_response_fuzz: responses as a switch sends them
// (protobuf's wire form), quoted and signed with the fuzzer's key over its
// nonce, so that every check is reached. Regenerate them after a change of
// the proto or of the tests' quote writer:
//   cmake --build build --target attest_response_seeds
//   build/bin/attest_response_seeds fuzz/corpus/attest_response_fuzz
#include <cstdio>
#include <fstream>

#include "AttestFuzzKey.h"
#include "attest/ResponseJson.h"
#include "tests/SoftwareQuote.h"

using namespace SentrelTest;
using namespace SentrelEvidence;

int main(int argc, char **argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
      return 2;
   }
   auto const write = [&](char const *name, String const &bytes) {
      std::ofstream(std::string(argv[1]) + "/" + name, std::ios::binary) << bytes;
   };
   SoftwareAttestationKey const key{String(SentrelFuzz::kAttestKeyPrivatePem)};
   String const nonce = SentrelFuzz::kAttestNonce;
   Boot const boot = bootOf(smallBoot(), kAlgSha256);
   AttestResponse const trusted = key.respond(nonce, boot, kAlgSha256, defaultPcrs());
   write("trusted-cel", trusted.SerializeAsString());
   write("trusted-cel.json", *SentrelAttest::responseToJson(trusted));
   AttestResponse binary = trusted;
   binary.set_eventlog_bytes(writeEventLog(smallBoot()));
   write("trusted-binary-log", binary.SerializeAsString());
   LogPlan firmware{.banks = {kAlgSha256}};
   firmware.events = firmwareEvents(30, 5);
   AttestResponse const longer = key.respond(nonce, bootOf(firmware, kAlgSha256), kAlgSha256, defaultPcrs());
   write("firmware-events", longer.SerializeAsString());
   AttestResponse const eight = key.respond(nonce, boot, kAlgSha256, {0, 1, 2, 3, 4, 5, 6, 7});
   write("pcrs-0-7-unquoted-9-14", eight.SerializeAsString());
   AttestResponse certified = trusted;
   certified.mutable_attestation_cert()->set_oiak_cert(
      "-----BEGIN CERTIFICATE-----\nMIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEA\n-----END CERTIFICATE-----\n");
   write("a-certificate", certified.SerializeAsString());
   write("quoted", trusted.quoted());
   write("quote-signature", trusted.quote_signature());
   write("event-log-cel", trusted.eventlog_bytes());
   return 0;
}
