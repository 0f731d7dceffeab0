#pragma once

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <tss2/tss2_mu.h>

#include "attest/attestz.pb.h"
#include "evidence/Cel.h"
#include "evidence/TpmAlgorithm.h"
#include "tests/EventLogWriter.h"

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

inline Boot bootOf(LogPlan const &plan, std::uint16_t bank) {
   using namespace SentrelEvidence;
   return {canonicalEventLogJson(std::get<EventLog>(parseEventLog(writeEventLog(plan)))), replayedBank(plan, bank)};
}

// A TPM structure as the TPM writes it.
template <class T>
String marshalled(T const &value, TSS2_RC (*marshal)(T const *, std::uint8_t *, std::size_t, std::size_t *)) {
   std::uint8_t out[sizeof value];
   std::size_t size = 0;
   marshal(&value, out, sizeof out, &size);
   return String(reinterpret_cast<char const *>(out), size);
}

// An ECDSA P-256 key: a fresh one, or that of a PEM private key for seeds
// that stay the same.
struct SoftwareAttestationKey {
   SoftwareAttestationKey() : key(EVP_EC_gen("P-256"), EVP_PKEY_free) {}
   explicit SoftwareAttestationKey(String const &privateKeyPem) {
      BIO *bio = BIO_new_mem_buf(privateKeyPem.data(), static_cast<int>(privateKeyPem.size()));
      key.reset(PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr), EVP_PKEY_free);
      BIO_free(bio);
   }

   String publicKeyPem() const {
      BIO *bio = BIO_new(BIO_s_mem());
      PEM_write_bio_PUBKEY(bio, key.get());
      char *data = nullptr;
      long const size = BIO_get_mem_data(bio, &data);
      String pem(data, static_cast<std::size_t>(size));
      BIO_free(bio);
      return pem;
   }

   // A switch's whole answer to a request for `pcrs` of `bank` with `nonce`.
   AttestResponse respond(String const &nonce, Boot const &boot, std::uint16_t bank,
                          std::vector<std::uint32_t> const &pcrs) const {
      AttestResponse r;
      TPMS_ATTEST a{};
      a.magic = TPM2_GENERATED_VALUE;
      a.type = TPM2_ST_ATTEST_QUOTE;
      a.extraData.size = static_cast<std::uint16_t>(nonce.size());
      std::copy(nonce.begin(), nonce.end(), a.extraData.buffer);
      auto &select = a.attested.quote.pcrSelect;
      select.count = 1;
      select.pcrSelections[0] = {.hash = bank, .sizeofSelect = 3, .pcrSelect = {}};
      for (auto const pcr : pcrs) {
         select.pcrSelections[0].pcrSelect[pcr / 8] |= static_cast<std::uint8_t>(1u << pcr % 8);
         (*r.mutable_pcr_values())[static_cast<std::int32_t>(pcr)] = boot.pcrs.at(pcr);
      }
      String concatenated;  // the values in ascending order, whatever the request's
      for (auto const &[pcr, value] : boot.pcrs) concatenated += r.pcr_values().count(pcr) ? value : "";
      a.attested.quote.pcrDigest.size = 32;
      EVP_Digest(concatenated.data(), concatenated.size(), a.attested.quote.pcrDigest.buffer, nullptr, EVP_sha256(),
                 nullptr);
      r.set_quoted(marshalled(a, Tss2_MU_TPMS_ATTEST_Marshal));

      unsigned char der[80];
      std::size_t size = sizeof der;
      EVP_MD_CTX *ctx = EVP_MD_CTX_new();
      EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key.get());
      EVP_DigestSign(ctx, der, &size, reinterpret_cast<unsigned char const *>(r.quoted().data()), r.quoted().size());
      EVP_MD_CTX_free(ctx);
      // The TPM's form of an ECDSA signature: r and s, each its own number.
      unsigned char const *p = der;
      ECDSA_SIG *ecdsa = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(size));
      TPMT_SIGNATURE s{};
      s.sigAlg = TPM2_ALG_ECDSA;
      auto &e = s.signature.ecdsa;
      e.hash = TPM2_ALG_SHA256;
      e.signatureR.size = e.signatureS.size = 32;
      BN_bn2binpad(ECDSA_SIG_get0_r(ecdsa), e.signatureR.buffer, 32);
      BN_bn2binpad(ECDSA_SIG_get0_s(ecdsa), e.signatureS.buffer, 32);
      ECDSA_SIG_free(ecdsa);
      r.set_quote_signature(marshalled(s, Tss2_MU_TPMT_SIGNATURE_Marshal));
      r.set_eventlog_bytes(boot.eventLog);
      return r;
   }

   std::shared_ptr<EVP_PKEY> key;
};

// The PCRs 0-9 and 12-14, what the verifier asks for unless told otherwise.
inline std::vector<std::uint32_t> defaultPcrs() { return {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14}; }

// A boot of a few events over PCRs 0-7, 9 and 14, one of them the boot
// application `bootApplication` in PCR 4.
inline LogPlan smallBoot(std::string_view bootApplication = "\\EFI\\BOOT\\grubx64.efi") {
   using namespace SentrelEvidence;
   LogPlan plan{.banks = {kAlgSha256}};
   plan.events.push_back({0, EV_S_CRTM_VERSION, utf16("1.02"), {}});
   plan.events.push_back({1, EV_EFI_VARIABLE_BOOT, uefiVariableData("BootOrder", "\x01"), {}});
   plan.events.push_back({7, EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), {}});
   for (std::uint32_t pcr = 0; pcr < 8; ++pcr) plan.events.push_back({pcr, EV_SEPARATOR, String(4, '\0'), {}});
   plan.events.push_back({4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData(bootApplication), {}});
   plan.events.push_back({9, EV_IPL, "grub.cfg", {}});
   plan.events.push_back({14, EV_IPL, "MokList", {}});
   return plan;
}

}  // namespace SentrelTest
