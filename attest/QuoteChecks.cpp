#include "attest/QuoteChecks.h"

#include <algorithm>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_rc.h>

#include "attest/TrustAnchors.h"
#include "evidence/Cel.h"

namespace SentrelAttest {

using namespace SentrelEvidence;

namespace {

template <class T, void (*Free)(T *)>
struct Freer {
   void operator()(T *p) const { Free(p); }
};
struct X509StackFree {
   void operator()(STACK_OF(X509) * s) const { sk_X509_free(s); }  // the certificates stay their owners'
};
using X509Stack = std::unique_ptr<STACK_OF(X509), X509StackFree>;
using StoreCtx = std::unique_ptr<X509_STORE_CTX, Freer<X509_STORE_CTX, X509_STORE_CTX_free>>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX, EVP_MD_CTX_free>>;
using EcdsaSig = std::unique_ptr<ECDSA_SIG, Freer<ECDSA_SIG, ECDSA_SIG_free>>;

// OpenSSL's reason for the last failure, and its queue left empty.
String openSslError() {
   unsigned long const e = ERR_peek_last_error();
   char text[256] = {};
   if (e != 0) ERR_error_string_n(e, text, sizeof text);
   ERR_clear_error();
   return e != 0 ? String(text) : String("unknown error");
}

std::uint8_t const *bytes(String const &s) { return reinterpret_cast<std::uint8_t const *>(s.data()); }

// The certificate chain the response carries: leaf first, as attestz has it.
String certificateOf(AttestResponse const &r) {
   auto const &cert = r.attestation_cert();
   if (cert.value_case() == openconfig::attestz::AttestationCert::kOiakCert) return cert.oiak_cert();
   if (cert.value_case() == openconfig::attestz::AttestationCert::kAikCert) return cert.aik_cert();
   // Where switches of attestz's first version send it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
   return r.oiak_cert();
#pragma GCC diagnostic pop
}

bool sameKey(EVP_PKEY const *a, EVP_PKEY const *b) { return EVP_PKEY_eq(a, b) == 1; }

}  // namespace

PublicKey publicKey(EVP_PKEY *key) {
   return key ? PublicKey(key, EVP_PKEY_free) : PublicKey();
}

char const *checkName(Check check) {
   switch (check) {
      case Check::Key: return "attestation key";
      case Check::Signature: return "signature";
      case Check::Quote: return "quote";
      case Check::PcrDigest: return "PCR digest";
      case Check::EventLog: return "event log";
   }
   return "?";
}

char const *verdictName(Verdict verdict) {
   switch (verdict) {
      case Verdict::Trusted: return "trusted";
      case Verdict::Untrusted: return "untrusted";
      case Verdict::Unreachable: return "unreachable";
   }
   return "?";
}

std::variant<std::vector<PublicKey>, Failure> trustedKeys(AttestResponse const &response, Trust const &trust) {
   auto fail = [](String why) { return Failure{Check::Key, std::move(why)}; };
   String const pem = certificateOf(response);
   if (pem.empty()) {
      if (!trust.keys.empty()) return trust.keys;
      return fail(trust.ownerCa ? "the response carries no attestation certificate for --owner-ca to check"
                                : "no attestation key is trusted for this switch (the inventory or --ak)");
   }
   String problem;
   auto const chain = readCertificates(pem, problem);
   if (chain.empty()) return fail("the attestation certificate cannot be read: " + problem);
   PublicKey const key = publicKey(X509_get_pubkey(chain.front().get()));
   if (!key) return fail("the attestation certificate holds no public key OpenSSL can read: " + openSslError());
   for (auto const &k : trust.keys) {
      if (sameKey(k.get(), key.get())) return std::vector<PublicKey>{key};
   }
   if (!trust.ownerCa) {
      return fail(trust.keys.empty()
                     ? "the response's attestation certificate cannot be checked: no --owner-ca"
                     : "the attestation certificate's key is not the attestation key trusted for this switch");
   }
   X509Stack intermediates(sk_X509_new_null());
   for (std::size_t i = 1; i < chain.size() && intermediates; ++i) sk_X509_push(intermediates.get(), chain[i].get());
   StoreCtx ctx(X509_STORE_CTX_new());
   if (!ctx || !intermediates ||
       X509_STORE_CTX_init(ctx.get(), trust.ownerCa, chain.front().get(), intermediates.get()) != 1) {
      return fail("cannot check the attestation certificate: " + openSslError());
   }
   if (X509_verify_cert(ctx.get()) != 1) {
      int const err = X509_STORE_CTX_get_error(ctx.get());
      ERR_clear_error();
      return fail(concat("the attestation certificate does not chain to --owner-ca: ",
                         X509_verify_cert_error_string(err)));
   }
   return std::vector<PublicKey>{key};
}

std::variant<Signer, Failure> checkSignature(String const &quoted, String const &signature,
                                             std::vector<PublicKey> const &keys) {
   auto fail = [](String why) { return Failure{Check::Signature, std::move(why)}; };
   TPMT_SIGNATURE sig{};
   std::size_t used = 0;
   if (TSS2_RC const rc = Tss2_MU_TPMT_SIGNATURE_Unmarshal(bytes(signature), signature.size(), &used, &sig)) {
      return fail(concat("quote_signature is not a TPMT_SIGNATURE (", signature.size(), " bytes): ", Tss2_RC_Decode(rc)));
   }
   if (used != signature.size()) {
      return fail(concat("quote_signature holds ", signature.size() - used, " bytes past its TPMT_SIGNATURE"));
   }
   // The signature as OpenSSL verifies it: DER for ECDSA, the raw block for RSA.
   String der;
   char const *keyType = "RSA";
   std::uint16_t hash = 0;
   switch (sig.sigAlg) {
      case TPM2_ALG_ECDSA: {
         keyType = "EC";
         hash = sig.signature.ecdsa.hash;
         auto const &r = sig.signature.ecdsa.signatureR;
         auto const &s = sig.signature.ecdsa.signatureS;
         EcdsaSig ecdsa(ECDSA_SIG_new());
         BIGNUM *bnR = BN_bin2bn(r.buffer, r.size, nullptr);
         BIGNUM *bnS = BN_bin2bn(s.buffer, s.size, nullptr);
         if (!ecdsa || !bnR || !bnS || ECDSA_SIG_set0(ecdsa.get(), bnR, bnS) != 1) {
            BN_free(bnR);
            BN_free(bnS);
            return fail("cannot read the ECDSA signature: " + openSslError());
         }
         unsigned char *out = nullptr;
         int const n = i2d_ECDSA_SIG(ecdsa.get(), &out);
         if (n <= 0) return fail("cannot encode the ECDSA signature: " + openSslError());
         der.assign(reinterpret_cast<char const *>(out), static_cast<std::size_t>(n));
         OPENSSL_free(out);
         break;
      }
      case TPM2_ALG_RSASSA:
      case TPM2_ALG_RSAPSS: {
         auto const &rsa = sig.sigAlg == TPM2_ALG_RSASSA ? sig.signature.rsassa : sig.signature.rsapss;
         hash = rsa.hash;
         der.assign(reinterpret_cast<char const *>(rsa.sig.buffer), rsa.sig.size);
         break;
      }
      default: return fail("the quote is signed with " + algorithmName(sig.sigAlg) + ", not ECDSA or RSA");
   }
   // A quote's signature stands for the PCRs: SHA-1's collisions are not good enough.
   TpmAlgorithm const *md = tpmAlgorithm(hash);
   if (!md || hash == kAlgSha1 || hash == kAlgSm3_256) {
      return fail("the signature's hash is " + algorithmName(hash) + ", not sha256, sha384 or sha512");
   }
   for (auto const &key : keys) {
      if (EVP_PKEY_is_a(key.get(), keyType) != 1) continue;
      MdCtx ctx(EVP_MD_CTX_new());
      EVP_PKEY_CTX *pkeyCtx = nullptr;
      bool const ok = ctx &&
                      EVP_DigestVerifyInit_ex(ctx.get(), &pkeyCtx, md->evpName, nullptr, nullptr, key.get(), nullptr) == 1 &&
                      (sig.sigAlg != TPM2_ALG_RSAPSS ||
                       (EVP_PKEY_CTX_set_rsa_padding(pkeyCtx, RSA_PKCS1_PSS_PADDING) == 1 &&
                        EVP_PKEY_CTX_set_rsa_pss_saltlen(pkeyCtx, RSA_PSS_SALTLEN_AUTO) == 1)) &&
                      EVP_DigestVerify(ctx.get(), bytes(der), der.size(), bytes(quoted), quoted.size()) == 1;
      ERR_clear_error();
      if (ok) return Signer{key, hash};
   }
   return fail(keys.size() == 1 ? "the signature does not verify with the attestation key"
                                : concat("the signature verifies with none of the ", keys.size(),
                                         " trusted attestation keys"));
}

std::variant<QuoteInfo, Failure> checkQuote(String const &quoted, Expectation const &expected,
                                            PcrValues const &pcrValues) {
   auto fail = [](String why) { return Failure{Check::Quote, std::move(why)}; };
   TPMS_ATTEST a{};
   std::size_t used = 0;
   if (TSS2_RC const rc = Tss2_MU_TPMS_ATTEST_Unmarshal(bytes(quoted), quoted.size(), &used, &a)) {
      return fail(concat("quoted is not a TPMS_ATTEST (", quoted.size(), " bytes): ", Tss2_RC_Decode(rc)));
   }
   if (used != quoted.size()) return fail(concat("quoted holds ", quoted.size() - used, " bytes past its TPMS_ATTEST"));
   if (a.magic != TPM2_GENERATED_VALUE) return fail("quoted's magic is not TPM_GENERATED_VALUE: no TPM made it");
   if (a.type != TPM2_ST_ATTEST_QUOTE) {
      return fail(concat("quoted is an attestation of type ", a.type, ", not a quote (", TPM2_ST_ATTEST_QUOTE, ")"));
   }
   String const extraData(reinterpret_cast<char const *>(a.extraData.buffer), a.extraData.size);
   if (extraData != expected.nonce) return fail("the quote is not of this nonce: its extraData is " + hexOf(extraData));
   auto const &quote = a.attested.quote;
   PcrSet selected;
   for (std::uint32_t i = 0; i < std::min<std::uint32_t>(quote.pcrSelect.count, TPM2_NUM_PCR_BANKS); ++i) {
      auto const &s = quote.pcrSelect.pcrSelections[i];
      PcrSet bits;
      for (std::size_t byte = 0; byte < std::min<std::size_t>(s.sizeofSelect, sizeof s.pcrSelect); ++byte) {
         for (std::size_t bit = 0; bit < 8; ++bit) {
            if (s.pcrSelect[byte] >> bit & 1) bits.set(byte * 8 + bit);
         }
      }
      if (bits.none()) continue;
      if (s.hash != expected.bank) {
         return fail("the quote selects PCRs of " + algorithmName(s.hash) + ", not only of " +
                     algorithmName(expected.bank));
      }
      selected |= bits;
   }
   if (expected.pcrs && selected != *expected.pcrs) {
      return fail("the quote selects PCRs " + pcrList(selected) + ", not the " + pcrList(*expected.pcrs) + " asked for");
   }
   if (!expected.pcrs && (selected & PcrSet(0xff)) != PcrSet(0xff)) {
      return fail("the quote selects PCRs " + pcrList(selected) + ", not all of 0-7");
   }
   PcrSet given;
   for (auto const &[pcr, value] : pcrValues) {
      if (pcr < 0 || static_cast<std::size_t>(pcr) >= given.size()) {
         return fail(concat("pcr_values holds PCR ", pcr, ", which no TPM has"));
      }
      given.set(static_cast<std::size_t>(pcr));
   }
   if (given != selected) {
      return fail("pcr_values holds PCRs " + pcrList(given) + ", the quote selects " + pcrList(selected));
   }
   return QuoteInfo{selected, String(reinterpret_cast<char const *>(quote.pcrDigest.buffer), quote.pcrDigest.size)};
}

std::optional<Failure> checkPcrDigest(QuoteInfo const &quote, PcrValues const &pcrValues, std::uint16_t bank,
                                      std::uint16_t hash) {
   auto fail = [](String why) { return Failure{Check::PcrDigest, std::move(why)}; };
   std::size_t const size = tpmAlgorithm(bank)->digestSize;
   String values;
   for (std::size_t pcr = 0; pcr < quote.pcrs.size(); ++pcr) {
      if (!quote.pcrs.test(pcr)) continue;
      String const &v = pcrValues.at(static_cast<std::int32_t>(pcr));
      if (v.size() != size) {
         return fail(concat("pcr_values holds ", v.size(), " bytes for PCR ", pcr, ", not the ", size, " of ",
                            algorithmName(bank)));
      }
      values += v;
   }
   unsigned char digest[EVP_MAX_MD_SIZE];
   unsigned int digestSize = 0;
   if (EVP_Digest(values.data(), values.size(), digest, &digestSize, EVP_get_digestbyname(tpmAlgorithm(hash)->evpName),
                  nullptr) != 1) {
      return fail("cannot hash pcr_values: " + openSslError());
   }
   if (quote.pcrDigest != String(reinterpret_cast<char const *>(digest), digestSize)) {
      return fail("the quote's pcrDigest is not the digest of pcr_values: they are not the values quoted");
   }
   return std::nullopt;
}

EventLogCheck checkEventLog(String const &eventLog, std::uint16_t bank, PcrValues const &pcrValues,
                            EventLog const *baseline) {
   EventLogCheck out;
   auto fail = [&](String why) {
      out.failure = Failure{Check::EventLog, std::move(why)};
      return out;
   };
   if (eventLog.empty()) return fail("the response carries no event log");
   // A canonical event log is a JSON array; anything else is read as the binary log.
   auto const first = eventLog.find_first_not_of(" \t\r\n");
   auto const parsed = first != String::npos && eventLog[first] == '[' ? parseCanonicalEventLog(eventLog)
                                                                      : parseEventLog(eventLog);
   if (auto const *p = std::get_if<EventLogProblem>(&parsed)) return fail("eventlog_bytes: " + p->what);
   auto const &log = std::get<EventLog>(parsed);

   String const name = algorithmName(bank);
   TpmPcrs tpm;
   auto &held = tpm.banks[name];
   PcrSet quoted;
   for (auto const &[pcr, value] : pcrValues) {
      if (pcr < 0 || static_cast<std::size_t>(pcr) >= quoted.size()) continue;  // check 3 refuses them
      held.values[static_cast<std::uint32_t>(pcr)] = value;
      quoted.set(static_cast<std::size_t>(pcr));
   }
   auto const compared = comparedPcrs(log);
   PcrSet unquoted;
   for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
      if (compared.test(pcr) && !quoted.test(pcr)) unquoted.set(pcr);
   }
   if (unquoted.any()) {
      held.problem = Problem{concat(name, " PCR ", pcrList(unquoted), unquoted.count() == 1 ? " was" : " were",
                                    " not quoted, and the log extends it"),
                             "ask for it with --pcrs"};
   }
   out.findings = verdict(log, tpm, baseline);
   auto const &f = *out.findings;
   auto const has = [](std::vector<String> const &set, String const &member) {
      return std::find(set.begin(), set.end(), member) != set.end();
   };
   std::vector<String> why;
   for (auto const &p : f.comparison) why.push_back(p.why);
   for (auto const &p : f.extension) {
      if (!has(why, p.why)) why.push_back(p.why);
   }
   if (!f.mismatchedPcr.empty()) {
      String list;
      for (auto const &m : f.mismatchedPcr) list += (list.empty() ? "" : ", ") + m;
      why.push_back("PCR " + list + (f.mismatchedPcr.size() == 1 ? " does" : " do") + " not bear out the log");
   }
   if (has(f.unextendedBank, name)) why.push_back(name + " PCRs 0-7 are at their reset values: nothing was measured");
   if (has(f.unverifiedBank, name)) {
      why.push_back("the log carries no " + name + " digests: it cannot vouch for the quoted PCRs");
   }
   if (why.empty() && !has(f.replayedBank, name)) why.push_back("the quoted " + name + " PCRs were not compared with the log");
   for (auto const &d : f.baselineDifference) why.push_back("differs from the baseline at " + d.text);
   if (why.empty()) return out;
   String text;
   for (auto const &w : why) text += (text.empty() ? "" : "; ") + w;
   return fail(text);
}

