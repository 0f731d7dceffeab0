#include "host/evidence/EventLog.h"

#include <iterator>
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
