#include "tests/ToolsExtend.h"

#include "Sentrel/platform/RunCommand.h"

namespace SentrelTest {

using namespace SentrelEvidence;

bool extendWithTools(String const &tcti, LogPlan const &plan, String &output) {
   auto const parsed = parseEventLog(writeEventLog(plan));
   String specs;
   for (auto const &e : std::get<EventLog>(parsed).events) {
      if (e.type == EV_NO_ACTION) continue;
      String spec;
      for (auto const &d : e.digests) spec += (spec.empty() ? "" : ",") + algorithmName(d.algorithm) + "=" + hexOf(d.bytes);
      specs += " " + std::to_string(e.pcr) + ":" + spec;
   }
   auto const r = Loom::runCommandForOutput("TPM2TOOLS_TCTI='" + tcti + "' tpm2_pcrextend" + specs + " 2>&1");
   output = r.output;
   return r.exitCode == 0;
}

}  // namespace SentrelTest
