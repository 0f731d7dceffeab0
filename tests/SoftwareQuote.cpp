#include "tests/SoftwareQuote.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdexcept>
#include <tss2/tss2_mu.h>

#include "evidence/Cel.h"

namespace SentrelTest {

using namespace SentrelEvidence;

namespace {

EVP_MD const *digestOf(std::uint16_t bank) {
   switch (bank) {
      case kAlgSha1: return EVP_sha1();
      case kAlgSha384: return EVP_sha384();
      case kAlgSha512: return EVP_sha512();
      default: return EVP_sha256();
   }
}

String hash(EVP_MD const *md, String const &bytes) {
   unsigned char out[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   EVP_Digest(bytes.data(), bytes.size(), out, &size, md, nullptr);
   return String(reinterpret_cast<char const *>(out), size);
}

template <class T>
void fill(T &sized, String const &bytes) {
   if (bytes.size() > sizeof sized.buffer) throw std::length_error("too long for its TPM2B");
   sized.size = static_cast<std::uint16_t>(bytes.size());
   std::copy(bytes.begin(), bytes.end(), sized.buffer);
}

}  // namespace

Boot bootOf(LogPlan const &plan, std::uint16_t bank) {
   Boot boot;
   auto const parsed = parseEventLog(writeEventLog(plan));
   boot.eventLog = canonicalEventLogJson(std::get<EventLog>(parsed));
   auto const replayed = replayedPcrs(plan);
   std::size_t const size = static_cast<std::size_t>(EVP_MD_get_size(digestOf(bank)));
   for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
      auto const v = replayed.find({bank, pcr});
      boot.pcrs[pcr] = v != replayed.end() ? v->second : String(size, '\0');
   }
   return boot;
}

SoftwareAttestationKey::SoftwareAttestationKey(bool rsa)
    : key_(rsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256")), rsa_(rsa) {
   if (!key_) throw std::runtime_error("OpenSSL made no key");
}

SoftwareAttestationKey::SoftwareAttestationKey(String const &privateKeyPem) : key_(nullptr), rsa_(false) {
   BIO *bio = BIO_new_mem_buf(privateKeyPem.data(), static_cast<int>(privateKeyPem.size()));
   key_ = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
   BIO_free(bio);
   if (!key_) throw std::runtime_error("OpenSSL reads no private key");
   rsa_ = EVP_PKEY_is_a(key_, "RSA") == 1;
}

SoftwareAttestationKey::~SoftwareAttestationKey() { EVP_PKEY_free(key_); }

String SoftwareAttestationKey::publicKeyPem() const {
   BIO *bio = BIO_new(BIO_s_mem());
   PEM_write_bio_PUBKEY(bio, key_);
   char *data = nullptr;
   long const size = BIO_get_mem_data(bio, &data);
   String pem(data, static_cast<std::size_t>(size));
   BIO_free(bio);
   return pem;
}

String SoftwareAttestationKey::quoted(String const &nonce, std::uint16_t bank, std::vector<std::uint32_t> const &pcrs,
                                      std::map<std::uint32_t, String> const &values) const {
   TPMS_ATTEST a{};
   a.magic = TPM2_GENERATED_VALUE;
   a.type = TPM2_ST_ATTEST_QUOTE;
   a.qualifiedSigner.size = 34;  // the name of no key in particular
   a.qualifiedSigner.name[1] = 0x0b;
   fill(a.extraData, nonce);
   a.clockInfo.clock = 1000;
   a.clockInfo.safe = 1;
   a.firmwareVersion = 0x2019102300163636;
   auto &select = a.attested.quote.pcrSelect;
   select.count = 1;
   select.pcrSelections[0].hash = bank;
   select.pcrSelections[0].sizeofSelect = 3;
   String concatenated;
   for (auto const pcr : pcrs) {
      select.pcrSelections[0].pcrSelect[pcr / 8] |= static_cast<std::uint8_t>(1u << pcr % 8);
   }
   // The digest is over the values in ascending order, whatever the list's.
   for (auto const &[pcr, value] : values) {
      if (select.pcrSelections[0].pcrSelect[pcr / 8] >> pcr % 8 & 1) concatenated += value;
   }
   fill(a.attested.quote.pcrDigest, hash(EVP_sha256(), concatenated));
   std::uint8_t out[sizeof a];
   std::size_t size = 0;
   if (Tss2_MU_TPMS_ATTEST_Marshal(&a, out, sizeof out, &size) != 0) throw std::runtime_error("cannot marshal");
   return String(reinterpret_cast<char const *>(out), size);
}

String SoftwareAttestationKey::sign(String const &quoted) const {
   EVP_MD_CTX *ctx = EVP_MD_CTX_new();
   std::size_t size = 0;
   EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key_);
   EVP_DigestSign(ctx, nullptr, &size, reinterpret_cast<unsigned char const *>(quoted.data()), quoted.size());
   String signature(size, '\0');
   EVP_DigestSign(ctx, reinterpret_cast<unsigned char *>(signature.data()), &size,
                  reinterpret_cast<unsigned char const *>(quoted.data()), quoted.size());
   EVP_MD_CTX_free(ctx);
   signature.resize(size);
   TPMT_SIGNATURE s{};
   if (rsa_) {
      s.sigAlg = TPM2_ALG_RSASSA;
      s.signature.rsassa.hash = TPM2_ALG_SHA256;
      fill(s.signature.rsassa.sig, signature);
   } else {
      // The TPM's form of an ECDSA signature: r and s, each its own number.
      auto const *p = reinterpret_cast<unsigned char const *>(signature.data());
      ECDSA_SIG *ecdsa = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(signature.size()));
      String r(32, '\0'), ss(32, '\0');
      BN_bn2binpad(ECDSA_SIG_get0_r(ecdsa), reinterpret_cast<unsigned char *>(r.data()), 32);
      BN_bn2binpad(ECDSA_SIG_get0_s(ecdsa), reinterpret_cast<unsigned char *>(ss.data()), 32);
      ECDSA_SIG_free(ecdsa);
      s.sigAlg = TPM2_ALG_ECDSA;
      s.signature.ecdsa.hash = TPM2_ALG_SHA256;
      fill(s.signature.ecdsa.signatureR, r);
      fill(s.signature.ecdsa.signatureS, ss);
   }
   std::uint8_t out[sizeof s];
   std::size_t used = 0;
   if (Tss2_MU_TPMT_SIGNATURE_Marshal(&s, out, sizeof out, &used) != 0) throw std::runtime_error("cannot marshal");
   return String(reinterpret_cast<char const *>(out), used);
}

