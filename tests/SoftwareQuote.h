#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "attest/attestz.pb.h"
#include "tests/EventLogWriter.h"

typedef struct evp_pkey_st EVP_PKEY;

// Quotes as a TPM makes them, made without one: an OpenSSL key signs a
// TPMS_ATTEST that tpm2-tss marshals. For the fake switches of the tests,
// the fuzzer's seeds and the benchmarks; the checks themselves are tested
// on quotes of a real software TPM made by tpm2-tools.
namespace SentrelTest {

using openconfig::attestz::AttestResponse;

// What a switch holds after the boot that `plan` logs: the log as a
// canonical event log, and every PCR of `bank` as the log replays it
// (zeros where the log does not extend it).
struct Boot {
   String eventLog;
   std::map<std::uint32_t, String> pcrs;
};
Boot bootOf(LogPlan const &plan, std::uint16_t bank);

class SoftwareAttestationKey {
 public:
   // A fresh NIST P-256 key; with `rsa`, a 2048-bit RSA key (RSASSA).
   explicit SoftwareAttestationKey(bool rsa = false);
   // The key of a PEM private key (EC or RSA), for seeds that stay the same.
   explicit SoftwareAttestationKey(String const &privateKeyPem);
   SoftwareAttestationKey(SoftwareAttestationKey const &) = delete;
   ~SoftwareAttestationKey();
   String publicKeyPem() const;

   // The TPMS_ATTEST of a quote of `pcrs` of `bank` holding `values`, with
   // `nonce` as extraData, marshalled.
   String quoted(String const &nonce, std::uint16_t bank, std::vector<std::uint32_t> const &pcrs,
                 std::map<std::uint32_t, String> const &values) const;
   // The marshalled TPMT_SIGNATURE over `quoted`, SHA-256.
   String sign(String const &quoted) const;
   // A switch's whole answer to a request for `pcrs` of `bank`.
   AttestResponse respond(String const &nonce, Boot const &boot, std::uint16_t bank,
                          std::vector<std::uint32_t> const &pcrs) const;

 private:
   EVP_PKEY *key_;
   bool rsa_;
};

// The PCRs 0-9 and 12-14, what the verifier asks for unless told otherwise.
std::vector<std::uint32_t> defaultPcrs();

// A boot of a few events over PCRs 0-7, 9 and 14, one of them the boot
// application `bootApplication` in PCR 4.
LogPlan smallBoot(std::string_view bootApplication = "\\EFI\\BOOT\\grubx64.efi");

}  // namespace SentrelTest
