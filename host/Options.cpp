#include "host/Options.h"

#include "host/UsageError.h"

namespace SentrelHost {

Format formatNamed(String const &name) {
   if (name == "text") return Format::Text;
   if (name == "json") return Format::Json;
   if (name == "openmetrics") return Format::OpenMetrics;
   throw UsageError("--format takes text, json or openmetrics, not '" + name + "'");
}

char const *const kUsage =
   "usage: sentrel [--agent PATH] [--live] [--state FILE] [--sysroot DIR] [--toggles DIR]\n"
   "               [--trace LEVELS] [--format text|json|openmetrics] [--output FILE]\n"
   "               [--script FILE|-] [--command-timeout SECONDS] [--no-syslog]\n"
   "               [--event-log FILE] [--tcti CONF] [--baseline FILE] [--write-baseline FILE]\n"
   "               [--fail-on-warning] [--fail-on-unknown] [--version] [--help]\n"
   "\n"
   "Loads the Sentrel agent as the agent framework does, runs it on this machine\n"
   "(or on the state and system root given) and prints what it published, with\n"
   "the reason for every fact that could not be read.\n"
   "\n"
   "  --agent PATH           the agent to load (default: the one installed beside sentrel)\n"
   "  --live                 fill the inputs from this Linux system; the default without --state\n"
   "  --state FILE           JSON entities applied before the agent starts\n"
   "  --sysroot DIR          system root for /proc, /dev, /sys and /etc files ($SENTREL_SYSROOT)\n"
   "  --toggles DIR          feature toggle folder ($SENTREL_TOGGLES_DIR, /etc/sentrel/toggles)\n"
   "  --trace LEVELS         trace levels of the facility Sentrel, e.g. 2, 2,7 or 0-9 ($SENTREL_TRACE)\n"
   "  --format FORMAT        text (default), json or openmetrics\n"
   "  --output FILE          write the report to FILE atomically instead of standard output\n"
   "  --script FILE|-        commands run after start-up: set, insert, show, invoke, restart\n"
   "  --command-timeout SEC  deadline of each command the agent runs ($SENTREL_COMMAND_TIMEOUT, 10)\n"
   "  --no-syslog            do not send log messages to the system log\n"
   "  --event-log FILE       replay this collected TPM event log instead of the machine's\n"
   "  --tcti CONF            reach the TPM through this TCTI, e.g. swtpm:port=2321 ($SENTREL_TCTI)\n"
   "  --baseline FILE        compare the event log with this baseline (/etc/sentrel/baseline.json)\n"
   "  --write-baseline FILE  write the event log as a baseline (TCG Canonical Event Log JSON)\n"
   "  --fail-on-warning      exit 1 when a log message was emitted\n"
   "  --fail-on-unknown      exit 4 when a fact is unknown\n"
   "  --version              the version of sentrel\n"
   "\n"
   "Exit status: 0, 1 (a warning, with --fail-on-warning), 2 (usage or unusable input),\n"
   "3 (the agent left objects alive), 4 (an unknown fact, with --fail-on-unknown).\n"
   "See sentrel(1) for the state file, the script commands, the inputs and the reasons.\n";

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
         o.format = formatNamed(value());
      } else if (arg == "--output") {
         o.outputPath = value();
      } else if (arg == "--script") {
         o.scriptPath = value();
      } else if (arg == "--command-timeout") {
         o.commandTimeout = value();
      } else if (arg == "--event-log") {
         o.eventLog = value();
      } else if (arg == "--tcti") {
         o.tcti = value();
      } else if (arg == "--baseline") {
         o.baseline = value();
      } else if (arg == "--write-baseline") {
         o.writeBaseline = value();
      } else if (arg == "--no-syslog") {
         o.syslog = false;
      } else if (arg == "--fail-on-warning") {
         o.failOnWarning = true;
      } else if (arg == "--fail-on-unknown") {
         o.failOnUnknown = true;
      } else if (arg == "--version") {
         o.version = true;
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
