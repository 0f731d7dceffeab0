#include <cstring>

#include "host/Host.h"

namespace SentrelHost {

char const *const kUsage =
   "usage: sentrel [--agent PATH] [--live] [--state FILE] [--sysroot DIR] [--toggles DIR]\n"
   "               [--trace LEVELS] [--format text|json] [--script FILE|-]\n"
   "               [--no-syslog] [--fail-on-warning]\n"
   "\n"
   "Loads the Sentrel agent as the agent framework does, runs it on this machine\n"
   "(or on the state and system root given) and prints what it published, with\n"
   "the reason for every fact that could not be read.\n"
   "\n"
   "  --agent PATH       the agent to load (default: ../lib/libSentrel.so beside sentrel)\n"
   "  --live             fill tarn/sb/status and the manufacturing defaults from this\n"
   "                     Linux system (efivarfs, TPM, /etc/sentrel/defaults.json);\n"
   "                     the default without --state\n"
   "  --state FILE       JSON entities applied over the defaults (and the live inputs)\n"
   "                     before the agent starts\n"
   "  --sysroot DIR      system root for /proc, /dev and /sys files ($SENTREL_SYSROOT)\n"
   "  --toggles DIR      feature toggle directory ($SENTREL_TOGGLES_DIR, /etc/sentrel/toggles)\n"
   "  --trace LEVELS     trace levels of the facility Sentrel, e.g. 2 or 2,7 or 0-9 ($SENTREL_TRACE)\n"
   "  --format text|json the report's format (default: text)\n"
   "  --script FILE|-    commands run after start-up: set, insert, show, invoke, restart\n"
   "  --no-syslog        do not send log messages to the system log\n"
   "  --fail-on-warning  exit 1 when a log message was emitted\n"
   "  --help             this text\n"
   "\n"
   "Exit status: 0 normally, 1 with --fail-on-warning after a warning, 2 for a usage error\n"
   "or an unusable input, 3 when the agent left objects alive.\n";

Options parseOptions(int argc, char **argv) {
   Options o;
   for (int i = 1; i < argc; ++i) {
      String const arg = argv[i];
      auto value = [&]() -> String {
         if (i + 1 >= argc) throw UsageError(arg + " needs a value");
         return argv[++i];
      };
      if (arg == "--agent") {
         o.agentPath = value();
      } else if (arg == "--live") {
         o.live = true;
      } else if (arg == "--state") {
         o.statePath = value();
      } else if (arg == "--sysroot") {
         o.sysroot = value();
      } else if (arg == "--toggles") {
         o.toggles = value();
      } else if (arg == "--trace") {
         o.trace = value();
      } else if (arg == "--format") {
         String const f = value();
         if (f == "text") {
            o.format = Format::Text;
         } else if (f == "json") {
            o.format = Format::Json;
         } else {
            throw UsageError("--format takes text or json, not '" + f + "'");
         }
      } else if (arg == "--script") {
         o.scriptPath = value();
      } else if (arg == "--no-syslog") {
         o.syslog = false;
      } else if (arg == "--fail-on-warning") {
         o.failOnWarning = true;
      } else if (arg == "--help" || arg == "-h") {
         o.help = true;
      } else {
         throw UsageError("unknown argument '" + arg + "'");
      }
   }
   // Without a state file nothing else would fill the inputs.
   if (!o.statePath) o.live = true;
   return o;
}

}  // namespace SentrelHost
