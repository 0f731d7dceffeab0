#include "attest/EventLogSource.h"

#include "evidence/Cel.h"
#include "evidence/EventLog.h"

namespace SentrelAttestd {

EventLogSource::EventLogSource(String path, String shown) : path_(std::move(path)), shown_(std::move(shown)) {}

std::variant<std::shared_ptr<String const>, String> EventLogSource::canonicalJson() {
   struct stat st{};
   if (json_ && stat(path_.c_str(), &st) == 0 && identityOf(st) == *identity_) return json_;
   json_.reset();
   identity_.reset();
   auto file = readFileText(path_, shown_, SentrelEvidence::kMaxEventLogBytes);
   if (!file.problem.empty()) return "the firmware's event log: " + file.problem;
   auto const parsed = SentrelEvidence::parseEventLog(file.text);
   if (auto const *problem = std::get_if<SentrelEvidence::EventLogProblem>(&parsed)) {
      return "the firmware's event log " + shown_ + " cannot be read: " + problem->what;
   }
   json_ = std::make_shared<String const>(SentrelEvidence::canonicalEventLogJson(std::get<SentrelEvidence::EventLog>(parsed)));
   identity_ = file.identity;
   return json_;
}

}  // namespace SentrelAttestd
