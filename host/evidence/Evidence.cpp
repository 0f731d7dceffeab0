#include "host/evidence/Evidence.h"

#include <cerrno>

#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/types/MeasuredBootEvidence.h"
#include "Sentrel/types/StateTree.h"
#include "evidence/Cel.h"
#include "host/evidence/PcrValues.h"

namespace SentrelHost {

namespace {

using namespace SentrelEvidence;
using Entity = Sentrel::MeasuredBootEvidence;
using A = Entity::Attr;

Loom::LogDescriptor const kWarningDesc{"MEASUREDBOOT_EVIDENCE_WARNING", "%s",
                                       "The TPM's PCRs do not bear out the firmware's event log, or the log differs "
                                       "from the fleet's baseline for this model.",
                                       "Find the boot component named; compare the switch with its model's reference.",
                                       4, 0};
Loom::LogHandle &warningHandle() {
   // A minimum interval of 0: every warning reaches the log.
   static auto *h = new Loom::LogHandle(kWarningDesc, std::chrono::nanoseconds(0), 1.0, 0, 0);
   return *h;
}

// Text from the log goes to the system log as people may read it.
void warn(String const &text) { Loom::log(warningHandle(), Loom::printable(text)); }

// One reason for `attrs` from the problems of several banks.
void problemsAre(Entity const &e, std::initializer_list<A::Number> attrs, std::vector<Problem> const &problems) {
   if (problems.empty()) return;
   String why, hints;
   for (auto const &p : problems) {
      why += (why.empty() ? "" : "; ") + p.why;
      if (!p.hint.empty() && hints.find(p.hint) == String::npos) hints += (hints.empty() ? "" : "; ") + p.hint;
   }
   Loom::reasonIs(e, attrs, why, hints);
}

// Reads the inputs, asks the verdict, and publishes its findings.
class Publisher {
 public:
   Publisher(Entity &e, EvidenceOptions const &o, EvidenceResult &result) : e_(e), o_(o), result_(result) {}

   void run() {
      auto const log = readLog();
      if (!log) return;
      if (o_.writeBaseline) result_.baseline = canonicalEventLogJson(*log);
      auto const baseline = readBaseline();
      TpmPcrs const tpm = readPcrValues(comparedPcrs(*log), log->algorithms, o_.tcti, o_.tpmDeadline);
      publish(verdict(*log, tpm, baseline ? &*baseline : nullptr));
   }

 private:
   std::optional<EventLog> readLog() {
      String const file = o_.eventLog ? *o_.eventLog : String(kEventLogPath);
      auto const r = o_.eventLog ? Loom::readWholeFile(file, kMaxEventLogBytes)
                                 : Loom::readSystemFile(kEventLogPath, kMaxEventLogBytes);
      auto unknown = [&](String const &why, String const &hint) {
         Loom::reasonIs(e_,
                        {A::eventLogFormat, A::eventCount, A::logBank, A::replayedBank, A::mismatchedPcr,
                         A::unextendedBank, A::unverifiedBank, A::baselineDifference},
                        why, hint);
         result_.baselineProblem = why;
      };
      if (!r.ok()) {
         // The kernel shows the firmware's log only where securityfs is mounted.
         String const hint = !o_.eventLog && r.error == ENOENT
                                ? "mount securityfs if it is not: mount -t securityfs securityfs /sys/kernel/security"
                                : Loom::openFailureHint(r.error);
         unknown(r.tooLarge ? file + " is larger than " + std::to_string(kMaxEventLogBytes >> 20) + " MiB"
                            : Loom::readFailure(file, r),
                 hint);
         return std::nullopt;
      }
      auto parsed = parseEventLog(r.text);
      if (auto const *p = std::get_if<EventLogProblem>(&parsed)) {
         unknown(file + ": byte " + std::to_string(p->offset) + ": " + p->what, "");
         return std::nullopt;
      }
      return std::move(std::get<EventLog>(parsed));
   }

   // The fleet's baseline, where there is one that can be read.
   std::optional<EventLog> readBaseline() {
      String const file = o_.baseline ? *o_.baseline : String(kDefaultBaselinePath);
      auto const r = o_.baseline ? Loom::readWholeFile(file, kMaxEventLogBytes << 2)
                                 : Loom::readSystemFile(kDefaultBaselinePath, kMaxEventLogBytes << 2);
      // No baseline where the fleet puts it: nothing to compare, which is known.
      if (!o_.baseline && r.error == ENOENT) return std::nullopt;
      if (!r.ok()) {
         Loom::reasonIs(e_, {A::baselineDifference}, Loom::readFailure(file, r), Loom::openFailureHint(r.error));
         return std::nullopt;
      }
      auto parsed = parseCanonicalEventLog(r.text);
      if (auto const *p = std::get_if<EventLogProblem>(&parsed)) {
         Loom::reasonIs(e_, {A::baselineDifference}, file + ": byte " + std::to_string(p->offset) + ": " + p->what,
                        "write it again with sentrel --write-baseline on the model's reference switch");
         return std::nullopt;
      }
      return std::move(std::get<EventLog>(parsed));
   }

   void publish(Findings const &f) {
      e_.eventLogFormatIs(f.eventLogFormat);
      e_.eventCountIs(static_cast<std::uint32_t>(f.eventCount));
      for (auto const &b : f.logBank) e_.logBankIs(b);
      for (auto const &b : f.replayedBank) e_.replayedBankIs(b);
      for (auto const &b : f.unverifiedBank) e_.unverifiedBankIs(b);
      for (auto const &p : f.mismatchedPcr) {
         e_.mismatchedPcrIs(p);
         warn("PCR " + p + " does not match the firmware's event log replayed");
      }
      for (auto const &b : f.unextendedBank) {
         e_.unextendedBankIs(b);
         warn("PCR bank " + b + " is enabled on the TPM but the firmware never extended it");
      }
      for (auto const &d : f.baselineDifference) {
         e_.baselineDifferenceIs(d.text);
         auto const colon = d.text.find(": ");
         warn("PCR " + d.text.substr(0, colon) + " differs from the baseline from " + d.text.substr(colon + 2));
      }
      problemsAre(e_, {A::replayedBank, A::mismatchedPcr}, f.comparison);
      problemsAre(e_, {A::unextendedBank, A::unverifiedBank}, f.extension);
   }

   Entity &e_;
   EvidenceOptions const &o_;
   EvidenceResult &result_;
};

}  // namespace

EvidenceResult measuredBootEvidence(Ledger::EntityManager &em, EvidenceOptions const &options) {
   EvidenceResult result;
   auto const *entry = Sentrel::stateTreeEntryOf(Entity::typeInfo());
   auto const entity = Loom::ptrCast<Entity>(Sentrel::stateTreeNew(*entry));
   em.entityIs(entry->path, entity);
   Publisher(*entity, options, result).run();
   return result;
}

}  // namespace SentrelHost

void sentrelMeasuredBootEvidence(Ledger::EntityManager *em, SentrelHost::EvidenceOptions const *options,
                                 SentrelHost::EvidenceResult *out) {
   *out = SentrelHost::measuredBootEvidence(*em, *options);
}
