// The canonical event log of a baseline or a quote, and the event data that
// names a component: any bytes read back as a canonical event log, and as
// the data of each event type whose data is decoded.
#include <cstdlib>

#include "FuzzSupport.h"
#include "Sentrel/platform/Printable.h"
#include "evidence/Cel.h"
#include "evidence/EventNames.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelEvidence;
   std::string_view const bytes(reinterpret_cast<char const *>(data), size);
   auto const parsed = parseCanonicalEventLog(bytes);
   if (auto const *log = std::get_if<EventLog>(&parsed)) {
      if (log->events.size() > kMaxEvents) std::abort();
      // What the writer makes of it reads back the same.
      auto const again = parseCanonicalEventLog(canonicalEventLogJson(*log));
      auto const *copy = std::get_if<EventLog>(&again);
      if (!copy || copy->events.size() != log->events.size() || copy->algorithms != log->algorithms) std::abort();
   }
   for (std::uint32_t type : {EV_POST_CODE, EV_S_CRTM_VERSION, EV_IPL, EV_EFI_VARIABLE_BOOT,
                              EV_EFI_BOOT_SERVICES_APPLICATION, EV_EFI_RUNTIME_SERVICES_DRIVER, EV_EFI_ACTION}) {
      Event const e{0, 0, 0, type, {}, String(bytes)};
      // Short whatever the data, and printable once escaped for people.
      String const what = eventComponent(e);
      if (what.size() > 1024) std::abort();
      for (char c : Loom::printable(what)) {
         if (static_cast<unsigned char>(c) < 0x20) std::abort();
      }
   }
   return 0;
}