Judgement judge(AttestResponse const &response, Expectation const &expected) {
   Judgement j;
   auto failed = [&](Failure const &f) {
      j.verdict = Verdict::Untrusted;
      j.failed = f.check;
      j.reason = concat("check ", static_cast<int>(f.check), " (", checkName(f.check), "): ", f.why);
      return j;
   };
   auto const keys = trustedKeys(response, expected.trust);
   if (auto const *f = std::get_if<Failure>(&keys)) return failed(*f);
   auto const signer = checkSignature(response.quoted(), response.quote_signature(), std::get<0>(keys));
   if (auto const *f = std::get_if<Failure>(&signer)) return failed(*f);
   auto const quote = checkQuote(response.quoted(), expected, response.pcr_values());
   if (auto const *f = std::get_if<Failure>(&quote)) return failed(*f);
   if (auto const f = checkPcrDigest(std::get<QuoteInfo>(quote), response.pcr_values(), expected.bank,
                                     std::get<Signer>(signer).hash)) {
      return failed(*f);
   }
   auto log = checkEventLog(response.eventlog_bytes(), expected.bank, response.pcr_values(), expected.baseline);
   j.evidence = std::move(log.findings);
   if (log.failure) return failed(*log.failure);
   j.verdict = Verdict::Trusted;
   return j;
}

}  // namespace SentrelAttest
