#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/evidence/EventLog.h"

// Writes TPM event logs for tests, fuzzer seeds and benchmarks, and computes
// the PCR values they replay to, independently of the code under test.
namespace SentrelTest {

using Loom::String;
using SentrelEvidence::EventLogFormat;

struct LogEvent {
   std::uint32_t pcr = 0;
   std::uint32_t type = 0;
   String data;
   // Digests by algorithm id; an algorithm of the log not given here gets
   // the hash of `data`.
   std::map<std::uint16_t, String> digests;
};

struct LogSpec {
   EventLogFormat format = EventLogFormat::CryptoAgile;
   std::vector<std::uint16_t> banks{SentrelEvidence::kAlgSha1, SentrelEvidence::kAlgSha256};
   // Algorithms the header declares that no one knows (id, digest size):
   // every event carries a digest of zeros for them.
   std::vector<std::pair<std::uint16_t, std::uint16_t>> unknownAlgorithms;
   std::optional<std::uint8_t> startupLocality;
   std::vector<LogEvent> events;
};

// The log's bytes: for the crypto-agile layout the "Spec ID Event03" header,
// then the StartupLocality event when there is one, then the events.
String writeEventLog(LogSpec const &spec);

// The values the log's PCRs replay to, raw, by (algorithm, PCR index).
std::map<std::pair<std::uint16_t, std::uint32_t>, String> replayedPcrs(LogSpec const &spec);

// Event data as firmware writes it.
String utf16(std::string_view ascii);
// UEFI_VARIABLE_DATA for a variable of the EFI global GUID.
String uefiVariableData(std::string_view name, String const &value);
// UEFI_IMAGE_LOAD_EVENT with a device path ending in a file path node.
String imageLoadData(std::string_view filePath);

// Lower-case hex of raw bytes.
String hex(String const &bytes);

}  // namespace SentrelTest
