#include <functional>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "evidence/Baseline.h"
#include "evidence/Cel.h"
#include "evidence/EventNames.h"

using namespace SentrelEvidence;
using namespace SentrelTest;

namespace {

Digest sha1(char fill) { return {kAlgSha1, String(20, fill)}; }
Digest sha256(char fill) { return {kAlgSha256, String(32, fill)}; }

// A reference switch's log: events of PCRs 0, 1, 4, 7 and 9, in the order
// firmware interleaves them. Event 2 holds what differs between machines.
EventLog referenceLog() {
   EventLog log;
   for (auto const &[pcr, type, data] : std::vector<std::tuple<std::uint32_t, std::uint32_t, String>>{
           {0, EV_NO_ACTION, "a header"}, {0, EV_S_CRTM_VERSION, "1.0"}, {1, 0x0A, "mac 00:1c:73:00:00:01"},
           {7, EV_EFI_ACTION, "SecureBoot"}, {4, EV_EFI_ACTION, "Calling EFI Application"}, {0, EV_SEPARATOR, ""},
           {1, EV_SEPARATOR, ""}, {4, EV_SEPARATOR, ""}, {7, EV_SEPARATOR, ""},
           {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\BOOT\\BOOTX64.EFI")},
           {4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\debian\\grubx64.efi")}, {9, 0xFF, "no name"}}) {
      char const fill = static_cast<char>('a' + log.events.size());
      log.events.push_back({log.events.size(), 0, pcr, type, {sha1(fill), sha256(fill)}, data});
   }
   return log;
}

// The records read, a line each, or the problem as "<offset>: <what>".
String read(String const &json) {
   auto const result = parseCanonicalEventLog(json);
   if (auto const *p = std::get_if<EventLogProblem>(&result)) return std::to_string(p->offset) + ": " + p->what;
   String out;
   for (Event const &r : std::get<EventLog>(result).events) {
      out += std::to_string(r.number) + " pcr " + std::to_string(r.pcr) + " type " + std::to_string(r.type);
      for (Digest const &d : r.digests) out += " " + std::to_string(d.algorithm) + ":" + hex(d.bytes);
      out += " data " + hex(r.data) + (r.machineUnique ? " unique\n" : "\n");
   }
   return out;
}

}  // namespace

TEST(Baseline, IsACanonicalEventLogOneRecordPerLineReadInTheFormsOtherWritersUse) {
   EventLog log;
   log.events = {{0, 0, 4, EV_SEPARATOR, {sha1('\xab'), sha256('\x01')}, String(4, '\0')}, {1, 0, 9, 0xFF, {}, "\xfe"}};
   String const content = R"("content_type": "pcclient_std", "content": {"event_type": )";
   EXPECT_EQ(canonicalEventLogJson(log),
             "[\n" R"({"recnum": 0, "pcr": 4, "digests": [{"hashAlg": "sha1", "digest": ")" + hex(String(20, '\xab')) +
                R"("}, {"hashAlg": "sha256", "digest": ")" + hex(String(32, '\x01')) + R"("}], )" + content +
                R"("EV_SEPARATOR", "event_data": "00000000"}},)" "\n" R"({"recnum": 1, "pcr": 9, "digests": [], )" +
                content + R"(255, "event_data": "fe"}})" "\n]\n");
   // Numbers for the algorithm, content type and event type; names in other cases; an unknown algorithm,
   // members of our own or of others, and a record of another content type passed over.
   String const a(64, 'A'), aa = " 11:" + String(64, 'a');
   EXPECT_EQ(read(R"([{"recnum": 3, "pcr": 2, "digests": [{"hashAlg": 11, "digest": ")" + a + R"("}],
      "content_type": 5, "content": {"event_type": 4, "event_data": "0a0B"}},
      {"machine_unique": true, "extra": {"a": [1, {"b": null}]}, "recnum": 1, "pcr": 1,
       "digests": [{"hashAlg": "sha3_256", "digest": "00"}, {"hashAlg": 65547, "digest": ""},
                   {"hashAlg": "SHA256", "digest": ")" + a + R"(", "note": []}], "content_type": "PCClient_Std",
       "content": {"event_data": "", "event_type": "ev_separator", "more": {}}},
      {"recnum": 0, "content_type": "cel", "content": [{"type": "cel_version"}]}])"),
             "3 pcr 2 type 4" + aa + " data 0a0b\n1 pcr 1 type 4" + aa + " data  unique\n");
}

