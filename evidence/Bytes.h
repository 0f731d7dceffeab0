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

// The unsigned number that `text` is, whole, in `base`; none for any other
// text (a sign, a blank, nothing at all).
inline std::optional<std::uint64_t> unsignedOf(std::string_view text, int base = 10) {
   std::uint64_t n = 0;
   auto const *end = text.data() + text.size();
   auto const [ptr, ec] = std::from_chars(text.data(), end, n, base);
   if (text.empty() || ec != std::errc() || ptr != end) return std::nullopt;
   return n;
}

// A number as logs and people write it: in decimal, or in hex after 0x.
inline std::optional<std::uint64_t> numberOfText(std::string_view text) {
   bool const hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
   return hex ? unsignedOf(text.substr(2), 16) : unsignedOf(text);
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
