#pragma once

#include <cstdint>

#include "Sentrel/platform/EntityAttrs.h"

namespace Sentrel {

// PCRs as "<bank>:<index>"; baseline differences as
// "<index>: event <n> <event type> <what>".
#define SENTREL_MEASURED_BOOT_EVIDENCE_ATTRS(X)      \
   X(value, Loom::String, eventLogFormat, {})        \
   X(value, std::uint32_t, eventCount, 0)            \
   X(set, Loom::StringSet, logBank, {})              \
   X(set, Loom::StringSet, replayedBank, {})         \
   X(set, Loom::StringSet, mismatchedPcr, {})        \
   X(set, Loom::StringSet, unextendedBank, {})       \
   X(set, Loom::StringSet, unverifiedBank, {})       \
   X(set, Loom::StringSet, baselineDifference, {})

// The firmware's event log replayed against the TPM's PCRs, and compared
// with the fleet's baseline; written by the host, not by the agent.
class LOOM_API MeasuredBootEvidence : public Loom::Entity {
   LOOM_ENTITY(MeasuredBootEvidence, SENTREL_MEASURED_BOOT_EVIDENCE_ATTRS)
};

}  // namespace Sentrel
