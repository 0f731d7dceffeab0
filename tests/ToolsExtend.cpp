#include "tests/ToolsExtend.h"

#include "Sentrel/platform/RunCommand.h"

namespace SentrelTest {

using namespace SentrelEvidence;

bool extendWithTools(String const &tcti, LogPlan const &plan, String &output) {
   auto const parsed = parseEventLog(writeEventLog(plan));
   // One argument an event: "4:sha1=HEX,sha256=HEX".
   String events;
   for (auto const &e : std::get<EventLog>(parsed).events) {
      if (e.type == EV_NO_ACTION) continue;
      String digests;
      for (auto const &d : e.digests) {
         digests += (digests.empty() ? "" : ",") + algorithmName(d.algorithm) + "=" + hexOf(d.bytes);
      }
      events += " " + std::to_string(e.pcr) + ":" + digests;
   }
   auto const r = Loom::runCommandForOutput("TPM2TOOLS_TCTI='" + tcti + "' tpm2_pcrextend" + events + " 2>&1");
   output = r.output;
   return r.exitCode == 0;
}

}  // namespace SentrelTest
