#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "evidence/Bytes.h"

namespace SentrelEvidence {

// An algorithm of the TCG registry that a TPM bank or an event log may use.
struct TpmAlgorithm {
   std::uint16_t id;
   std::string_view name;  // as the TPM names its banks: "sha1", "sha256", ...
   std::size_t digestSize;
   char const *evpName;  // OpenSSL's name of the digest
};

inline constexpr std::uint16_t kAlgSha1 = 0x0004;
inline constexpr std::uint16_t kAlgSha256 = 0x000B;
inline constexpr std::uint16_t kAlgSha384 = 0x000C;
inline constexpr std::uint16_t kAlgSha512 = 0x000D;
inline constexpr std::uint16_t kAlgSm3_256 = 0x0012;

// sha1, sha256, sha384, sha512, sm3_256; null for any other.
TpmAlgorithm const *tpmAlgorithm(std::uint16_t id);
TpmAlgorithm const *tpmAlgorithm(std::string_view name);

// The TPM's name of an algorithm ("sha256"), or for one without a name its
// id as the registry writes it ("0x0099").
String algorithmName(std::uint16_t id);

}  // namespace SentrelEvidence
