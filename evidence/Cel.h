#pragma once

#include <string_view>
#include <variant>

#include "evidence/EventLog.h"

// The TCG Canonical Event Log in its JSON form: the form of the fleet's
// baseline and of the log a switch sends with its quote.
//
// An array of records, one per event of the log (EV_NO_ACTION ones
// included), one per line:
//   {"recnum": 5, "pcr": 4, "digests": [{"hashAlg": "sha256", "digest": "<hex>"}],
//    "content_type": "pcclient_std",
//    "content": {"event_type": "EV_EFI_BOOT_SERVICES_APPLICATION", "event_data": "<hex>"}}
// recnum is the event's number in the log, from 0. event_type is the TCG
// name, or the number for a type without one; hashAlg the TPM's name of the
// algorithm; data and digests lower-case hex.
//
// Reading takes what other tools write too: a content type, an event type
// or an algorithm as a name in any case, a number, or a number in decimal
// or 0x text (systemd's export writes the event types it has no name for
// as decimal text); hex in either case; recnum from wherever it starts.
//
// One member is our own: "machine_unique": true marks a record whose event
// differs from machine to machine of a model (a MAC address in PCR 1, a
// serial number), so that it is skipped when compared. The writer never
// writes it; an operator adds it to the reference switch's baseline.
namespace SentrelEvidence {

// The log as a canonical event log, what --write-baseline writes.
String canonicalEventLogJson(EventLog const &log);

// A canonical event log read back as a log: its events in the file's order;
// the format and algorithms from its crypto-agile header record where it
// has one, else the algorithms its events carry; the startup locality from
// its StartupLocality record. A problem names the byte offset (or the
// record) and what is wrong. Strict about what it keeps: every record of PC
// Client content has a recnum, a pcr, digests and content with event_type
// and event_data; a digest is hex of its algorithm's size. Digests of
// algorithms we do not know, members we do not know and records of other
// content types (a CEL's own management records, systemd's) are passed
// over. At most kMaxEvents records.
std::variant<EventLog, EventLogProblem> parseCanonicalEventLog(std::string_view json);

}  // namespace SentrelEvidence
