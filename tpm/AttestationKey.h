#pragma once

#include <optional>
#include <variant>

#include "tpm/TpmConnection.h"

// The attestation key (AK): a restricted ECC NIST P-256 signing key with
// ECDSA and SHA-256, made under the storage hierarchy's primary key and
// persisted at a handle of the owner's persistent range. It signs quotes
// inside the TPM and never leaves it.
namespace SentrelTpm {

// The default handle of the AK: in the owner's persistent range, clear of
// the storage root keys (0x81000001, 0x81000002) and the endorsement keys
// (0x810100xx) that provisioning guidance puts there.
inline constexpr TPM2_HANDLE kDefaultAkHandle = 0x81000100;

// The handle as the TPM's tools write it: "0x81000100".
String handleText(TPM2_HANDLE handle);

// The public part of the AK and its TPM name, as the owner records it.
struct AkPublic {
   TPM2B_PUBLIC publicArea;
   TPM2B_NAME name;
};

// The AK persisted at `handle`, loaded into the connection's ESYS context:
// `object` is released with the context. Refused (NotAnAk) unless it is a
// restricted ECC P-256 signing key with ECDSA and SHA-256, fixed to the TPM.
struct LoadedAk {
   ESYS_TR object;
   AkPublic pub;
};
std::variant<LoadedAk, TpmProblem> loadAttestationKey(TpmConnection const &tpm, TPM2_HANDLE handle);

// Makes the AK under the storage hierarchy's primary key (made from a fixed
// template, so the same key each time, and flushed after) and persists it
// at `handle`. A handle that holds an object already is refused (KeyExists)
// unless `replace`: the old object is then evicted once the new key is made.
// Needs the owner hierarchy's authorization to be empty.
std::variant<AkPublic, TpmProblem> createAttestationKey(TpmConnection const &tpm, TPM2_HANDLE handle, bool replace);

// Why `pub` is not an attestation key, or nothing when it is one.
std::optional<String> notAnAttestationKey(TPMT_PUBLIC const &pub);

// The AK's public key as PEM (SubjectPublicKeyInfo), through OpenSSL.
String publicKeyPem(TPMT_PUBLIC const &pub);

}  // namespace SentrelTpm
