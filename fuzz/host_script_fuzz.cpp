// The host's --script commands, run on a started agent: any bytes run or
// give a usage error. Scripts that point file paths elsewhere are left out:
// they would read whatever file of this machine they name.
#include "FuzzSupport.h"
#include "host/Host.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelHost;
   String const text(reinterpret_cast<char const *>(data), size);
   if (text.find("FilePath") != String::npos) return 0;
   static String const dir = SentrelFuzz::scratch();
   Options options;
   options.agentPath = SENTREL_AGENT_PATH;
   options.format = Format::Json;
   options.syslog = false;
   Host host(options);
   host.loadAgent();
   host.seedLedger();
   host.startAgent();
   String out;
   try {
      host.runScript("script", text, out);
   } catch (UsageError const &) {
   }
   return 0;
}
