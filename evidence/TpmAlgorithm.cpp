#include "evidence/TpmAlgorithm.h"

#include <array>
#include <cstdio>

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
   // A table rather than a library's reader: a quote's log is mostly hex,
   // and this is what reading it costs (BENCHMARKS.md).
   static constexpr auto kDigit = [] {
      std::array<signed char, 256> t{};
      t.fill(-1);
      for (int i = 0; i < 10; ++i) t['0' + i] = static_cast<signed char>(i);
      for (int i = 0; i < 6; ++i) t['a' + i] = t['A' + i] = static_cast<signed char>(10 + i);
      return t;
   }();
   if (hex.size() % 2 != 0) return std::nullopt;  // an odd digit is no byte
   String bytes(hex.size() / 2, '\0');
   for (std::size_t i = 0; i < bytes.size(); ++i) {
      int const high = kDigit[static_cast<unsigned char>(hex[2 * i])];
      int const low = kDigit[static_cast<unsigned char>(hex[2 * i + 1])];
      if ((high | low) < 0) return std::nullopt;
      bytes[i] = static_cast<char>(high << 4 | low);
   }
   return bytes;
}

}  // namespace SentrelEvidence
