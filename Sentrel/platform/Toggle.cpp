#include "Sentrel/platform/Toggle.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <set>
#include <string_view>

#include "Sentrel/platform/Json.h"
#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/ReadFile.h"

namespace Loom {

namespace {

// A toggle file holds a few names; anything longer is not one.
constexpr std::size_t kMaxToggleFileBytes = std::size_t{1} << 20;

struct ToggleState {
   std::optional<String> dir;
   std::map<String, unsigned> queries;
   std::set<String> reported;
   std::map<String, ToggleInEffect> effective;
};

ToggleState &state() {
   static auto *s = new ToggleState;
   return *s;
}

void reportOnce(String const &path, String const &problem) {
   if (state().reported.insert(path).second) {
      std::fprintf(stderr, "toggle file %s: %s; using defaults\n", printable(path).c_str(), problem.c_str());
   }
}

// The toggle's value from its file, or the default with a diagnostic.
unsigned readToggleState(String const &name, String const &file, bool defaultValue);

// Finds one member of the top-level object in a single pass over the file,
// refusing nesting deeper than kMaxJsonDepth.
class ToggleReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ToggleReader> {
 public:
   explicit ToggleReader(std::string const &name) : name_(name) {}

   bool Default() { return value(Found::Other); }
   bool Bool(bool b) { return value(b ? Found::True : Found::False); }
   bool Key(char const *s, rapidjson::SizeType len, bool) {
      if (depth_ == 1) atName_ = found_ == Found::None && std::string_view(s, len) == name_;
      return true;
   }
   bool StartObject() { return open(true); }
   bool StartArray() { return open(false); }
   bool EndObject(rapidjson::SizeType) { return close(); }
   bool EndArray(rapidjson::SizeType) { return close(); }

   enum class Found { None, True, False, Other };
   Found found() const { return found_; }
   bool rootIsObject() const { return rootIsObject_; }
   bool tooDeep() const { return tooDeep_; }

 private:
   bool value(Found f) {
      if (depth_ == 1 && atName_) found_ = f;
      atName_ = false;
      return true;
   }
   bool open(bool object) {
      if (depth_ == 0) rootIsObject_ = object;
      value(Found::Other);
      if (++depth_ > kMaxJsonDepth) tooDeep_ = true;
      return !tooDeep_;
   }
   bool close() {
      --depth_;
      return true;
   }

   std::string const &name_;
   unsigned depth_ = 0;
   bool atName_ = false;
   bool rootIsObject_ = false;
   bool tooDeep_ = false;
   Found found_ = Found::None;
};

}  // namespace

void toggleDirIs(String const &dir) { state().dir = dir; }

String toggleDir() {
   if (state().dir) return *state().dir;
   if (char const *env = std::getenv("SENTREL_TOGGLES_DIR")) return env;
   return "/etc/sentrel/toggles";
}

std::optional<String> toggleDirProblem(String const &dir) {
   DIR *d = opendir(dir.c_str());
   if (!d) return String(std::strerror(errno));
   closedir(d);
   return std::nullopt;
}

unsigned toggleQueryCountForTest(String const &name) {
   auto it = state().queries.find(name);
   return it == state().queries.end() ? 0 : it->second;
}

unsigned getToggleState(String const &name, String const &file, bool defaultValue) {
   ++state().queries[name];
   unsigned const value = readToggleState(name, file, defaultValue);
   state().effective[name] = {(value & 1u) != 0, defaultValue, toggleDir() + "/" + file};
   return value;
}

std::map<String, ToggleInEffect> const &togglesInEffect() { return state().effective; }

namespace {
unsigned readToggleState(String const &name, String const &file, bool defaultValue) {
   String const path = toggleDir() + "/" + file;
   FileText const f = readWholeFile(path, kMaxToggleFileBytes);
   // Only a missing file means "every toggle of it at its default"; one that
   // is there but cannot be read (a folder, no permission, a link loop) is a
   // mistake to point out.
   if (f.error == ENOENT) return defaultValue;
   if (!f.ok()) {
      reportOnce(path, f.problem());
      return defaultValue;
   }
   rapidjson::StringStream in(f.text.c_str());
   ToggleReader toggle(name);
   rapidjson::Reader reader;
   auto const result = reader.Parse<rapidjson::kParseIterativeFlag>(in, toggle);
   if (toggle.tooDeep()) {
      reportOnce(path, "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels at offset " +
                          std::to_string(result.Offset()));
      return defaultValue;
   }
   if (result.IsError() || f.text.find('\0') != String::npos) {
      std::size_t const offset = result.IsError() ? result.Offset() : f.text.find('\0');
      reportOnce(path, "invalid JSON at offset " + std::to_string(offset) + ": " +
                          (result.IsError() ? rapidjson::GetParseError_En(result.Code()) : "a NUL byte"));
      return defaultValue;
   }
   if (!toggle.rootIsObject()) {
      reportOnce(path, "not a JSON object");
      return defaultValue;
   }
   switch (toggle.found()) {
      case ToggleReader::Found::None: return defaultValue;
      case ToggleReader::Found::True: return 1u;
      case ToggleReader::Found::False: return 0u;
      case ToggleReader::Found::Other: break;
   }
   reportOnce(path, "\"" + name + "\" is not true or false");
   return defaultValue;
}

}  // namespace

}  // namespace Loom
