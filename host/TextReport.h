#pragma once

#include "host/ReportModel.h"

namespace SentrelHost {

// The report for people, laid out like the show commands of a switch CLI:
// the status entities one fact a line with the reason under each unknown
// one, the warnings, the inputs, the toggles not at their default, and a
// closing line that sums the run up.
String textReport(ReportModel const &m);

// A script's show: the entities (or the one at `only`), values alone.
String textShow(ReportModel const &m, String const *only);

}  // namespace SentrelHost
