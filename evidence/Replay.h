#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "evidence/EventLog.h"

// The PCR values a firmware event log replays to, as the TPM should hold them.
namespace SentrelEvidence {

struct ReplayedBank {
   // Every PCR from its reset value, with each event's digest extended in
   // the log's order.
   std::array<String, kPcrCount> values;
   std::bitset<kPcrCount> extended;  // the PCRs some event extends
};

struct Replay {
   std::map<std::uint16_t, ReplayedBank> banks;  // per algorithm of the log that OpenSSL computes
   std::vector<std::uint16_t> uncomputable;      // algorithms of the log that OpenSSL lacks
};

// Per algorithm of the log, every PCR: EV_NO_ACTION events are not extended.
Replay replayEventLog(EventLog const &log);
// The same for those of `algorithms` that the log carries: a bank nobody
// compares is not worth its hashing.
Replay replayEventLog(EventLog const &log, std::span<std::uint16_t const> algorithms);

// A PCR's value after TPM2_Startup: zeros, PCR 0 with the startup locality
// in its last byte.
String resetValue(std::uint32_t pcr, std::size_t digestSize, std::optional<std::uint8_t> startupLocality);

}  // namespace SentrelEvidence
