#include "tpm/AttestationKey.h"

#include <cstdio>
#include <memory>
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include "tpm/TpmCommand.h"

namespace SentrelTpm {

namespace {

constexpr TPMA_OBJECT kAkAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                                      TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH |
                                      TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_SIGN_ENCRYPT;

// The storage hierarchy's primary key: an ECC P-256 storage key with
// AES-128-CFB, from a template with no unique data, so the TPM derives the
// same key from its storage seed every time.
TPM2B_PUBLIC primaryTemplate() {
   TPM2B_PUBLIC t{};
   TPMT_PUBLIC &p = t.publicArea;
   p.type = TPM2_ALG_ECC;
   p.nameAlg = TPM2_ALG_SHA256;
   p.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN |
                        TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA | TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT;
   TPMS_ECC_PARMS &ecc = p.parameters.eccDetail;
   ecc.symmetric.algorithm = TPM2_ALG_AES;
   ecc.symmetric.keyBits.aes = 128;
   ecc.symmetric.mode.aes = TPM2_ALG_CFB;
   ecc.scheme.scheme = TPM2_ALG_NULL;
   ecc.curveID = TPM2_ECC_NIST_P256;
   ecc.kdf.scheme = TPM2_ALG_NULL;
   return t;
}

TPM2B_PUBLIC akTemplate() {
   TPM2B_PUBLIC t{};
   TPMT_PUBLIC &p = t.publicArea;
   p.type = TPM2_ALG_ECC;
   p.nameAlg = TPM2_ALG_SHA256;
   p.objectAttributes = kAkAttributes;
   TPMS_ECC_PARMS &ecc = p.parameters.eccDetail;
   ecc.symmetric.algorithm = TPM2_ALG_NULL;
   ecc.scheme.scheme = TPM2_ALG_ECDSA;
   ecc.scheme.details.ecdsa.hashAlg = TPM2_ALG_SHA256;
   ecc.curveID = TPM2_ECC_NIST_P256;
   ecc.kdf.scheme = TPM2_ALG_NULL;
   return t;
}

// The TPM's "handle is not correct": nothing is persisted at it.
bool noObjectAt(TSS2_RC rc) {
   // A format-one code: the error in its low six bits, beside which handle it names.
   return TpmConnection::answered(rc) && (rc & (TPM2_RC_FMT1 | 0x3f)) == TPM2_RC_HANDLE;
}

TpmProblem tpmProblem(TpmConnection const &tpm, String what, TSS2_RC rc) {
   return {TpmProblem::Kind::Tpm, what + " through " + tpm.tcti() + ": " + tpm.responseText(rc), rc};
}

// The object persisted at `handle`, as a new ESYS object of the context, or
// a problem: NoKey when there is none.
std::variant<ESYS_TR, TpmProblem> persistedObject(TpmConnection const &tpm, TPM2_HANDLE handle) {
   ESYS_TR object = ESYS_TR_NONE;
   TSS2_RC const rc = command(
      tpm, [&] { return Esys_TR_FromTPMPublic_Async(tpm.esys(), handle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE); },
      [&] { return Esys_TR_FromTPMPublic_Finish(tpm.esys(), &object); });
   if (rc == TSS2_RC_SUCCESS) return object;
   if (noObjectAt(rc)) {
      return TpmProblem{TpmProblem::Kind::NoKey, "no attestation key is persisted at " + handleText(handle) + " of the TPM at " + tpm.tcti(), rc};
   }
   return tpmProblem(tpm, "cannot read the object at " + handleText(handle), rc);
}

std::variant<AkPublic, TpmProblem> readPublic(TpmConnection const &tpm, ESYS_TR object, TPM2_HANDLE handle) {
   TPM2B_PUBLIC *outPublic = nullptr;
   TPM2B_NAME *name = nullptr;
   TPM2B_NAME *qualifiedName = nullptr;
   TSS2_RC const rc = command(
      tpm, [&] { return Esys_ReadPublic_Async(tpm.esys(), object, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE); },
      [&] { return Esys_ReadPublic_Finish(tpm.esys(), &outPublic, &name, &qualifiedName); });
   EsysBuffer<TPM2B_PUBLIC> const p(outPublic);
   EsysBuffer<TPM2B_NAME> const n(name), q(qualifiedName);
   if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot read the public area of " + handleText(handle), rc);
   return AkPublic{*p, *n};
}

}  // namespace

String handleText(TPM2_HANDLE handle) {
   char text[16];
   std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(handle));
   return text;
}

