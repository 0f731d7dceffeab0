#include "Sentrel/FileReading.h"

#include <cerrno>
#include <cstdio>
#include <vector>

#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/TypeInfo.h"

namespace Sentrel {

bool parseJsonFile(char const *path, JsonDocument &document, int *openErr) {
   std::FILE *f = std::fopen(path, "re");
   if (!f) {
      if (openErr) *openErr = errno;
      return false;
   }
   char buffer[256];
   rapidjson::FileReadStream stream(f, buffer, sizeof buffer);
   // Iterative: however deep a file nests, it is well-formed or malformed,
   // never deeper than the stack.
   document.ParseStream<rapidjson::kParseIterativeFlag>(stream);
   if (document.HasParseError()) {
      // A folder opens and fails on read: say so rather than "not JSON".
      if (openErr && std::ferror(f)) *openErr = errno ? errno : EIO;
      // The handle is left open on a parse error, as designed; it is listed
      // so that it stays reachable rather than lost.
      static auto *leftOpen = new std::vector<std::FILE *>;
      leftOpen->push_back(f);
      return false;
   }
   std::fclose(f);
   return true;
}

void inputFileReason(Loom::ReasonRecord facts, unsigned pathAttr, String const &path, int err) {
   String const name(facts.type->attrs[pathAttr].name);
   String const elsewhere = "set " + name + " if the file is elsewhere";
   if (path.empty()) {
      Loom::reasonIs(std::move(facts), name + " names no file", elsewhere);
   } else {
      Loom::reasonIs(std::move(facts), Loom::openFailure(path, err),
                     err == ENOENT || err == EISDIR ? elsewhere : Loom::openFailureHint(err));
   }
}

std::optional<String> readInputFile(Loom::ReasonRecord facts, unsigned pathAttr, String const &path, int &err) {
   Loom::FileText r = Loom::readWholeFile(path, Loom::kMaxFileBytes);
   err = path.empty() ? ENOENT : r.folder ? EISDIR : r.error;
   if (err != 0) {
      inputFileReason(std::move(facts), pathAttr, path, err);
      // A folder opens as a file does and holds nothing.
      return err == EISDIR ? std::optional<String>(String()) : std::nullopt;
   }
   if (r.tooLarge) {
      TRACE2("File " << path << " is larger than " << Loom::kMaxFileBytes << " bytes, read no further");
      Loom::reasonIs(std::move(facts),
                     path + " is larger than " + std::to_string(Loom::kMaxFileBytes >> 20) +
                        " MiB: only its beginning was read");
   }
   return std::move(r.text);
}

}  // namespace Sentrel
