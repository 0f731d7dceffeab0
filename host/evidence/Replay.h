#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/evidence/EventLog.h"

// The PCR values a firmware event log replays to, as the TPM should hold them.
namespace SentrelEvidence {

using PcrBank = std::map<std::uint32_t, String>;  // PCR index -> raw value

struct Replay {
   std::map<std::uint16_t, PcrBank> banks;   // per algorithm of the log that OpenSSL computes
   std::vector<std::uint16_t> uncomputable;  // algorithms of the log that OpenSSL lacks
};

// Per algorithm of the log, every PCR that an event other than EV_NO_ACTION
// extends: from zeros (PCR 0 from the startup locality, in its last byte),
// each event's digest extended in the log's order.
Replay replayEventLog(EventLog const &log);

}  // namespace SentrelEvidence
