#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "evidence/EventLog.h"

// Writes TPM event logs for tests, fuzzer seeds and benchmarks, and computes
// the PCR values they replay to, independently of the code under test.
namespace SentrelTest {

using SentrelEvidence::String;
using SentrelEvidence::EventLogFormat;

struct LogEvent {
   std::uint32_t pcr = 0;
   std::uint32_t type = 0;
   String data;
   // Digests by algorithm id; an algorithm of the log not given here gets
   // the hash of `data`, or zeros for EV_NO_ACTION as firmware writes them.
   std::map<std::uint16_t, String> digests;
};

// Every member with a default, so that a designated initializer names only
// what it sets.
struct LogPlan {
   EventLogFormat format = EventLogFormat::CryptoAgile;
   std::vector<std::uint16_t> banks{SentrelEvidence::kAlgSha1, SentrelEvidence::kAlgSha256};
   // Algorithms the header declares that no one knows (id, digest size):
   // every event carries a digest of zeros for them.
   std::vector<std::pair<std::uint16_t, std::uint16_t>> unknownAlgorithms{};
   std::optional<std::uint8_t> startupLocality{};
   std::vector<LogEvent> events{};
};

// The log's bytes: for the crypto-agile layout the header event,
// then the StartupLocality event when there is one, then the events.
String writeEventLog(LogPlan const &plan);

// The values the log's PCRs replay to, raw, by (algorithm, PCR index).
std::map<std::pair<std::uint16_t, std::uint32_t>, String> replayedPcrs(LogPlan const &plan);
// Every PCR of `bank` as a TPM holds it after the log's boot: zeros where
// the log extends nothing.
std::map<std::uint32_t, String> replayedBank(LogPlan const &plan, std::uint16_t bank);

// Event data as firmware writes it.
String utf16(std::string_view ascii);
// UEFI_VARIABLE_DATA for a variable of the EFI global GUID.
String uefiVariableData(std::string_view name, String const &value);
// UEFI_IMAGE_LOAD_EVENT with a device path ending in a file path node.
String imageLoadData(std::string_view filePath);

// A firmware's boot over PCRs 0-7: the S-CRTM version, a boot variable,
// the boot application, secure boot's configuration, then the separators;
// a StartupLocality of 3.
LogPlan firmwareBoot(String const &bootApplication = "\\EFI\\BOOT\\BOOTX64.EFI", String const &bootOrder = "\x01");

// `count` events of a boot as firmware logs them, over PCRs 0-9 and 14: the
// S-CRTM version, POST codes, UEFI variables, boot applications with their
// device paths and image digests, actions, boot loader commands and
// separators, with data of about 50 to 200 bytes. The same for the same seed.
std::vector<LogEvent> firmwareEvents(std::size_t count, std::uint32_t seed);

// Lower-case hex of raw bytes.
inline String hex(String const &bytes) { return SentrelEvidence::hexOf(bytes); }

// The algorithm's digest of `bytes`, raw, by OpenSSL; empty for an algorithm
// no one knows.
String hashOf(std::uint16_t algorithm, String const &bytes);

// Appends `v` in little-endian order, as every field of a log is written.
template <class T>
void putLittleEndian(String &out, T v) {
   for (std::size_t i = 0; i < sizeof v; ++i) out += static_cast<char>(static_cast<std::uint64_t>(v) >> 8 * i & 0xff);
}

}  // namespace SentrelTest