AttestResponse SoftwareAttestationKey::respond(String const &nonce, Boot const &boot, std::uint16_t bank,
                                               std::vector<std::uint32_t> const &pcrs) const {
   AttestResponse r;
   std::map<std::uint32_t, String> values;
   for (auto const pcr : pcrs) values[pcr] = boot.pcrs.at(pcr);
   for (auto const &[pcr, value] : values) (*r.mutable_pcr_values())[static_cast<std::int32_t>(pcr)] = value;
   r.set_quoted(quoted(nonce, bank, pcrs, values));
   r.set_quote_signature(sign(r.quoted()));
   r.set_eventlog_bytes(boot.eventLog);
   auto *id = r.mutable_control_card_id();
   id->set_control_card_role(openconfig::attestz::CONTROL_CARD_ROLE_ACTIVE);
   id->set_chassis_manufacturer("Sentrel test");
   return r;
}

std::vector<std::uint32_t> defaultPcrs() { return {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14}; }

LogPlan smallBoot(std::string_view bootApplication) {
   LogPlan plan{.banks = {kAlgSha256}};
   plan.events.push_back({0, EV_S_CRTM_VERSION, utf16("1.02"), {}});
   plan.events.push_back({1, EV_EFI_VARIABLE_BOOT, uefiVariableData("BootOrder", "\x01"), {}});
   plan.events.push_back({7, EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), {}});
   for (std::uint32_t pcr = 0; pcr < 8; ++pcr) {
      plan.events.push_back({pcr, EV_SEPARATOR, String(4, '\0'), {}});
   }
   plan.events.push_back({4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData(bootApplication), {}});
   plan.events.push_back({9, EV_IPL, "grub.cfg", {}});
   plan.events.push_back({14, EV_IPL, "MokList", {}});
   return plan;
}

}  // namespace SentrelTest
