#include "Sentrel/PlatformHelpers.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Toggle.h"

namespace Sentrel {

bool runCmd(std::string const &command, String &output) {
   int fds[2];
   // Close-on-exec, so no other child inherits the pipe and holds it open.
   if (pipe2(fds, O_CLOEXEC) != 0) {
      TRACE2("Failed to open pipe, errno: " << errno);
      return false;
   }
   int const code = Loom::runCommand(command, Loom::kNoInput, fds[1], Loom::kDiscard);
   close(fds[1]);
   if (code != 0) {
      TRACE2("Command " << command << " return error code: " << code);
      close(fds[0]);
      return false;
   }
   output.clear();
   char chunk[64];
   ssize_t n;
   while ((n = read(fds[0], chunk, sizeof chunk)) > 0) output.append(chunk, static_cast<std::size_t>(n));
   if (n < 0) {
      TRACE2("Failed to read from pipe, errno: " << errno);
      close(fds[0]);
      return false;
   }
   while (!output.empty() && output.back() == '\n') output.pop_back();
   close(fds[0]);
   return true;
}

bool parseJsonFile(char const *path, JsonDocument &document) {
   std::FILE *f = std::fopen(path, "r");
   if (!f) return false;
   char buffer[256];
   rapidjson::FileReadStream stream(f, buffer, sizeof buffer);
   document.ParseStream(stream);
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