TEST(Baseline, AMalformedBaselineIsAProblemAtItsOffset) {
   String const record = R"({"recnum": 4, "pcr": 7, "digests": [{"hashAlg": "sha256", "digest": ")" +
                         String(64, 'a') + R"("}], "content_type": "pcclient_std",)" +
                         R"( "content": {"event_type": "EV_SEPARATOR", "event_data": "00000000"}})";
   auto const with = [&](String const &from, String const &to) {
      return "[" + String(record).replace(record.find(from), from.size(), to) + "]";
   };
   // Each with where the problem is: the first occurrence of a text, or the end for none.
   for (auto const &[json, at, problem] : std::vector<std::tuple<String, String, String>>{
           {"[" + record, "", "Missing a comma or ']' after an array element."},
           {R"({"records": []})", "{", "a canonical event log is an array of records"},
           {"[1, " + record + "]", "1", "record 0 is not an object"},
           {with(R"("pcr": 7)", R"("pcr": "7")"), R"("7")", R"(record 0: "pcr" is not a PCR index)"},
           {with(R"("pcr": 7)", R"("pcr": 4294967296)"), "4294967296", R"(record 0: "pcr" is not a PCR index)"},
           {with(R"("recnum": 4)", R"("recnum": 1.5)"), "1.5", R"(record 0: "recnum" is not a number)"},
           {with(R"("pcr": 7, )", ""), "{", R"(record 0: no "pcr")"},
           {with(R"("content_type": "pcclient_std",)", ""), "{", R"(record 0: no "content_type")"},
           {"[" + record + R"(, {"recnum": 5, "pcr": 7, "content_type": "pcclient_std", "content": {}}])",
            R"({"recnum": 5)", R"(record 1: no "digests")"},
           {with(String(64, 'a'), String(62, 'a')), R"("aa)", "record 0: the sha256 digest is not 64 hex digits"},
           {with(String(64, 'a'), String(63, 'a') + "g"), R"("aa)", "record 0: the sha256 digest is not 64 hex digits"},
           {with(R"("hashAlg": "sha256", )", ""), R"({"digest")", R"(record 0: a digest has no "hashAlg")"},
           {with(R"(, "digest")", R"(, "digestx")"), R"({"hashAlg")", R"(record 0: a digest has no "digest")"},
           {with("}]", R"(}, {"hashAlg": "SHA256", "digest": ")" + String(64, 'b') + "\"}]"), R"({"hashAlg": "SHA)",
            "record 0: a second sha256 digest"},
           {with("[{", "[7, {"), "7, {", "record 0: a digest is not an object"},
           {with(R"("pcr": 7,)", R"("pcr": 7, "machine_unique": "yes",)"), R"("yes")",
            R"(record 0: "machine_unique" is not true or false)"},
           {with(R"(, "event_data")", R"(, "data")"), R"({"event_type")", R"(record 0: no "event_data")"},
           {with(R"("pcr": 7)", R"("pcr": 24)"), "{",
            "event 4 at byte 1: its PCR index 24 is past 23, the last PCR of a PC Client TPM"},
        }) {
      EXPECT_EQ(read(json), std::to_string(at.empty() ? json.size() : json.find(at)) + ": " + problem);
   }
   // The level past the deepest allowed is the 255th bracket below the record's member.
   String const deep = "[" + record + R"(, {"x": )" + String(300, '[');
   EXPECT_EQ(read(deep), std::to_string(deep.size() - 300 + 254) + ": nested deeper than 256 levels");
   String tooMany = "[";
   for (std::size_t i = 0; i <= kMaxEvents; ++i) tooMany += R"({"content_type": "cel"},)";
   EXPECT_EQ(read(tooMany), std::to_string(tooMany.rfind('{')) + ": more than 100000 records");
}

