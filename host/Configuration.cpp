#include "host/Configuration.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "Sentrel/platform/Toggle.h"
#include "Sentrel/platform/Trace.h"
#include "host/UsageError.h"

namespace SentrelHost {

namespace {

// nullopt when `dir` is a folder, else what is wrong with it.
std::optional<String> folderProblem(String const &dir) {
   struct stat st {};
   if (stat(dir.c_str(), &st) != 0) return String(std::strerror(errno));
   if (!S_ISDIR(st.st_mode)) return String("not a folder");
   return std::nullopt;
}

// Seconds as an operator writes them: 10, 2.5. Above 0 and at most a day.
std::optional<double> parseSeconds(String const &text) {
   if (text.empty() || text.find_first_not_of("0123456789.") != String::npos ||
       text.find('.') != text.rfind('.') || text.front() == '.' || text.back() == '.') {
      return std::nullopt;
   }
   double const s = std::strtod(text.c_str(), nullptr);
   if (!(s > 0) || s > 86400) return std::nullopt;
   return s;
}

// The option's value, else its environment variable's, with the name of
// whichever gave it.
std::optional<String> given(std::optional<String> const &option, char const *optionName, char const *variable,
                            char const *&source) {
   source = optionName;
   if (option) return option;
   source = variable;
   if (char const *env = std::getenv(variable)) return String(env);
   return std::nullopt;
}

}  // namespace

Configuration configure(Options options) {
   Configuration c;
   char const *source = nullptr;
   if (auto dir = given(options.toggles, "--toggles", "SENTREL_TOGGLES_DIR", source)) {
      if (auto p = Loom::toggleDirProblem(*dir)) throw UsageError(String(source) + " " + *dir + ": " + *p);
   }
   // A system root that is not there would make every file of it missing,
   // and every reason made up.
   if (auto root = given(options.sysroot, "--sysroot", "SENTREL_SYSROOT", source); root && !root->empty()) {
      if (auto p = folderProblem(*root)) throw UsageError(String(source) + " " + *root + ": " + *p);
   }
   if (auto timeout = given(options.commandTimeout, "--command-timeout", "SENTREL_COMMAND_TIMEOUT", source)) {
      auto const seconds = parseSeconds(*timeout);
      if (!seconds) {
         throw UsageError(String(source) + " takes seconds above 0 and at most 86400, such as 10 or 2.5, not '" +
                          *timeout + "'");
      }
      c.commandTimeout = std::chrono::duration<double>(*seconds);
   }
   if (auto levels = given(options.trace, "--trace", "SENTREL_TRACE", source)) {
      auto mask = Loom::parseTraceLevels(*levels);
      if (!mask) throw UsageError(String(source) + " takes levels 0 to 9 such as 2, 2,7 or 0-9, not '" + *levels + "'");
      c.traceLevels = *mask;
   }
   if (auto tcti = given(options.tcti, "--tcti", "SENTREL_TCTI", source)) {
      if (tcti->empty()) throw UsageError(String(source) + " names no TCTI");
      options.tcti = tcti;
   }
   c.options = std::move(options);
   return c;
}

}  // namespace SentrelHost
