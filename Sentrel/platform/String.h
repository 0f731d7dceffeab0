#pragma once

#include <charconv>
#include <concepts>
#include <string>
#include <string_view>

namespace Loom {

// The framework's string value: bytes, NULs included.
using String = std::string;

// The pieces of a text between `delim`s, one by one, as std::getline gives
// them: no piece after a final `delim`, none for empty text. Without streams,
// whose first use builds the standard library's locale at every start.
class Pieces {
 public:
   Pieces(std::string_view text, char delim) : rest_(text), delim_(delim) {}
   bool next(std::string_view &piece) {
      if (rest_.empty()) return false;
      auto const end = rest_.find(delim_);
      piece = rest_.substr(0, end);
      rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
      return true;
   }

 private:
   std::string_view rest_;
   char delim_;
};

// A text put together with <<, as a string stream would: strings as they
// are, integers in decimal. No stream, so no locale, and nothing of the
// standard library's streams for the dynamic loader to bind.
class TextBuilder {
 public:
   TextBuilder &operator<<(std::string_view s) {
      text_ += s;
      return *this;
   }
   template <std::integral I>
      requires(!std::same_as<I, bool> && !std::same_as<I, char>)
   TextBuilder &operator<<(I n) {
      char digits[24];
      text_.append(digits, std::to_chars(digits, digits + sizeof digits, n).ptr);
      return *this;
   }
   String &text() { return text_; }

 private:
   String text_;
};

}  // namespace Loom
