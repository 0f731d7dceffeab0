#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Bytes as a TPM and its event log lay them out, and as text shows them.
namespace SentrelEvidence {

using String = std::string;

// The unsigned integer that `bytes` (at most 8) hold in little-endian order,
// as every field of an event log is written.
inline std::uint64_t littleEndian(std::string_view bytes) {
   std::uint64_t v = 0;
   for (std::size_t i = bytes.size(); i-- > 0;) v = v << 8 | static_cast<unsigned char>(bytes[i]);
   return v;
}

// Lower-case hex of raw bytes.
String hexOf(std::string_view bytes);
// The bytes that hex text (either case, no separators) stands for; none
// when it is anything else.
std::optional<String> bytesOfHex(std::string_view hex);

namespace detail {
inline void append(String &out, std::string_view s) { out += s; }
template <std::integral I>
   requires(!std::same_as<I, bool> && !std::same_as<I, char>)
void append(String &out, I n) {
   char digits[24];
   out.append(digits, std::to_chars(digits, digits + sizeof digits, n).ptr);
}
}  // namespace detail

// Text put together from strings and integers, the integers in decimal.
template <class... Parts>
String concat(Parts const &...parts) {
   String out;
   (detail::append(out, parts), ...);
   return out;
}

}  // namespace SentrelEvidence
