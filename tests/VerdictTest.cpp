// The verdict on logs and PCR values built here: which PCRs are compared,
// and what each bank is found to be, at the edges.
#include <functional>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "evidence/Verdict.h"

using namespace SentrelEvidence;
using namespace SentrelTest;

namespace {

EventLog parsed(LogPlan const &plan) {
   auto result = parseEventLog(writeEventLog(plan));
   if (auto const *p = std::get_if<EventLogProblem>(&result)) ADD_FAILURE() << p->what;
   auto *log = std::get_if<EventLog>(&result);
   return log ? std::move(*log) : EventLog{};
}

// A TPM holding what `plan` replays to in every bank it names (of PCRs
// 0-23), the rest of each bank's PCRs at zeros.
TpmPcrs tpmOf(LogPlan const &plan, std::vector<std::uint16_t> const &banks) {
   TpmPcrs tpm;
   for (auto const id : banks) tpm.banks[algorithmName(id)].values = replayedBank(plan, id);
   return tpm;
}

template <class T>
String joined(std::vector<T> const &items) {
   String out;
   for (auto const &i : items) {
      if constexpr (std::is_same_v<T, Problem>) {
         out += (out.empty() ? "" : "; ") + i.why;
      } else {
         out += (out.empty() ? "" : " ") + i;
      }
   }
   return out;
}

// The findings in one line each, empty sets left out.
String described(Findings const &f) {
   String out;
   auto const line = [&](char const *name, String const &text) {
      if (!text.empty()) out += String(name) + ": " + text + "\n";
   };
   line("replayed", joined(f.replayedBank));
   line("mismatched", joined(f.mismatchedPcr));
   line("unextended", joined(f.unextendedBank));
   line("unverified", joined(f.unverifiedBank));
   line("comparison unknown", joined(f.comparison));
   line("extension unknown", joined(f.extension));
   return out;
}

String const kBothReplayed = "replayed: sha1 sha256\n";
String const kAllMismatched = "mismatched: sha1:0 sha1:1 sha1:2 sha1:3 sha1:4 sha1:5 sha1:6 sha1:7 "
                              "sha256:0 sha256:1 sha256:2 sha256:3 sha256:4 sha256:5 sha256:6 sha256:7\n";

}  // namespace

TEST(Verdict, ComparedPcrsAreTheFirmwaresAndThoseOfTheBootLoaderThatTheLogExtends) {
   LogPlan plan = firmwareBoot();
   EXPECT_EQ(comparedPcrs(parsed(plan)).to_ulong(), 0xFFul);
   for (std::uint32_t pcr : {8u, 9u, 10u, 11u, 12u, 13u, 14u, 15u, 16u, 23u}) {
      plan.events.push_back({pcr, EV_IPL, "loader " + std::to_string(pcr), {}});
   }
   plan.events.push_back({17, EV_NO_ACTION, "not extended", {}});
   EXPECT_EQ(comparedPcrs(parsed(plan)).to_ulong(), 0xFFul | 1 << 8 | 1 << 9 | 1 << 12 | 1 << 13 | 1 << 14);
}

