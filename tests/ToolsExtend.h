#pragma once

#include "tests/EventLogWriter.h"

namespace SentrelTest {

// Extends every event of the log into the TPM that `tcti` reaches, in
// order, with tpm2_pcrextend, as firmware would have; false, with what the
// tool said in `output`, when it fails.
bool extendWithTools(String const &tcti, LogPlan const &plan, String &output);

}  // namespace SentrelTest
