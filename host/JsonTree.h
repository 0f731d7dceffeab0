#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Sentrel/platform/String.h"

namespace SentrelHost {

using Loom::String;

// A parsed JSON value that remembers the byte offset where it starts, so
// that errors in what it means can name their place in the file.
struct JsonNode {
   enum Type { Null, Bool, Int, Uint, Double, Str, Array, Object };
   JsonNode() = default;
   explicit JsonNode(Type t) : type(t) {}

   Type type = Null;
   std::size_t offset = 0;
   bool boolean = false;
   std::uint64_t uint = 0;  // Uint
   String text;             // Str; the number's own spelling for numbers
   std::vector<JsonNode> items;                          // Array
   std::vector<std::pair<JsonNode, JsonNode>> members;  // Object: key node (Str) and value

   char const *typeName() const;
};

struct JsonError {
   std::size_t offset;
   String message;
};

// Parses strict JSON (no comments, no trailing commas), nested at most
// Loom::kMaxJsonDepth levels: deeper is an error at the array or object that
// goes too deep. Parsing and the tree's destruction stay within the stack.
std::optional<JsonNode> parseJson(String const &text, JsonError &error);

// A JSON string literal for any bytes: valid UTF-8 is kept byte for byte,
// every other byte becomes the code point of the same value (\u00XX).
String jsonQuote(std::string_view bytes);
// The same escapes, without the quotes, added to `out`.
void appendJsonEscaped(String &out, std::string_view bytes);

}  // namespace SentrelHost
