// The host's --state parser: any bytes give a state or a usage error.
#include "FuzzSupport.h"
#include "host/Host.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelHost;
   static String const dir = SentrelFuzz::scratch();
   Options options;
   options.format = Format::Json;
   options.syslog = false;
   Host host(options);
   host.seedLedger();
   try {
      host.applyState(dir + "/state.json", String(reinterpret_cast<char const *>(data), size));
   } catch (UsageError const &) {
   }
   return 0;
}
