#include "host/evidence/Evidence.h"

#include <algorithm>
#include <cerrno>

#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/types/MeasuredBootEvidence.h"
#include "Sentrel/types/StateTree.h"
#include "host/evidence/Baseline.h"
#include "host/evidence/EventLog.h"
#include "host/evidence/PcrValues.h"
#include "host/evidence/Replay.h"

namespace SentrelEvidence {

namespace {

using Evidence = Sentrel::MeasuredBootEvidence;
using A = Evidence::Attr;

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

void warn(String const &text) { Loom::log(warningHandle(), text); }

String bankName(std::uint16_t alg) {
   auto const *a = tpmAlgorithm(alg);
   return a ? String(a->name) : "0x" + std::to_string(alg);
}

class Replayer {
 public:
   Replayer(Evidence &e, EvidenceOptions const &o, EvidenceResult &result) : e_(e), o_(o), result_(result) {}

   void run() {
      auto const log = read();
      if (!log) return;
      e_.eventLogFormatIs(log->format == EventLogFormat::CryptoAgile ? "crypto-agile" : "sha1");
      e_.eventCountIs(static_cast<std::uint32_t>(log->events.size()));
      for (auto alg : log->algorithms) e_.logBankIs(bankName(alg));
      if (o_.writeBaseline) result_.baseline = canonicalEventLogJson(*log);
      compareWithTpm(*log);
      compareWithBaseline(*log);
   }

 private:
   std::optional<EventLog> read() {
      String const file = o_.eventLog ? *o_.eventLog : String(kEventLogPath);
      auto const r = o_.eventLog ? Loom::readWholeFile(file, kMaxEventLogBytes)
                                 : Loom::readSystemFile(kEventLogPath, kMaxEventLogBytes);
      auto const all = {A::eventLogFormat, A::eventCount,     A::logBank,           A::replayedBank,
                        A::mismatchedPcr,  A::unextendedBank, A::baselineDifference};
      auto unknown = [&](String const &why, String const &hint) {
         Loom::reasonIs(e_, all, why, hint);
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

   void compareWithTpm(EventLog const &log) {
      auto const replay = replayEventLog(log);
      std::map<std::uint16_t, std::set<std::uint32_t>> wanted;
      for (auto const &[alg, bank] : replay.banks) {
         for (auto const &[pcr, value] : bank) wanted[alg].insert(pcr);
      }
      auto const tpm = readPcrValues(wanted, o_.tcti);
      String problems, hints;
      auto problem = [&](String const &why, String const &hint) {
         problems += (problems.empty() ? "" : "; ") + why;
         if (!hint.empty() && hints.find(hint) == String::npos) hints += (hints.empty() ? "" : "; ") + hint;
      };
      for (auto alg : replay.uncomputable) problem("this OpenSSL cannot compute " + bankName(alg), "");
      for (auto const &[alg, bank] : replay.banks) {
         auto const read = tpm.banks.find(alg);
         if (read == tpm.banks.end()) continue;
         for (auto const &[pcr, value] : bank) {
            auto const v = read->second.values.find(pcr);
            if (v == read->second.values.end() || v->second == value) continue;
            String const name = bankName(alg) + ":" + std::to_string(pcr);
            e_.mismatchedPcrIs(name);
            warn("PCR " + name + " does not match the firmware's event log replayed");
         }
         if (read->second.problem.empty()) {
            e_.replayedBankIs(bankName(alg));
         } else {
            problem(read->second.problem, read->second.hint);
         }
      }
      if (!problems.empty()) Loom::reasonIs(e_, {A::replayedBank, A::mismatchedPcr}, problems, hints);
      unextended(log, tpm);
   }

   // Banks the TPM has enabled that nothing was measured into: anyone could
   // extend them to any value they like.
   void unextended(EventLog const &log, PcrValues const &tpm) {
      if (!tpm.enabledBanksProblem.empty()) {
         Loom::reasonIs(e_, {A::unextendedBank}, tpm.enabledBanksProblem, tpm.enabledBanksHint);
         return;
      }
      for (auto const &name : tpm.enabledBanks) {
         auto const *alg = tpmAlgorithm(name);
         bool const inLog = alg && std::find(log.algorithms.begin(), log.algorithms.end(), alg->id) != log.algorithms.end();
         bool zero = !inLog;
         if (inLog) {
            auto const read = tpm.banks.find(alg->id);
            zero = read != tpm.banks.end();
            bool any = false;
            for (std::uint32_t pcr = 0; read != tpm.banks.end() && pcr < 8; ++pcr) {
               auto const v = read->second.values.find(pcr);
               if (v == read->second.values.end()) continue;
               any = true;
               zero = zero && v->second.find_first_not_of('\0') == String::npos;
            }
            zero = zero && any;
         }
         if (!zero) continue;
         e_.unextendedBankIs(name);
         warn("PCR bank " + name + " is enabled on the TPM but the firmware never extended it");
      }
   }

   void compareWithBaseline(EventLog const &log) {
      String const file = o_.baseline ? *o_.baseline : String(kDefaultBaselinePath);
      auto const r = o_.baseline ? Loom::readWholeFile(file, kMaxEventLogBytes << 2)
                                 : Loom::readSystemFile(kDefaultBaselinePath, kMaxEventLogBytes << 2);
      // No baseline where the fleet puts it: nothing to compare, which is known.
      if (!o_.baseline && r.error == ENOENT) return;
      if (!r.ok()) {
         Loom::reasonIs(e_, {A::baselineDifference}, Loom::readFailure(file, r), Loom::openFailureHint(r.error));
         return;
      }
      auto const parsed = parseBaseline(r.text);
      if (auto const *p = std::get_if<EventLogProblem>(&parsed)) {
         Loom::reasonIs(e_, {A::baselineDifference}, file + ": byte " + std::to_string(p->offset) + ": " + p->what,
                        "write it again with sentrel --write-baseline on the model's reference switch");
         return;
      }
      for (auto const &d : SentrelEvidence::compareWithBaseline(log, std::get<Baseline>(parsed))) {
         e_.baselineDifferenceIs(d.text);
         auto const colon = d.text.find(": ");
         warn("PCR " + d.text.substr(0, colon) + " differs from the baseline from " + d.text.substr(colon + 2));
      }
   }

   Evidence &e_;
   EvidenceOptions const &o_;
   EvidenceResult &result_;
};

}  // namespace

EvidenceResult measuredBootEvidence(Ledger::EntityManager &em, EvidenceOptions const &options) {
   EvidenceResult result;
   auto const *entry = Sentrel::stateTreeEntryOf(Evidence::typeInfo());
   auto const entity = Loom::ptrCast<Evidence>(Sentrel::stateTreeNew(*entry));
   em.entityIs(entry->path, entity);
   Replayer(*entity, options, result).run();
   return result;
}

}  // namespace SentrelEvidence

void sentrelMeasuredBootEvidence(Ledger::EntityManager *em, SentrelEvidence::EvidenceOptions const *options,
                                 SentrelEvidence::EvidenceResult *out) {
   *out = SentrelEvidence::measuredBootEvidence(*em, *options);
}
