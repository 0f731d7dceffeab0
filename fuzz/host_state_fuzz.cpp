// The host's --state parser: any bytes give a state or a usage error.
#include "FuzzSupport.h"
#include "host/Session.h"
#include "host/UsageError.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelHost;
   static String const dir = SentrelFuzz::scratch();
   static Configuration const config = [] {
      Configuration c;
      c.options.format = Format::Json;
      c.options.syslog = false;
      return c;
   }();
   Session session(config);
   session.seedLedger();
   try {
      session.applyState(dir + "/state.json", String(reinterpret_cast<char const *>(data), size));
   } catch (UsageError const &) {
   }
   return 0;
}
