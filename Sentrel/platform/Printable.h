#pragma once

#include <cstddef>
#include <string_view>

#include "Sentrel/platform/Export.h"
#include "Sentrel/platform/String.h"

namespace Loom {

// The length of the valid UTF-8 character at `at` (1 to 4), its code point
// in `cp`; 0 for a byte that starts none (overlong forms, surrogates and
// code points beyond Unicode are not valid).
LOOM_API std::size_t utf8Character(std::string_view text, std::size_t at, char32_t &cp);

// `text` as people may read it on a terminal or in the system log: as it
// is, but for what could mislead them. Control characters and DEL become
// \xHH, so a path or value cannot move the cursor, clear the screen or
// hide the rest of a message; bytes of broken UTF-8 become \xHH; C1
// controls and the bidirectional and line-separator marks, which reorder or
// break the text around them, become \uXXXX. Backslashes stay single.
LOOM_API String printable(std::string_view text);

}  // namespace Loom