TEST(Baseline, ComparisonNamesTheFirstDifferingEventOfEachPcrThatDiffers) {
   // Changes the events' digests, sha1 of even ones and sha256 of odd ones.
   auto const changed = [](EventLog &l, std::initializer_list<std::size_t> events) {
      for (std::size_t i : events) l.events[i].digests[i % 2].bytes[0] ^= 1;
   };
   using Change = std::function<void(EventLog &, EventLog &)>;
   for (auto const &[what, change, differences] : std::vector<std::tuple<char const *, Change, String>>{
           {"the first change of each PCR", [&](EventLog &l, EventLog &) { changed(l, {10, 9, 3, 1}); },
            "0: event 1 EV_S_CRTM_VERSION 1.0\n4: event 9 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\BOOTX64.EFI\n"
            "7: event 3 EV_EFI_ACTION SecureBoot\n"},
           {"a machine-unique event", [&](EventLog &l, EventLog &b) { changed(l, {2, 6}); b.events[2].machineUnique = true; },
            "1: event 6 EV_SEPARATOR\n"},
           {"a new type", [](EventLog &l, auto &) { l.events[7].type = EV_EFI_ACTION; }, "4: event 7 EV_EFI_ACTION\n"},
           {"no algorithm in common",
            [](EventLog &l, EventLog &b) { l.events[5].digests.pop_back(); b.events[5].digests.erase(b.events[5].digests.begin()); },
            "0: event 5 EV_SEPARATOR (no digest algorithm in common)\n"},
           {"a digest one side lacks", [&](EventLog &l, EventLog &b) { changed(l, {5}); b.events[5].digests.pop_back(); }, ""},
           {"an event that extends nothing", [&](EventLog &l, EventLog &) { changed(l, {0}); }, ""},
           {"a PCR on one side only",
            [](EventLog &l, EventLog &) { l.events.back() = {12, 0, 14, EV_IPL, {sha256('i')}, "grub_cmd: boot"}; },
            "9: event 11 0x000000ff (missing from this log)\n"
            "14: event 12 EV_IPL grub_cmd: boot (not in the baseline)\n"},
        }) {
      EventLog log = referenceLog();
      auto baseline = std::get<EventLog>(parseCanonicalEventLog(canonicalEventLogJson(log)));
      change(log, baseline);
      String texts;
      for (BaselineDifference const &d : compareWithBaseline(log, baseline)) texts += d.text + "\n";
      EXPECT_EQ(texts, differences) << what;
   }
}

// systemd's export: records numbered from 1, event types it has no name for
// as decimal text, its own records of another content type. It is read as
// the log it came from, and compares clean with that log.
TEST(Baseline, AnExportOfAnotherToolIsReadAsTheLogItCameFrom) {
   LogPlan plan = firmwareBoot();
   plan.events.push_back({5, 0x8000000D, "a GPT", {}});
   auto const binary = std::get<EventLog>(parseEventLog(writeEventLog(plan)));
   // As systemd writes it: without the header, numbered from 1, a type it has
   // no name for as decimal text, an algorithm by number, records of its own.
   String json = canonicalEventLogJson(binary);
   auto const replace = [&](std::string_view from, std::string_view to) {
      for (std::size_t at; (at = json.find(from)) != String::npos;) json.replace(at, from.size(), to);
   };
   json.erase(1, json.find('\n', 2));
   replace("\"EV_EFI_GPT_EVENT2\"", "\"2147483661\"");
   replace("\"sha256\"", "\"0x000B\"");
   json.insert(1, R"({"pcr": 11, "recnum": 1, "digests": [], "content_type": "systemd", "content": {"string": "x"}},)");
   auto const result = parseCanonicalEventLog(json);
   ASSERT_TRUE(std::holds_alternative<EventLog>(result)) << std::get<EventLogProblem>(result).what;
   EventLog const &exported = std::get<EventLog>(result);
   EXPECT_EQ(exported.format, EventLogFormat::CryptoAgile);
   EXPECT_EQ(exported.algorithms, (std::vector<std::uint16_t>{kAlgSha1, kAlgSha256}));
   EXPECT_EQ(exported.startupLocality, 3);
   ASSERT_EQ(exported.events.size(), binary.events.size() - 1);
   EXPECT_EQ(exported.events.back().type, 0x8000000Du);
   EXPECT_TRUE(compareWithBaseline(binary, exported).empty());
   // A type that is no number nor name is a problem; the log's own export says its algorithms by its header.
   String const unnamed = R"([{"recnum": 1, "pcr": 2, "digests": [], "content_type": "pcclient_std",
                              "content": {"event_type": "0x1z", "event_data": ""}}])";
   EXPECT_EQ(read(unnamed), std::to_string(unnamed.find("\"0x1z")) + R"(: record 0: "event_type" is not an event type)");
   EXPECT_EQ(std::get<EventLog>(parseCanonicalEventLog(canonicalEventLogJson(binary))).algorithms, binary.algorithms);
}
