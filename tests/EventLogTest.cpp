#include <cstdio>
#include <gtest/gtest.h>
#include <tuple>

#include "EventLogWriter.h"
#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "evidence/Replay.h"

using namespace SentrelTest;
using namespace SentrelEvidence;

namespace {

EventLog parsed(String const &bytes) {
   auto result = parseEventLog(bytes);
   if (auto const *p = std::get_if<EventLogProblem>(&result)) ADD_FAILURE() << p->offset << ": " << p->what;
   auto *log = std::get_if<EventLog>(&result);
   return log ? std::move(*log) : EventLog{};
}

// `log` with `v` written over its bytes at `at`.
template <class T>
String patched(String log, std::size_t at, T v) {
   String bytes;
   putLittleEndian(bytes, v);
   return log.replace(at, bytes.size(), bytes);
}

}  // namespace

// Both layouts read back as written, and replay to the writer's own replay:
// the header's algorithms led by an unknown one, every known bank, the
// StartupLocality, an EV_NO_ACTION event and the last PCR.
TEST(EventLog, ReadsAndReplaysWhatTheWriterWrote) {
   std::vector<LogPlan> logs{
      {.banks = {kAlgSha1, kAlgSha256, kAlgSha384, kAlgSha512, kAlgSm3_256},
       .unknownAlgorithms = {{0x0099, 12}},
       .startupLocality = 3,
       .events = firmwareEvents(120, 3)},
      {.format = EventLogFormat::Sha1, .startupLocality = 4, .events = firmwareEvents(60, 4)},
   };
   logs[0].events.push_back({23, EV_POST_CODE, "the last PCR", {}});
   logs[0].events.push_back({5, EV_NO_ACTION, "not extended", {}});
   for (auto const &plan : logs) {
      bool const agile = plan.format == EventLogFormat::CryptoAgile;
      SCOPED_TRACE(agile ? "crypto-agile" : "SHA-1 layout");
      auto const log = parsed(writeEventLog(plan));
      EXPECT_EQ(log.format, plan.format);
      EXPECT_EQ(log.algorithms, agile ? plan.banks : std::vector<std::uint16_t>{kAlgSha1});
      EXPECT_EQ(log.startupLocality, plan.startupLocality);
      std::size_t const first = agile ? 2 : 1;  // the plan's events follow the header and StartupLocality
      ASSERT_EQ(log.events.size(), first + plan.events.size());
      for (std::size_t i = first; i < log.events.size(); ++i) {
         auto const &e = log.events[i];
         auto const &want = plan.events[i - first];
         EXPECT_EQ(std::make_tuple(e.number, e.pcr, e.type, e.data, e.digests.size()),
                   std::make_tuple(i, want.pcr, want.type, want.data, log.algorithms.size()));
      }
      std::map<std::pair<std::uint16_t, std::uint32_t>, String> replayed;
      for (auto const &[alg, bank] : replayEventLog(log).banks) {
         for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
            if (bank.extended.test(pcr)) replayed[{alg, pcr}] = bank.values[pcr];
         }
      }
      EXPECT_EQ(replayed, replayedPcrs(plan));
   }
}