std::optional<String> notAnAttestationKey(TPMT_PUBLIC const &pub) {
   if (pub.type != TPM2_ALG_ECC) return String("it is not an ECC key");
   TPMS_ECC_PARMS const &ecc = pub.parameters.eccDetail;
   if (ecc.curveID != TPM2_ECC_NIST_P256) return String("its curve is not NIST P-256");
   if ((pub.objectAttributes & TPMA_OBJECT_RESTRICTED) == 0) return String("it is not restricted");
   if ((pub.objectAttributes & TPMA_OBJECT_SIGN_ENCRYPT) == 0) return String("it does not sign");
   if ((pub.objectAttributes & TPMA_OBJECT_DECRYPT) != 0) return String("it decrypts as well as signs");
   if ((pub.objectAttributes & TPMA_OBJECT_FIXEDTPM) == 0) return String("it may leave the TPM (not fixedTPM)");
   if ((pub.objectAttributes & TPMA_OBJECT_SENSITIVEDATAORIGIN) == 0) {
      return String("its private key was not made by the TPM (not sensitiveDataOrigin)");
   }
   if (ecc.scheme.scheme != TPM2_ALG_ECDSA || ecc.scheme.details.ecdsa.hashAlg != TPM2_ALG_SHA256) {
      return String("its scheme is not ECDSA with SHA-256");
   }
   return std::nullopt;
}

std::variant<LoadedAk, TpmProblem> loadAttestationKey(TpmConnection const &tpm, TPM2_HANDLE handle) {
   auto object = persistedObject(tpm, handle);
   if (auto *problem = std::get_if<TpmProblem>(&object)) return std::move(*problem);
   ESYS_TR tr = std::get<ESYS_TR>(object);
   auto pub = readPublic(tpm, tr, handle);
   if (auto *problem = std::get_if<TpmProblem>(&pub)) {
      Esys_TR_Close(tpm.esys(), &tr);
      return std::move(*problem);
   }
   auto &ak = std::get<AkPublic>(pub);
   if (auto why = notAnAttestationKey(ak.publicArea.publicArea)) {
      Esys_TR_Close(tpm.esys(), &tr);
      return TpmProblem{TpmProblem::Kind::NotAnAk,
                        "the object at " + handleText(handle) + " is not an attestation key: " + *why, TSS2_RC_SUCCESS};
   }
   return LoadedAk{tr, ak};
}

