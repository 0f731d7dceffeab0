#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>
#include <vector>

#include "host/evidence/EventLog.h"

// The fleet's baseline: a reference switch's event log as a TCG Canonical
// Event Log in its JSON form, and this machine's log compared with it.
//
// The file is an array of records, one per event of the log (EV_NO_ACTION
// ones included), one per line:
//   {"recnum": 5, "pcr": 4, "digests": [{"hashAlg": "sha256", "digest": "<hex>"}],
//    "content_type": "pcclient_std",
//    "content": {"event_type": "EV_EFI_BOOT_SERVICES_APPLICATION", "event_data": "<hex>"}}
// recnum is the event's number in the log, from 0. event_type is the TCG
// name, or the number for a type without one; hashAlg the TPM's name of the
// algorithm; data and digests lower-case hex. Reading, numbers are taken
// too (for the content type, the event type and the algorithm), names in
// any case and hex in either.
//
// One member is our own: "machine_unique": true marks a record whose event
// differs from machine to machine of a model (a MAC address in PCR 1, a
// serial number), so that it is skipped when compared. The writer never
// writes it; an operator adds it to the reference switch's baseline.
namespace SentrelEvidence {

struct BaselineRecord {
   std::size_t recnum;
   std::uint32_t pcr;
   std::uint32_t type;
   std::vector<Digest> digests;  // of the known algorithms only
   String data;
   bool machineUnique = false;  // skipped when compared
};
using Baseline = std::vector<BaselineRecord>;

// The log as a TCG Canonical Event Log in its JSON form, what --write-baseline writes.
String canonicalEventLogJson(EventLog const &log);

// A baseline file's records; a problem names the byte offset (or the record)
// and what is wrong. Strict about what it keeps: every record has a recnum,
// a pcr, digests and content with event_type and event_data; a digest is
// hex of its algorithm's size. Digests of algorithms we do not know, members
// we do not know and records of other content types (a CEL's own management
// records) are passed over. At most kMaxEvents records.
std::variant<Baseline, EventLogProblem> parseBaseline(std::string_view json);

struct BaselineDifference {
   std::uint32_t pcr;
   std::size_t event;  // number of the event named
   String text;        // "<pcr>: event <n> <event type> <what>"
};

// Per PCR that differs, the first differing event, in PCR order. The events
// that extend a PCR (EV_NO_ACTION ones do not) are paired by position, log
// and baseline; a pair differs in its event type, or in its digest of an
// algorithm both carry, or when they carry none in common. A pair whose
// record is machine-unique is skipped. The difference is named by the log's
// event, or by the baseline's record for one the log lacks.
std::vector<BaselineDifference> compareWithBaseline(EventLog const &log, Baseline const &baseline);

}  // namespace SentrelEvidence
