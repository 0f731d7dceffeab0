#include "Sentrel/PlatformHelpers.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Toggle.h"

namespace Sentrel {

String commandFailure(std::string const &command, int code) {
   String const name = command.substr(0, command.find(' '));
   if (code == 127) return name + " is not installed (not found in PATH)";
   if (code == 126) return name + " cannot be run (not an executable, or permission denied)";
   if (code > 128) return command + " was ended by signal " + std::to_string(code - 128);
   return command + " failed with exit code " + std::to_string(code);
}

bool runCmd(std::string const &command, String &output, String *why) {
   Loom::CommandResult r = Loom::runCommandForOutput(command);
   if (r.pipeError != 0) {
      TRACE2("Failed to open pipe, errno: " << r.pipeError);
      if (why) *why = "cannot run " + command + ": no pipe: " + std::strerror(r.pipeError);
      return false;
   }
   if (r.dropped != 0) {
      TRACE2("Command " << command << " printed more than " << Loom::kMaxCommandOutput << " bytes: " << r.dropped
                        << " dropped");
   }
   if (r.exitCode != 0) {
      TRACE2("Command " << command << " return error code: " << r.exitCode);
      if (why) {
         char deadline[32];
         std::snprintf(deadline, sizeof deadline, "%g s", Loom::commandTimeout().count());
         *why = r.timedOut ? command + " did not finish within " + deadline + " (--command-timeout) and was killed"
                           : commandFailure(command, r.exitCode);
      }
      return false;
   }
   if (r.readError != 0) {
      TRACE2("Failed to read from pipe, errno: " << r.readError);
      if (why) *why = "cannot read the output of " + command + ": " + std::strerror(r.readError);
      return false;
   }
   output = std::move(r.output);
   while (!output.empty() && output.back() == '\n') output.pop_back();
   return true;
}

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

void inputFileReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *pathAttr,
                     String const &path, int err) {
   String const elsewhere = String("set ") + pathAttr + " if the file is elsewhere";
   if (path.empty()) {
      Loom::reasonIs(entity, attrs, String(pathAttr) + " names no file", elsewhere);
   } else {
      Loom::reasonIs(entity, attrs, Loom::openFailure(path, err),
                     err == ENOENT || err == EISDIR ? elsewhere : Loom::openFailureHint(err));
   }
}

std::optional<String> readInputFile(Loom::Entity const &entity, std::initializer_list<char const *> attrs,
                                    char const *pathAttr, String const &path, int &err) {
   Loom::FileText r = Loom::readWholeFile(path, Loom::kMaxFileBytes);
   err = path.empty() ? ENOENT : r.folder ? EISDIR : r.error;
   if (err != 0) {
      inputFileReason(entity, attrs, pathAttr, path, err);
      // A folder opens as a file does and holds nothing.
      return err == EISDIR ? std::optional<String>(String()) : std::nullopt;
   }
   if (r.tooLarge) {
      TRACE2("File " << path << " is larger than " << Loom::kMaxFileBytes << " bytes, read no further");
      Loom::reasonIs(entity, attrs,
                     path + " is larger than " + std::to_string(Loom::kMaxFileBytes >> 20) +
                        " MiB: only its beginning was read",
                     "");
   }
   return std::move(r.text);
}

void toggleOffReason(Loom::Entity const &entity, std::initializer_list<char const *> attrs, char const *name,
                     char const *file) {
   Loom::reasonIs(entity, attrs, String("the feature toggle ") + name + " is off (" + Loom::toggleDir() + "/" + file + ")",
                  "");
}

}  // namespace Sentrel

bool toggleSentrelImaEnabled() {
   static bool const on = Loom::getToggleState("SentrelIma", "Halyard.json", true) & 1u;
   return on;
}

bool togglePcrMultibankEnabled() {
   static bool const on = Loom::getToggleState("PcrMultibank", "SecureBoot.json", true) & 1u;
   return on;
}

bool toggleSentrelMfgExpectedConfigCheckEnabled() {
   static bool const on = Loom::getToggleState("SentrelMfgExpectedConfigCheck", "Sentrel.json", true) & 1u;
   return on;
}

bool togglePlatformFirstInstructionSecurityEnabled() {
   static bool const on = Loom::getToggleState("PlatformFirstInstructionSecurity", "Sentrel.json", true) & 1u;
   return on;
}
