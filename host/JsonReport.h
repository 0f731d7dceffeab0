#pragma once

#include "host/ReportModel.h"

namespace SentrelHost {

// The report for programs: the run, the entities, the state machines, the
// log, the traces, the toggles and the diagnostics, pretty-printed.
String jsonReport(ReportModel const &m);

// A script's show: {"entities": {...}}, or {"PATH": {...}} for `only`, on
// one line.
String jsonShow(ReportModel const &m, String const *only);

}  // namespace SentrelHost
