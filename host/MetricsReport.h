#pragma once

#include <vector>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/Log.h"
#include "host/Diagnostic.h"
#include "host/Version.h"

namespace SentrelHost {

// The state of a finished run in the Prometheus text exposition format
// (0.0.4, what node_exporter's textfile collector reads): every fact of the
// state tree, generically from the type descriptions, the unknown facts, the
// warnings counted by name, and when and by what build the run was made.
String metricsReport(Ledger::EntityManager const &em, std::vector<Diagnostic> const &diagnostics,
                     std::vector<Loom::LogRecord> const &logs, RunInfo const &run);

}  // namespace SentrelHost
