#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "host/Host.h"

namespace {

SentrelHost::String readAll(SentrelHost::String const &path, char const *what) {
   std::ostringstream text;
   if (path == "-") {
      text << std::cin.rdbuf();
      return text.str();
   }
   std::ifstream in(path, std::ios::binary);
   if (!in) throw SentrelHost::UsageError(std::string(what) + " " + path + ": " + std::strerror(errno));
   text << in.rdbuf();
   if (in.bad()) throw SentrelHost::UsageError(std::string(what) + " " + path + ": cannot be read");
   return text.str();
}

}  // namespace

int main(int argc, char **argv) {
   using namespace SentrelHost;
   try {
      Options options = parseOptions(argc, argv);
      if (options.help) {
         std::fputs(kUsage, stdout);
         return 0;
      }
      std::optional<String> state, script;
      if (options.statePath) state = readAll(*options.statePath, "--state");
      if (options.scriptPath) script = readAll(*options.scriptPath, "--script");

      Host host(options);
      host.loadAgent();
      host.seedLedger();
      if (options.live) host.applyLive();
      if (state) host.applyState(*options.statePath, *state);
      host.startAgent();
      // Output is held back until the run is complete: a failing script
      // command prints nothing partial.
      String out;
      if (script) host.runScript(*options.scriptPath == "-" ? "<stdin>" : *options.scriptPath, *script, out);
      out += host.report();
      std::fwrite(out.data(), 1, out.size(), stdout);
      std::fflush(stdout);
      if (!host.shutDown()) return 3;
      return options.failOnWarning && !host.logs().empty() ? 1 : 0;
   } catch (UsageError const &e) {
      std::fprintf(stderr, "sentrel: %s\n", e.what());
      if (std::strncmp(e.what(), "unknown argument", 16) == 0) std::fputs(kUsage, stderr);
      return 2;
   } catch (std::exception const &e) {
      std::fprintf(stderr, "sentrel: %s\n", e.what());
      return 2;
   }
}
