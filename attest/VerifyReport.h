#pragma once

#include <vector>

#include "attest/QuoteChecks.h"
#include "host/Version.h"

// The verifier's report: one model, three renderers.
namespace SentrelAttest {

struct SwitchReport {
   String name;
   String address;  // empty for a saved response
   Judgement judgement;
};

struct VerifyReport {
   SentrelHost::RunInfo run;
   std::vector<SwitchReport> switches;
};

// One block per switch, then "998 trusted, 1 untrusted, 1 unreachable".
// Text from a switch is shown as it came, but for what could mislead a
// terminal or a reader.
String textReport(VerifyReport const &report);
// {"run": {...}, "switches": [{"name", "address", "verdict", "reason", "evidence"}]};
// evidence holds the attributes of sentrel/measuredBootEvidence, null when
// the log was not read.
String jsonReport(VerifyReport const &report);
// The Prometheus text format: sentrel_attestation by switch and verdict,
// and the run's time.
String metricsReport(VerifyReport const &report);

// "998 trusted, 1 untrusted, 1 unreachable".
String summaryLine(VerifyReport const &report);
// 0 all trusted, 1 one untrusted, 4 one unreachable and none untrusted.
int exitStatus(VerifyReport const &report);

}  // namespace SentrelAttest
