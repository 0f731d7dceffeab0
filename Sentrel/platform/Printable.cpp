#include "Sentrel/platform/Printable.h"

namespace Loom {

namespace {

// What reorders, hides or breaks the text around it.
bool misleads(char32_t c) {
   return c < 0x20 || c == 0x7F || (c >= 0x80 && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
          (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x2028 || c == 0x2029;
}

void appendEscaped(String &out, char const *prefix, char32_t value, int digits) {
   static char const hex[] = "0123456789abcdef";
   out += prefix;
   for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out += hex[value >> shift & 0xF];
}

}  // namespace

std::size_t utf8Character(std::string_view s, std::size_t i, char32_t &cp) {
   auto const b = static_cast<unsigned char>(s[i]);
   std::size_t len;
   if (b < 0x80) {
      cp = b;
      return 1;
   }
   if (b >= 0xC2 && b <= 0xDF) {
      len = 2, cp = b & 0x1F;
   } else if (b >= 0xE0 && b <= 0xEF) {
      len = 3, cp = b & 0x0F;
   } else if (b >= 0xF0 && b <= 0xF4) {
      len = 4, cp = b & 0x07;
   } else {
      return 0;
   }
   if (len > s.size() - i) return 0;
   for (std::size_t k = 1; k < len; ++k) {
      auto const c = static_cast<unsigned char>(s[i + k]);
      if ((c & 0xC0) != 0x80) return 0;
      cp = cp << 6 | (c & 0x3F);
   }
   if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp <= 0xDFFF)) {
      return 0;
   }
   return len;
}

String printable(std::string_view text) {
   String out;
   out.reserve(text.size());
   for (std::size_t i = 0; i < text.size();) {
      char32_t cp = 0;
      std::size_t const len = utf8Character(text, i, cp);
      if (len == 0) {
         appendEscaped(out, "\\x", static_cast<unsigned char>(text[i]), 2);
      } else if (misleads(cp)) {
         cp < 0x80 ? appendEscaped(out, "\\x", cp, 2) : appendEscaped(out, "\\u", cp, 4);
      } else {
         out.append(text.substr(i, len));
      }
      i += len == 0 ? 1 : len;
   }
   return out;
}

}  // namespace Loom