TEST(Verdict, EachBankIsReplayedUnextendedUnverifiedOrNotComparedAndAProblemStaysWithItsBank) {
   LogPlan const boot = firmwareBoot();
   LogPlan loader = boot, withoutPcr7 = boot, header = boot, sha1Layout = boot;
   for (std::uint32_t pcr : {8u, 9u, 10u, 11u, 14u, 16u}) loader.events.push_back({pcr, EV_IPL, "grub", {}});
   std::erase_if(withoutPcr7.events, [](LogEvent const &e) { return e.pcr == 7; });
   header.events.clear();
   sha1Layout.format = EventLogFormat::Sha1;
   auto const set = [](TpmPcrs &t, char const *bank, std::uint32_t pcr, char fill) {
      t.banks[bank].values[pcr] = String(t.banks[bank].values[pcr].size(), fill);
   };
   auto const zeros = [](TpmPcrs &t, char const *bank, std::size_t size) {
      for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) t.banks[bank].values[pcr] = String(size, '\0');
   };
   using Change = std::function<void(TpmPcrs &)>;
   struct Row {
      char const *name;
      LogPlan log;
      Change change;
      String findings;
   } const rows[] = {
      {"the TPM holds what the log replays to", boot, {}, kBothReplayed},
      {"a PCR the TPM holds otherwise", boot, [&](TpmPcrs &t) { set(t, "sha256", 4, 'x'); },
       kBothReplayed + "mismatched: sha256:4\n"},
      // A log that extends nothing expects every PCR at its reset value.
      {"a log of its header alone, on a TPM that measured", header,
       [&](TpmPcrs &t) { t = tpmOf(boot, {kAlgSha1, kAlgSha256}); }, kBothReplayed + kAllMismatched},
      {"a log without the events of PCR 7", withoutPcr7, [&](TpmPcrs &t) { t = tpmOf(boot, {kAlgSha1, kAlgSha256}); },
       kBothReplayed + "mismatched: sha1:7 sha256:7\n"},
      // 8, 9 and 14 compared where the log extends them; 10, 11 and 16 never;
      // 12 not, as the log does not extend it.
      {"the boot loader's PCRs", loader,
       [&](TpmPcrs &t) {
          for (std::uint32_t pcr : {10u, 11u, 12u, 16u}) set(t, "sha1", pcr, 'o');
          set(t, "sha256", 14, 'x');
       },
       kBothReplayed + "mismatched: sha256:14\n"},
      {"a PCR of the boot loader not read", loader, [](TpmPcrs &t) { t.banks["sha1"].values.erase(9); },
       "replayed: sha256\ncomparison unknown: sha1 PCR 9 was not read\n"},
      // Older firmware: a SHA-1 log on a TPM whose sha256 bank it extended too.
      {"an extended bank the log does not carry", sha1Layout,
       [&](TpmPcrs &t) { t.banks["sha256"] = tpmOf(boot, {kAlgSha256}).banks["sha256"]; },
       "replayed: sha1\nunverified: sha256\n"},
      {"a log bank the TPM lacks", boot, [](TpmPcrs &t) { t.banks.erase("sha1"); }, "replayed: sha256\n"},
      {"an enabled bank nothing extended", boot, [&](TpmPcrs &t) { zeros(t, "sha384", 48); },
       kBothReplayed + "unextended: sha384\n"},
      {"a log bank left at its reset values", boot,
       [&](TpmPcrs &t) { zeros(t, "sha1", 20), t.banks["sha1"].values[0].back() = 3; },
       kBothReplayed + "mismatched: sha1:0 sha1:1 sha1:2 sha1:3 sha1:4 sha1:5 sha1:6 sha1:7\nunextended: sha1\n"},
      // Each of PCRs 0-7 counts: one extended is enough, whichever it is.
      {"only PCR 0 at reset", boot, [&](TpmPcrs &t) { zeros(t, "sha384", 48), set(t, "sha384", 5, 'x'); },
       kBothReplayed + "unverified: sha384\n"},
      {"only PCR 0 extended", boot, [&](TpmPcrs &t) { zeros(t, "sha384", 48), set(t, "sha384", 0, 'x'); },
       kBothReplayed + "unverified: sha384\n"},
      {"PCRs 0-7 not all read, the rest at reset", boot,
       [&](TpmPcrs &t) {
          zeros(t, "sha384", 48), t.banks["sha384"].values.erase(6);
          t.banks["sha384"].problem = Problem{"cannot open pcr-sha384/6", ""};
       },
       kBothReplayed + "extension unknown: cannot open pcr-sha384/6\n"},
      // One bank's problem leaves the other's findings standing.
      {"a bank that could not be read", boot,
       [&](TpmPcrs &t) {
          t.banks["sha1"] = TpmBank{{}, Problem{"cannot read the sha1 PCRs", ""}};
          set(t, "sha256", 2, 'x');
       },
       "replayed: sha256\nmismatched: sha256:2\ncomparison unknown: cannot read the sha1 PCRs\n"
       "extension unknown: cannot read the sha1 PCRs\n"},
      {"the enabled banks unknown", boot, [](TpmPcrs &t) { t.enabledBanksUnknown = Problem{"no allocation", ""}; },
       kBothReplayed + "extension unknown: no allocation\n"},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      TpmPcrs tpm = tpmOf(row.log, {kAlgSha1, kAlgSha256});
      if (row.change) row.change(tpm);
      Findings const f = verdict(parsed(row.log), tpm);
      EXPECT_EQ(described(f), row.findings);
      EXPECT_EQ(joined(f.logBank), row.log.format == EventLogFormat::Sha1 ? "sha1" : "sha1 sha256");
   }
}
