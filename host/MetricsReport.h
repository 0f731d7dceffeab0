#pragma once

#include "host/ReportModel.h"

namespace SentrelHost {

// The report in the Prometheus text exposition format (0.0.4, what
// node_exporter's textfile collector reads): every fact, generically, the
// unknown facts, the warnings counted by name, and when and by what build
// the run was made.
String metricsReport(ReportModel const &m);

}  // namespace SentrelHost
