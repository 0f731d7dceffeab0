#include "Sentrel/CommandRunning.h"

#include <cstdio>
#include <cstring>

#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/RunCommand.h"

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

}  // namespace Sentrel
