#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "evidence/EventLog.h"

// This machine's log compared with the fleet's baseline: a reference
// switch's log of the same model and firmware (evidence/Cel.h reads it).
namespace SentrelEvidence {

struct BaselineDifference {
   std::uint32_t pcr;
   std::size_t event;  // number of the event named
   String text;        // "<pcr>: event <n> <event type> <what>"
};

// Per PCR that differs, the first differing event, in PCR order. The events
// that extend a PCR (EV_NO_ACTION ones do not) are paired by position, log
// and baseline; a pair differs in its event type, or in its digest of an
// algorithm both carry, or when they carry none in common. A pair whose
// baseline event is machine-unique is skipped. The difference is named by
// the log's event, or by the baseline's for one the log lacks.
std::vector<BaselineDifference> compareWithBaseline(EventLog const &log, EventLog const &baseline);

}  // namespace SentrelEvidence
