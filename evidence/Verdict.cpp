#include "evidence/Verdict.h"

#include <algorithm>

#include "evidence/Replay.h"

namespace SentrelEvidence {

namespace {

// PCRs 0-7: the firmware's own, which every measured boot extends.
constexpr std::uint32_t kFirmwarePcrs = 8;
constexpr unsigned long kComparedWhereExtended = 1u << 8 | 1u << 9 | 1u << 12 | 1u << 13 | 1u << 14;

// A PCR still as TPM2_Startup left it: zeros, PCR 0 perhaps with the
// startup locality in its last byte.
bool atReset(std::uint32_t pcr, String const &value, std::optional<std::uint8_t> locality) {
   return value == resetValue(pcr, value.size(), std::nullopt) || value == resetValue(pcr, value.size(), locality);
}

enum class Extension { Extended, AtReset, Unknown };

// Whether anything was measured into a bank: some PCR 0-7 away from its
// reset value. Unknown when those read are at reset but some were not read.
Extension extension(TpmBank const &bank, std::optional<std::uint8_t> locality) {
   bool all = true;
   for (std::uint32_t pcr = 0; pcr < kFirmwarePcrs; ++pcr) {
      auto const v = bank.values.find(pcr);
      if (v == bank.values.end()) {
         all = false;
      } else if (!atReset(pcr, v->second, locality)) {
         return Extension::Extended;
      }
   }
   return all ? Extension::AtReset : Extension::Unknown;
}

}  // namespace

std::bitset<kPcrCount> comparedPcrs(EventLog const &log) {
   std::bitset<kPcrCount> pcrs((1u << kFirmwarePcrs) - 1);
   std::bitset<kPcrCount> const whereExtended(kComparedWhereExtended);
   for (Event const &e : log.events) {
      if (e.type != EV_NO_ACTION && e.pcr < kPcrCount && whereExtended.test(e.pcr)) pcrs.set(e.pcr);
   }
   return pcrs;
}

Findings verdict(EventLog const &log, TpmPcrs const &tpm, EventLog const *baseline) {
   Findings f;
   f.eventLogFormat = eventLogFormatName(log.format);
   f.eventCount = log.events.size();
   auto const compared = comparedPcrs(log);
   // Only the banks the TPM holds are compared, so only they are replayed.
   std::vector<std::uint16_t> held;
   for (auto const id : log.algorithms) {
      if (tpm.banks.contains(algorithmName(id))) held.push_back(id);
   }
   Replay const replay = replayEventLog(log, held);
   for (auto const id : log.algorithms) {
      String const name = algorithmName(id);
      f.logBank.push_back(name);
      auto const held = tpm.banks.find(name);
      if (held == tpm.banks.end()) continue;  // the TPM lacks it: nothing to compare with
      auto const replayed = replay.banks.find(id);
      if (replayed == replay.banks.end()) {
         f.comparison.push_back({"this OpenSSL cannot compute " + name, {}});
         continue;
      }
      std::bitset<kPcrCount> unread;
      for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
         if (!compared.test(pcr)) continue;
         auto const v = held->second.values.find(pcr);
         if (v == held->second.values.end()) {
            unread.set(pcr);
         } else if (v->second != replayed->second.values[pcr]) {
            f.mismatchedPcr.push_back(concat(name, ":", pcr));
         }
      }
      if (unread.none()) {
         f.replayedBank.push_back(name);
      } else {
         f.comparison.push_back(held->second.problem.value_or(
            Problem{concat(name, " PCR ", pcrList(unread), " ", unread.count() == 1 ? "was" : "were", " not read"), {}}));
      }
   }
   if (tpm.enabledBanksUnknown) {
      f.extension.push_back(*tpm.enabledBanksUnknown);
   } else {
      for (auto const &[name, bank] : tpm.banks) {
         switch (extension(bank, log.startupLocality)) {
            case Extension::AtReset: f.unextendedBank.push_back(name); break;
            case Extension::Extended:
               if (std::find(f.logBank.begin(), f.logBank.end(), name) == f.logBank.end()) f.unverifiedBank.push_back(name);
               break;
            case Extension::Unknown:
               f.extension.push_back(bank.problem.value_or(Problem{"PCRs 0-7 of " + name + " were not all read", {}}));
               break;
         }
      }
   }
   if (baseline) f.baselineDifference = compareWithBaseline(log, *baseline);
   return f;
}

}  // namespace SentrelEvidence
