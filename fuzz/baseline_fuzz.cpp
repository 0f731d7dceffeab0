// The fleet's baseline file and the event data that names a component: any
// bytes read back as a baseline, and as the data of each event type whose
// data is decoded.
#include <cstdlib>

#include "FuzzSupport.h"
#include "host/evidence/Baseline.h"
#include "host/evidence/EventNames.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelEvidence;
   std::string_view const bytes(reinterpret_cast<char const *>(data), size);
   auto const parsed = parseBaseline(bytes);
   if (auto const *baseline = std::get_if<Baseline>(&parsed); baseline && baseline->size() > kMaxEvents) std::abort();
   for (std::uint32_t type : {EV_POST_CODE, EV_S_CRTM_VERSION, EV_IPL, EV_EFI_VARIABLE_BOOT,
                              EV_EFI_BOOT_SERVICES_APPLICATION, EV_EFI_RUNTIME_SERVICES_DRIVER, EV_EFI_ACTION}) {
      Event const e{0, 0, 0, type, {}, String(bytes)};
      // Printable and short, whatever the data.
      String const what = eventComponent(e);
      if (what.size() > 1024) std::abort();
      for (char c : what) {
         if (static_cast<unsigned char>(c) < 0x20) std::abort();
      }
   }
   return 0;
}
