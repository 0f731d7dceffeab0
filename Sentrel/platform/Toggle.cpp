#include "Sentrel/platform/Toggle.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <map>
#include <set>

#include "Sentrel/platform/Json.h"

namespace Loom {

namespace {

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
      std::fprintf(stderr, "toggle file %s: %s; using defaults\n", path.c_str(), problem.c_str());
   }
}

// The toggle's value from its file, or the default with a diagnostic.
unsigned readToggleState(String const &name, String const &file, bool defaultValue);

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
   std::FILE *f = std::fopen(path.c_str(), "r");
   if (!f) return defaultValue;
   char buffer[256];
   rapidjson::FileReadStream in(f, buffer, sizeof buffer);
   rapidjson::Document doc;
   doc.ParseStream(in);
   std::fclose(f);
   if (doc.HasParseError()) {
      reportOnce(path, "invalid JSON at offset " + std::to_string(doc.GetErrorOffset()) + ": " +
                          rapidjson::GetParseError_En(doc.GetParseError()));
      return defaultValue;
   }
   if (!doc.IsObject()) {
      reportOnce(path, "not a JSON object");
      return defaultValue;
   }
   auto it = doc.FindMember(rapidjson::StringRef(name.data(), name.size()));
   if (it == doc.MemberEnd()) return defaultValue;
   if (!it->value.IsBool()) {
      reportOnce(path, "\"" + name + "\" is not true or false");
      return defaultValue;
   }
   return it->value.GetBool() ? 1u : 0u;
}

}  // namespace

}  // namespace Loom
