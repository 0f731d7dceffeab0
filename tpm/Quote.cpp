#include "tpm/Quote.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <openssl/evp.h>
#include <tss2/tss2_mu.h>

#include "evidence/TpmAlgorithm.h"
#include "tpm/PcrRead.h"
#include "tpm/TpmCommand.h"

namespace SentrelTpm {

using SentrelEvidence::algorithmName;
using SentrelEvidence::concat;
using SentrelEvidence::pcrList;

namespace {

// Reads and quotes before PCRs that keep changing are given up on.
constexpr int kQuoteAttempts = 3;

// The hash that a signature was made with, which is also the hash of the
// quote's pcrDigest.
TPMI_ALG_HASH signatureHash(TPMT_SIGNATURE const &s) {
   switch (s.sigAlg) {
      case TPM2_ALG_ECDSA:
      case TPM2_ALG_ECDAA:
      case TPM2_ALG_SM2:
      case TPM2_ALG_ECSCHNORR: return s.signature.ecdsa.hash;
      case TPM2_ALG_RSASSA:
      case TPM2_ALG_RSAPSS: return s.signature.rsassa.hash;
      default: return TPM2_ALG_NULL;
   }
}

// The digest of `values` in ascending order of index, with `hash`; empty
// when OpenSSL has no such digest.
String pcrDigest(std::map<std::uint32_t, String> const &values, TPMI_ALG_HASH hash) {
   auto const *a = SentrelEvidence::tpmAlgorithm(hash);
   EVP_MD const *md = a ? EVP_get_digestbyname(a->evpName) : nullptr;
   std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> const ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
   if (!md || !ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) return {};
   for (auto const &[index, value] : values) {
      if (EVP_DigestUpdate(ctx.get(), value.data(), value.size()) != 1) return {};
   }
   unsigned char digest[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   if (EVP_DigestFinal_ex(ctx.get(), digest, &size) != 1) return {};
   return String(reinterpret_cast<char const *>(digest), size);
}

// One TPM2_Quote: the TPMS_ATTEST bytes, the marshalled signature, and the
// pcrDigest and its hash that the TPMS_ATTEST holds.
struct OneQuote {
   String quoted, signature, pcrDigest;
   TPMI_ALG_HASH hash;
};

std::variant<OneQuote, TpmProblem> quoteOnce(TpmConnection const &tpm, ESYS_TR ak, QuoteRequest const &request) {
   TPM2B_DATA qualifyingData{};
   qualifyingData.size = static_cast<UINT16>(std::min(request.nonce.size(), kMaxNonceBytes));
   std::copy_n(request.nonce.data(), qualifyingData.size, qualifyingData.buffer);
   TPMT_SIG_SCHEME scheme{};
   scheme.scheme = TPM2_ALG_NULL;  // the AK's own
   TPML_PCR_SELECTION const pcrs = pcrSelection(request.bank, request.pcrs);
   TPM2B_ATTEST *quoted = nullptr;
   TPMT_SIGNATURE *signature = nullptr;
   TSS2_RC const rc = command(
      tpm,
      [&] {
         return Esys_Quote_Async(tpm.esys(), ak, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &qualifyingData, &scheme,
                                 &pcrs);
      },
      [&] { return Esys_Quote_Finish(tpm.esys(), &quoted, &signature); });
   EsysBuffer<TPM2B_ATTEST> const attest(quoted);
   EsysBuffer<TPMT_SIGNATURE> const sig(signature);
   if (rc != TSS2_RC_SUCCESS) return tpm.problem("cannot quote the " + algorithmName(request.bank) + " PCRs", rc);

   OneQuote out;
   out.quoted.assign(reinterpret_cast<char const *>(attest->attestationData),
                     std::min<std::size_t>(attest->size, sizeof attest->attestationData));
   TPMS_ATTEST decoded{};
   std::size_t offset = 0;
   TSS2_RC const decodedRc = Tss2_MU_TPMS_ATTEST_Unmarshal(reinterpret_cast<std::uint8_t const *>(out.quoted.data()),
                                                           out.quoted.size(), &offset, &decoded);
   if (decodedRc != TSS2_RC_SUCCESS || decoded.type != TPM2_ST_ATTEST_QUOTE) {
      return tpm.problem("the TPM's quote is no TPMS_ATTEST of a quote", decodedRc);
   }
   TPM2B_DIGEST const &digest = decoded.attested.quote.pcrDigest;
   out.pcrDigest.assign(reinterpret_cast<char const *>(digest.buffer),
                        std::min<std::size_t>(digest.size, sizeof digest.buffer));
   out.hash = signatureHash(*sig);

   std::uint8_t marshalled[sizeof(TPMT_SIGNATURE)];
   offset = 0;
   TSS2_RC const marshalRc = Tss2_MU_TPMT_SIGNATURE_Marshal(sig.get(), marshalled, sizeof marshalled, &offset);
   if (marshalRc != TSS2_RC_SUCCESS) return tpm.problem("cannot marshal the quote's signature", marshalRc);
   out.signature.assign(reinterpret_cast<char const *>(marshalled), offset);
   return out;
}

}  // namespace

std::variant<PcrQuote, TpmProblem> quotePcrs(TpmConnection const &tpm, ESYS_TR ak, QuoteRequest const &request) {
   auto read = readBankPcrs(tpm, request.bank, request.pcrs);
   for (int attempt = 0; attempt < kQuoteAttempts; ++attempt) {
      if (auto *problem = std::get_if<TpmProblem>(&read)) return std::move(*problem);
      auto quote = quoteOnce(tpm, ak, request);
      if (auto *problem = std::get_if<TpmProblem>(&quote)) return std::move(*problem);
      auto &q = std::get<OneQuote>(quote);
      // Read before the quote, then after it: once no PCR moved in between, they agree.
      for (int pass = 0; pass < 2; ++pass) {
         if (pass == 1) {
            read = readBankPcrs(tpm, request.bank, request.pcrs);
            if (auto *problem = std::get_if<TpmProblem>(&read)) return std::move(*problem);
         }
         auto &values = std::get<std::map<std::uint32_t, String>>(read);
         String const digest = pcrDigest(values, q.hash);
         if (digest.empty()) {
            return TpmProblem{
               TpmProblem::Kind::Tpm,
               "the quote's digest algorithm " + algorithmName(q.hash) + " is not one this program knows",
               TSS2_RC_SUCCESS};
         }
         if (digest == q.pcrDigest) return PcrQuote{std::move(q.quoted), std::move(q.signature), std::move(values)};
      }
   }
   return TpmProblem{TpmProblem::Kind::PcrsChanging,
                     concat("the ", algorithmName(request.bank), " PCRs ", pcrList(request.pcrs),
                            " changed between every read and quote, ", kQuoteAttempts, " times"),
                     TSS2_RC_SUCCESS};
}

}  // namespace SentrelTpm
