#include "Sentrel/PlatformHelpers.h"

#include <cstdio>
#include <vector>

#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Toggle.h"

namespace Sentrel {

bool runCmd(std::string const &command, String &output) {
   Loom::CommandResult r = Loom::runCommandForOutput(command);
   if (r.pipeError != 0) {
      TRACE2("Failed to open pipe, errno: " << r.pipeError);
      return false;
   }
   if (r.dropped != 0) {
      TRACE2("Command " << command << " printed more than " << Loom::kMaxCommandOutput << " bytes: " << r.dropped
                        << " dropped");
   }
   if (r.exitCode != 0) {
      TRACE2("Command " << command << " return error code: " << r.exitCode);
      return false;
   }
   if (r.readError != 0) {
      TRACE2("Failed to read from pipe, errno: " << r.readError);
      return false;
   }
   output = std::move(r.output);
   while (!output.empty() && output.back() == '\n') output.pop_back();
   return true;
}

bool parseJsonFile(char const *path, JsonDocument &document) {
   std::FILE *f = std::fopen(path, "re");
   if (!f) return false;
   char buffer[256];
   rapidjson::FileReadStream stream(f, buffer, sizeof buffer);
   // Iterative: however deep a file nests, it is well-formed or malformed,
   // never deeper than the stack.
   document.ParseStream<rapidjson::kParseIterativeFlag>(stream);
   if (document.HasParseError()) {
      // The handle is left open on a parse error, as designed; it is listed
      // so that it stays reachable rather than lost.
      static auto *leftOpen = new std::vector<std::FILE *>;
      leftOpen->push_back(f);
      return false;
   }
   std::fclose(f);
   return true;
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
