#include "evidence/Cel.h"
#include "evidence/EventNames.h"

namespace SentrelEvidence {

String canonicalEventLogJson(EventLog const &log) {
   String out = "[\n";
   for (std::size_t i = 0; i < log.events.size(); ++i) {
      Event const &e = log.events[i];
      out += concat("{\"recnum\": ", e.number, ", \"pcr\": ", e.pcr, ", \"digests\": [");
      for (std::size_t d = 0; d < e.digests.size(); ++d) {
         // Events hold digests of known algorithms only: each has its name.
         out += concat(d == 0 ? "" : ", ", "{\"hashAlg\": \"", algorithmName(e.digests[d].algorithm),
                       "\", \"digest\": \"", hexOf(e.digests[d].bytes), "\"}");
      }
      out += "], \"content_type\": \"pcclient_std\", \"content\": {\"event_type\": ";
      String const name = eventTypeName(e.type);
      out += name.starts_with("EV_") ? concat("\"", name, "\"") : concat(e.type);
      out += concat(", \"event_data\": \"", hexOf(e.data), "\"}}", i + 1 < log.events.size() ? ",\n" : "\n");
   }
   out += "]\n";
   return out;
}

}  // namespace SentrelEvidence
