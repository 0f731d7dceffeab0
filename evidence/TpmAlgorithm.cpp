#include "evidence/TpmAlgorithm.h"

#include <cstdio>
#include <openssl/crypto.h>

namespace SentrelEvidence {

namespace {
constexpr TpmAlgorithm kAlgorithms[] = {
   {kAlgSha1, "sha1", 20, "SHA1"},
   {kAlgSha256, "sha256", 32, "SHA256"},
   {kAlgSha384, "sha384", 48, "SHA384"},
   {kAlgSha512, "sha512", 64, "SHA512"},
   {kAlgSm3_256, "sm3_256", 32, "SM3"},
};
}  // namespace

TpmAlgorithm const *tpmAlgorithm(std::uint16_t id) {
   for (auto const &a : kAlgorithms) {
      if (a.id == id) return &a;
   }
   return nullptr;
}

TpmAlgorithm const *tpmAlgorithm(std::string_view name) {
   for (auto const &a : kAlgorithms) {
      if (a.name == name) return &a;
   }
   return nullptr;
}

String algorithmName(std::uint16_t id) {
   if (auto const *a = tpmAlgorithm(id)) return String(a->name);
   char text[8];
   std::snprintf(text, sizeof text, "0x%04x", static_cast<unsigned>(id));
   return text;
}

String hexOf(std::string_view bytes) {
   static constexpr char kDigits[] = "0123456789abcdef";
   String out;
   out.reserve(2 * bytes.size());
   for (unsigned char const c : bytes) out += {kDigits[c >> 4], kDigits[c & 15]};
   return out;
}

std::optional<String> bytesOfHex(std::string_view hex) {
   // A NUL would end the text early for OpenSSL; an odd digit is no byte.
   if (hex.size() % 2 != 0 || hex.find('\0') != std::string_view::npos) return std::nullopt;
   String bytes(hex.size() / 2, '\0');
   std::size_t length = 0;
   if (!bytes.empty() && (OPENSSL_hexstr2buf_ex(reinterpret_cast<unsigned char *>(bytes.data()), bytes.size(),
                                                &length, String(hex).c_str(), '\0') != 1 ||
                          length != bytes.size())) {
      return std::nullopt;
   }
   return bytes;
}

}  // namespace SentrelEvidence