std::variant<AkPublic, TpmProblem> createAttestationKey(TpmConnection const &tpm, TPM2_HANDLE handle, bool replace) {
   ESYS_CONTEXT *const esys = tpm.esys();
   std::optional<ESYS_TR> old;
   {
      auto existing = persistedObject(tpm, handle);
      if (auto *tr = std::get_if<ESYS_TR>(&existing)) {
         old = *tr;
      } else if (auto &problem = std::get<TpmProblem>(existing); problem.kind != TpmProblem::Kind::NoKey) {
         return std::move(problem);
      }
   }
   if (old && !replace) {
      Esys_TR_Close(esys, &*old);
      return TpmProblem{TpmProblem::Kind::KeyExists,
                        "the TPM at " + tpm.tcti() + " holds an object at " + handleText(handle) + " already",
                        TSS2_RC_SUCCESS};
   }

   // Every transient object made here is flushed however this ends.
   struct Transient {
      TpmConnection const &tpm;
      ESYS_TR tr = ESYS_TR_NONE;
      ~Transient() {
         if (tr != ESYS_TR_NONE) {
            command(tpm, [&] { return Esys_FlushContext_Async(tpm.esys(), tr); },
                    [&] { return Esys_FlushContext_Finish(tpm.esys()); });
         }
      }
   } primary{tpm}, ak{tpm};

   TPM2B_SENSITIVE_CREATE const noAuth{};
   TPM2B_DATA const noOutsideInfo{};
   TPML_PCR_SELECTION const noCreationPcrs{};
   TPM2B_PUBLIC const primaryPublic = primaryTemplate();
   TSS2_RC rc = command(
      tpm,
      [&] {
         return Esys_CreatePrimary_Async(esys, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &noAuth,
                                         &primaryPublic, &noOutsideInfo, &noCreationPcrs);
      },
      [&] {
         TPM2B_PUBLIC *outPublic = nullptr;
         TPM2B_CREATION_DATA *creationData = nullptr;
         TPM2B_DIGEST *creationHash = nullptr;
         TPMT_TK_CREATION *ticket = nullptr;
         TSS2_RC const r = Esys_CreatePrimary_Finish(esys, &primary.tr, &outPublic, &creationData, &creationHash, &ticket);
         Esys_Free(outPublic);
         Esys_Free(creationData);
         Esys_Free(creationHash);
         Esys_Free(ticket);
         return r;
      });
   if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot make the storage hierarchy's primary key", rc);

   TPM2B_PUBLIC const akPublic = akTemplate();
   TPM2B_PRIVATE *outPrivate = nullptr;
   TPM2B_PUBLIC *outPublic = nullptr;
   rc = command(
      tpm,
      [&] {
         return Esys_Create_Async(esys, primary.tr, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &noAuth, &akPublic,
                                  &noOutsideInfo, &noCreationPcrs);
      },
      [&] {
         TPM2B_CREATION_DATA *creationData = nullptr;
         TPM2B_DIGEST *creationHash = nullptr;
         TPMT_TK_CREATION *ticket = nullptr;
         TSS2_RC const r = Esys_Create_Finish(esys, &outPrivate, &outPublic, &creationData, &creationHash, &ticket);
         Esys_Free(creationData);
         Esys_Free(creationHash);
         Esys_Free(ticket);
         return r;
      });
   EsysBuffer<TPM2B_PRIVATE> const madePrivate(outPrivate);
   EsysBuffer<TPM2B_PUBLIC> const madePublic(outPublic);
   if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot make the attestation key", rc);
   rc = command(
      tpm,
      [&] {
         return Esys_Load_Async(esys, primary.tr, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, madePrivate.get(),
                                madePublic.get());
      },
      [&] { return Esys_Load_Finish(esys, &ak.tr); });
   if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot load the attestation key", rc);

   // The old object goes only once the new key is made: a failure above leaves it in place.
   if (old) {
      ESYS_TR gone = ESYS_TR_NONE;
      rc = command(
         tpm,
         [&] {
            return Esys_EvictControl_Async(esys, ESYS_TR_RH_OWNER, *old, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                           handle);
         },
         [&] { return Esys_EvictControl_Finish(esys, &gone); });
      // ESYS keeps the evicted object's name for the handle: a later
      // lookup of the new key would mismatch it.
      Esys_TR_Close(esys, &*old);
      if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot evict the object at " + handleText(handle), rc);
   }
   ESYS_TR persisted = ESYS_TR_NONE;
   rc = command(
      tpm,
      [&] {
         return Esys_EvictControl_Async(esys, ESYS_TR_RH_OWNER, ak.tr, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                        handle);
      },
      [&] { return Esys_EvictControl_Finish(esys, &persisted); });
   if (rc != TSS2_RC_SUCCESS) return tpmProblem(tpm, "cannot persist the attestation key at " + handleText(handle), rc);
   auto pub = readPublic(tpm, persisted, handle);
   Esys_TR_Close(esys, &persisted);
   return pub;
}

String publicKeyPem(TPMT_PUBLIC const &pub) {
   TPMS_ECC_POINT const &point = pub.unique.ecc;
   // An uncompressed point: 0x04, then x and y, each the curve's size.
   constexpr std::size_t kCoordinate = 32;
   std::size_t const xSize = std::min<std::size_t>(point.x.size, sizeof point.x.buffer);
   std::size_t const ySize = std::min<std::size_t>(point.y.size, sizeof point.y.buffer);
   if (xSize > kCoordinate || ySize > kCoordinate) return {};
   unsigned char encoded[1 + 2 * kCoordinate] = {0x04};
   std::copy(point.x.buffer, point.x.buffer + xSize, encoded + 1 + kCoordinate - xSize);
   std::copy(point.y.buffer, point.y.buffer + ySize, encoded + 1 + 2 * kCoordinate - ySize);

   std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> const build(OSSL_PARAM_BLD_new(),
                                                                              OSSL_PARAM_BLD_free);
   if (!build || !OSSL_PARAM_BLD_push_utf8_string(build.get(), OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0) ||
       !OSSL_PARAM_BLD_push_octet_string(build.get(), OSSL_PKEY_PARAM_PUB_KEY, encoded, sizeof encoded)) {
      return {};
   }
   std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> const params(OSSL_PARAM_BLD_to_param(build.get()),
                                                                       OSSL_PARAM_free);
   std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> const ctx(
      EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr), EVP_PKEY_CTX_free);
   EVP_PKEY *made = nullptr;
   if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
       EVP_PKEY_fromdata(ctx.get(), &made, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
      return {};
   }
   std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> const key(made, EVP_PKEY_free);
   std::unique_ptr<BIO, decltype(&BIO_free)> const out(BIO_new(BIO_s_mem()), BIO_free);
   if (!out || PEM_write_bio_PUBKEY(out.get(), key.get()) != 1) return {};
   char *text = nullptr;
   long const length = BIO_get_mem_data(out.get(), &text);
   return length > 0 ? String(text, static_cast<std::size_t>(length)) : String();
}

}  // namespace SentrelTpm
