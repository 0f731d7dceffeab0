#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "attest/FileText.h"

namespace SentrelAttestd {

// The firmware's event log as a verifier receives it: the binary log
// parsed and written as a TCG canonical event log in JSON, the form of the
// fleet's baselines. Kept while the file stays the same: the firmware's log
// does not change after boot, and converting it costs more than the quote
// leaves room for. One thread at a time.
class EventLogSource {
 public:
   // `path` as opened, `shown` as messages name it.
   EventLogSource(String path, String shown);

   // The log's canonical JSON, or why there is none: the file missing,
   // unreadable, or not an event log (with the byte offset).
   std::variant<std::shared_ptr<String const>, String> canonicalJson();

 private:
   String path_, shown_;
   std::optional<FileIdentity> identity_;
   std::shared_ptr<String const> json_;
};

}  // namespace SentrelAttestd