// Every problem names the byte where its event starts, and the field at fault.
TEST(EventLog, NamesWhereAMalformedLogGoesWrong) {
   String const good = writeEventLog({.events = firmwareEvents(4, 1)});  // sha1 and sha256
   std::size_t const e2 = parsed(good).events.at(2).offset;  // count at +8, sha256 at +34, size at +68
   std::size_t const header = 32;                            // where event 0's data starts
   auto const cut = [&](std::size_t n) { return good.substr(0, n); };
   auto const at = [](std::size_t n) { return " at byte " + std::to_string(n); };
   // Its event 0 StartupLocality, its event 1 at byte 49.
   String const sha1Layout =
      writeEventLog({.format = EventLogFormat::Sha1, .startupLocality = 0, .events = firmwareEvents(3, 1)});
   LogPlan manyAlgorithms;  // with sha1 and sha256, 70002
   manyAlgorithms.unknownAlgorithms.assign(70000, {0x0099, 0});
   struct Case { char const *name; String bytes; std::size_t offset; String what; };
   Case const cases[] = {
      {"too large", String(kMaxEventLogBytes + 1, '\0'), 0, "the log is 16777217 bytes, more than the 16777216"},
      {"in a PCR index", cut(e2 + 2), e2,
       "event 2" + at(e2) + " ends past the end of the log (" + std::to_string(e2 + 2) + " bytes) in its PCR index"},
      {"in a digest", cut(e2 + 40), e2, "in its sha256 digest" + at(e2 + 36)},
      {"in a data size", cut(e2 + 70), e2, "in its data size" + at(e2 + 68)},
      {"in the data", cut(e2 + 75), e2, "in its data" + at(e2 + 72)},
      {"in a SHA-1 layout's digest", sha1Layout.substr(0, 60), 49, "in its SHA-1 digest at byte 57"},
      {"no algorithm", patched(good, header + 24, std::uint32_t{0}), 0, "its algorithm count 0 at byte 56 declares no"},
      {"algorithm list past the data", patched(good, header + 24, std::uint32_t{1000}), 0, "lists more than its data"},
      {"more algorithms than ids", writeEventLog(manyAlgorithms), 0, "count 70002 at byte 56 is more than there are"},
      {"a known size misdeclared", patched(good, header + 34, std::uint16_t{20}), 0,
       "its header declares sha256 at byte 64 with 20-byte digests, not 32"},
      {"an algorithm declared twice", patched(good, header + 32, kAlgSha1 | 20u << 16), 0, "declares sha1 twice"},
      {"vendor information past the data", patched(good, header + 36, std::uint8_t{9}), 0, "inside its vendor"},
      {"digest count unlike the header's", patched(good, e2 + 8, std::uint32_t{1}), e2,
       "its digest count 1" + at(e2 + 8) + " differs from the header's 2"},
      {"an undeclared algorithm, below a declared one", patched(good, e2 + 12, std::uint16_t{5}), e2,
       "its algorithm 0x0005" + at(e2 + 12) + " is not one the header declares"},
      {"a PCR index past 23", patched(good, e2, std::uint32_t{1000}), e2,
       "event 2" + at(e2) + ": its PCR index 1000 is past 23, the last PCR of a PC Client TPM"},
      {"an algorithm twice", patched(good, e2 + 34, kAlgSha1), e2, "algorithm sha1" + at(e2 + 34) + " appears twice"},
      {"StartupLocality without its byte", patched(sha1Layout, 28, std::uint32_t{16}), 0,
       "its StartupLocality data ends before the locality byte"},
      // 32-byte SHA-1 events of PCR 0, type 0 and no data.
      {"too many events", String(32 * (kMaxEvents + 1), '\0'), 32 * kMaxEvents,
       "event 100000 at byte 3200000: the log holds more than 100000 events"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      auto const result = parseEventLog(c.bytes);
      auto const *p = std::get_if<EventLogProblem>(&result);
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(p->offset, c.offset);
      EXPECT_NE(p->what.find(c.what), String::npos) << p->what;
   }
   EXPECT_EQ(parsed(String(32 * kMaxEvents, '\0')).events.size(), kMaxEvents);
}

// tpm2-tools' own replay of the same logs. Its releases before 5.5 extend
// every EV_NO_ACTION event but the header and start PCR 0 from zeros whatever
// the locality (its issues 3224 and 3146): with those, no StartupLocality.
TEST(EventLog, ReplayEqualsTpm2Eventlog) {
   auto const version = Loom::runCommandForOutput("tpm2_eventlog --version");
   if (version.exitCode != 0) GTEST_SKIP() << "tpm2_eventlog (tpm2-tools) is not installed";
   int major = 0, minor = 0;
   std::sscanf(version.output.c_str(), "tool=%*s version=\"%d.%d", &major, &minor);
   std::vector<LogPlan> logs{
      {.banks = {kAlgSha384, kAlgSha1, kAlgSha256, kAlgSha512}, .events = firmwareEvents(99, 12)},
      {.format = EventLogFormat::Sha1, .events = firmwareEvents(99, 15)},
   };
   if (major * 100 + minor >= 505) logs[0].startupLocality = 3;
   TempDir dir;
   for (auto const &plan : logs) {
      String const bytes = writeEventLog(plan);
      auto const run = Loom::runCommandForOutput("tpm2_eventlog " + dir.file("log", bytes));
      ASSERT_EQ(run.exitCode, 0);
      // Its last section, as it prints it: banks in the order of their ids.
      String want = "pcrs:\n";
      for (auto const &[alg, bank] : replayEventLog(parsed(bytes)).banks) {
         want += "  " + String(tpmAlgorithm(alg)->name) + ":\n";
         for (std::uint32_t pcr = 0; pcr < kPcrCount; ++pcr) {
            if (!bank.extended.test(pcr)) continue;
            String const &value = bank.values[pcr];
            char line[16];
            std::snprintf(line, sizeof line, "    %-2u : 0x", pcr);
            want += line + hex(value) + "\n";
         }
      }
      EXPECT_EQ(run.output.substr(run.output.find("\npcrs:\n") + 1), want);  // all of it when there is none
      // The event data helpers write what the tool decodes.
      EXPECT_NE(run.output.find("VariableName: 8be4df61-93ca-11d2-aa0d-00e098032b8c"), String::npos);
   }
}
