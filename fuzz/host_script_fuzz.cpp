// The host's --script commands, run on a started agent: any bytes run or
// give a usage error. Scripts that point file paths elsewhere are left out:
// they would read whatever file of this machine they name.
#include "FuzzSupport.h"
#include "host/Script.h"
#include "host/Session.h"
#include "host/UsageError.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelHost;
   String const text(reinterpret_cast<char const *>(data), size);
   if (text.find("FilePath") != String::npos) return 0;
   static String const dir = SentrelFuzz::scratch();
   static Configuration const config = [] {
      Configuration c;
      c.options.agentPath = SENTREL_AGENT_PATH;
      c.options.format = Format::Json;
      c.options.syslog = false;
      return c;
   }();
   Session session(config);
   session.loadAgent();
   session.seedLedger();
   session.startAgent();
   String out;
   try {
      runScript(session, Format::Json, "script", text, out);
   } catch (UsageError const &) {
   }
   return 0;
}
