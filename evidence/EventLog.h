#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "evidence/TpmAlgorithm.h"

// The firmware's TPM event log (TCG PC Client format): the events, their
// digests per algorithm, and the startup locality.
namespace SentrelEvidence {

// Event types this project reads the data of.
inline constexpr std::uint32_t EV_POST_CODE = 0x00000001;
inline constexpr std::uint32_t EV_NO_ACTION = 0x00000003;
inline constexpr std::uint32_t EV_SEPARATOR = 0x00000004;
inline constexpr std::uint32_t EV_ACTION = 0x00000005;
inline constexpr std::uint32_t EV_S_CRTM_VERSION = 0x00000008;
inline constexpr std::uint32_t EV_IPL = 0x0000000D;
inline constexpr std::uint32_t EV_EFI_VARIABLE_DRIVER_CONFIG = 0x80000001;
inline constexpr std::uint32_t EV_EFI_VARIABLE_BOOT = 0x80000002;
inline constexpr std::uint32_t EV_EFI_BOOT_SERVICES_APPLICATION = 0x80000003;
inline constexpr std::uint32_t EV_EFI_BOOT_SERVICES_DRIVER = 0x80000004;
inline constexpr std::uint32_t EV_EFI_RUNTIME_SERVICES_DRIVER = 0x80000005;
inline constexpr std::uint32_t EV_EFI_ACTION = 0x80000007;
inline constexpr std::uint32_t EV_EFI_VARIABLE_AUTHORITY = 0x800000E0;

// A PC Client TPM has PCRs 0 to 23.
inline constexpr std::uint32_t kPcrCount = 24;

// PCR indices as people read them: "0, 1, 8"; "none" for none.
template <std::size_t N>
String pcrList(std::bitset<N> const &pcrs) {
   String list;
   for (std::size_t pcr = 0; pcr < N; ++pcr) {
      if (pcrs.test(pcr)) list += concat(list.empty() ? "" : ", ", pcr);
   }
   return list.empty() ? "none" : list;
}

enum class EventLogFormat { CryptoAgile, Sha1 };
// "crypto-agile" or "sha1".
std::string_view eventLogFormatName(EventLogFormat format);

// The first 16 bytes of the crypto-agile header event's data, NUL included,
// spelled as the bytes they are.
inline constexpr std::string_view kCryptoAgileSignature{
   "\x53\x70\x65\x63\x20\x49\x44\x20\x45\x76\x65\x6e\x74\x30\x33", 16};

struct Digest {
   std::uint16_t algorithm;
   String bytes;  // raw, the algorithm's digest size
};

struct Event {
   // Of a binary log the position, from 0 (the header is event 0); of a
   // canonical event log the record's recnum.
   std::size_t number;
   std::size_t offset;  // byte offset where the event or record starts
   std::uint32_t pcr;
   std::uint32_t type;
   // Known algorithms only, in the log's order; the crypto-agile header
   // (event 0) has the zero SHA-1 digest of its own layout.
   std::vector<Digest> digests;
   String data;
   // A baseline's mark on an event that differs from machine to machine of
   // a model (a MAC address, a serial number): skipped when compared.
   bool machineUnique = false;
};

struct EventLog {
   EventLogFormat format = EventLogFormat::Sha1;
   // The known algorithms the log carries, in the header's order (sha1 alone
   // for the SHA-1 layout).
   std::vector<std::uint16_t> algorithms;
   std::vector<Event> events;  // every event, EV_NO_ACTION ones included
   // From an EV_NO_ACTION "StartupLocality" event: PCR 0 starts at it.
   std::optional<std::uint8_t> startupLocality;
};

// Why a log could not be read: where and what.
struct EventLogProblem {
   std::size_t offset;  // where the event at fault starts (0 for the whole log)
   String what;         // "event N at byte OFFSET ...", naming the field's own byte
};

// Bounds: a real log is tens of kilobytes and a few hundred events; more is
// a wrong file or a hostile one.
inline constexpr std::size_t kMaxEventLogBytes = std::size_t{16} << 20;
inline constexpr std::size_t kMaxEvents = 100000;

// Parses a whole binary log. Every length is checked against what remains,
// so a truncated or malformed log is a problem at a byte offset, never a crash.
std::variant<EventLog, EventLogProblem> parseEventLog(std::string_view bytes);

// What every event must hold, however the log was read: its PCR index is
// one a PC Client TPM has, and a StartupLocality event has its locality,
// which is set in `log`. Why not, otherwise.
std::optional<EventLogProblem> checkEvent(Event const &event, EventLog &log);

// The known algorithms that a crypto-agile header's data declares, or why
// it declares none that can be read; `at` is where the data starts in the
// log, for the problem's text. Unknown algorithms are skipped; their sizes
// come back in `sizes` (id, digest size), in the header's order, when asked.
std::variant<std::vector<std::uint16_t>, String> headerAlgorithms(
   std::string_view data, std::size_t at, std::vector<std::pair<std::uint16_t, std::uint16_t>> *sizes = nullptr);

}  // namespace SentrelEvidence
