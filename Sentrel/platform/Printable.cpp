#include "Sentrel/platform/Printable.h"

namespace Loom {

String printable(String const &text) {
   static char const hex[] = "0123456789abcdef";
   String out;
   out.reserve(text.size());
   for (char c : text) {
      auto const b = static_cast<unsigned char>(c);
      if (b < 0x20 || b == 0x7f) {
         out += "\\x";
         out += hex[b >> 4];
         out += hex[b & 0xf];
      } else {
         out += c;
      }
   }
   return out;
}

}  // namespace Loom
