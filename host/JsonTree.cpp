#include "host/JsonTree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/Printable.h"

namespace SentrelHost {

char const *JsonNode::typeName() const {
   static char const *const names[] = {"null", "boolean", "number", "number", "number", "string", "array", "object"};
   return names[type];
}

namespace {

// A string stream that the reader does not copy (it copies its own string
// stream for speed), so the builder sees where the reader is. It reads as
// NUL at and past its end: the reader's UTF-8 validation takes a sequence's
// continuation bytes without looking, past the terminator when a file ends
// inside one.
struct OffsetStream {
   using Ch = char;
   explicit OffsetStream(String const &s) : head(s.data()), src(head), end(head + s.size()) {}
   Ch Peek() const { return src < end ? *src : '\0'; }
   Ch Take() { return src < end ? *src++ : '\0'; }
   std::size_t Tell() const { return static_cast<std::size_t>(src - head); }
   Ch *PutBegin() { return nullptr; }
   void Put(Ch) {}
   void Flush() {}
   std::size_t PutEnd(Ch *) { return 0; }
   char const *head;
   char const *src;
   char const *end;
};

// Builds the tree from the reader's events. An event's value starts at the
// first character after the previous event that is not blank, comma or colon.
class TreeBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TreeBuilder> {
 public:
   TreeBuilder(Loom::String const &text, OffsetStream const &stream) : text_(text), stream_(stream) {}

   bool Null() { return add(JsonNode{JsonNode::Null}); }
   bool Bool(bool b) {
      JsonNode n{JsonNode::Bool};
      n.boolean = b;
      return add(std::move(n));
   }
   bool RawNumber(char const *s, rapidjson::SizeType len, bool) {
      JsonNode n{JsonNode::Double};
      n.text.assign(s, len);
      if (n.text.find_first_of(".eE") == String::npos) {
         n.type = n.text[0] == '-' ? JsonNode::Int : JsonNode::Uint;
         if (n.type == JsonNode::Uint) {
            errno = 0;
            n.uint = std::strtoull(n.text.c_str(), nullptr, 10);
            if (errno == ERANGE) n.type = JsonNode::Double;
         }
      }
      return add(std::move(n));
   }
   bool String(char const *s, rapidjson::SizeType len, bool) {
      JsonNode n{JsonNode::Str};
      n.text.assign(s, len);
      return add(std::move(n));
   }
   bool Key(char const *s, rapidjson::SizeType len, bool) {
      JsonNode n{JsonNode::Str};
      n.text.assign(s, len);
      n.offset = start();
      pendingKey_ = std::move(n);
      return true;
   }
   bool StartObject() { return open(JsonNode::Object); }
   bool EndObject(rapidjson::SizeType) { return close(); }
   bool StartArray() { return open(JsonNode::Array); }
   bool EndArray(rapidjson::SizeType) { return close(); }

   JsonNode root;
   // Where nesting went deeper than kMaxJsonDepth, if it did.
   std::optional<std::size_t> tooDeepAt;

 private:
   // The iterative reader reports a bracket before it takes it, so the event
   // of a bracket ends just past it rather than where the stream is.
   std::size_t start(bool bracket = false) {
      std::size_t i = last_;
      while (i < text_.size() && std::strchr(" \t\r\n,:", text_[i]) && text_[i] != '\0') ++i;
      last_ = bracket ? i + 1 : stream_.Tell();
      return i;
   }
   bool add(JsonNode n) {
      n.offset = start();
      place(std::move(n));
      return true;
   }
   void place(JsonNode n) {
      if (stack_.empty()) {
         root = std::move(n);
         return;
      }
      JsonNode &parent = *stack_.back();
      if (parent.type == JsonNode::Array) {
         parent.items.push_back(std::move(n));
      } else {
         parent.members.emplace_back(std::move(pendingKey_), std::move(n));
      }
   }
   bool open(JsonNode::Type t) {
      JsonNode n{t};
      n.offset = start(true);
      if (stack_.size() >= Loom::kMaxJsonDepth) {
         tooDeepAt = n.offset;
         return false;
      }
      place(std::move(n));
      JsonNode *added = stack_.empty() ? &root
                        : stack_.back()->type == JsonNode::Array ? &stack_.back()->items.back()
                                                                  : &stack_.back()->members.back().second;
      stack_.push_back(added);
      return true;
   }
   bool close() {
      start(true);
      stack_.pop_back();
      return true;
   }

   Loom::String const &text_;
   OffsetStream const &stream_;
   std::size_t last_ = 0;
   std::vector<JsonNode *> stack_;
   JsonNode pendingKey_;
};

}  // namespace

std::optional<JsonNode> parseJson(String const &text, JsonError &error) {
   if (text.find('\0') != String::npos) {
      error = {text.find('\0'), "a NUL byte is not JSON"};
      return std::nullopt;
   }
   OffsetStream stream(text);
   TreeBuilder builder(text, stream);
   rapidjson::Reader reader;
   auto const result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseValidateEncodingFlag |
                                    rapidjson::kParseIterativeFlag>(stream, builder);
   if (builder.tooDeepAt) {
      error = {*builder.tooDeepAt, "nested deeper than " + std::to_string(Loom::kMaxJsonDepth) + " levels"};
      return std::nullopt;
   }
   if (result.IsError()) {
      error = {result.Offset(), rapidjson::GetParseError_En(result.Code())};
      return std::nullopt;
   }
   return std::move(builder.root);
}

void appendJsonEscaped(String &out, std::string_view bytes) {
   static char const hex[] = "0123456789abcdef";
   auto const plain = [](unsigned char b) { return b >= 0x20 && b < 0x80 && b != '"' && b != '\\'; };
   for (std::size_t i = 0; i < bytes.size();) {
      // Runs of bytes that stand for themselves go in at once.
      std::size_t run = i;
      while (run < bytes.size() && plain(static_cast<unsigned char>(bytes[run]))) ++run;
      out.append(bytes.substr(i, run - i));
      if (run == bytes.size()) break;
      i = run;
      auto const b = static_cast<unsigned char>(bytes[i]);
      char32_t cp = 0;
      std::size_t const len = Loom::utf8Character(bytes, i, cp);
      if (len > 1) {
         out.append(bytes.substr(i, len));
         i += len;
         continue;
      }
      ++i;
      switch (b) {
         case '"': out += "\\\""; break;
         case '\\': out += "\\\\"; break;
         case '\n': out += "\\n"; break;
         case '\r': out += "\\r"; break;
         case '\t': out += "\\t"; break;
         default:
            out += "\\u00";
            out += hex[b >> 4];
            out += hex[b & 0xF];
      }
   }
}

String jsonQuote(std::string_view bytes) {
   String out;
   out.reserve(bytes.size() + 2);
   out += '"';
   appendJsonEscaped(out, bytes);
   out += '"';
   return out;
}

}  // namespace SentrelHost
