#include <functional>
#include <gtest/gtest.h>

#include "EventLogWriter.h"
#include "TestSupport.h"
#include "host/evidence/Baseline.h"

using namespace SentrelEvidence;
using SentrelTest::imageLoadData;
using SentrelTest::uefiVariableData;
using SentrelTest::utf16;

namespace {

constexpr std::uint32_t EV_PLATFORM_CONFIG_FLAGS = 0x0000000A;

Digest sha1(char fill) { return {kAlgSha1, String(20, fill)}; }
Digest sha256(char fill) { return {kAlgSha256, String(32, fill)}; }

// A reference switch's log: events of PCRs 0, 1, 4, 7 and 9, in the order
// firmware interleaves them. Event 2 holds what differs between machines.
EventLog referenceLog() {
   EventLog log{EventLogFormat::CryptoAgile, {kAlgSha1, kAlgSha256}, {}, std::nullopt};
   auto const add = [&](std::uint32_t pcr, std::uint32_t type, String data, char fill) {
      log.events.push_back({log.events.size(), 0, pcr, type, {sha1(fill), sha256(fill)}, std::move(data)});
   };
   add(0, EV_NO_ACTION, "a header", '\0');
   add(0, EV_S_CRTM_VERSION, utf16("1.0") + String(2, '\0'), 'a');
   add(1, EV_PLATFORM_CONFIG_FLAGS, "mac 00:1c:73:00:00:01", 'm');
   add(7, EV_EFI_VARIABLE_DRIVER_CONFIG, uefiVariableData("SecureBoot", "\x01"), 'b');
   add(4, EV_EFI_ACTION, "Calling EFI Application from Boot Option", 'c');
   for (std::uint32_t pcr : {0, 1, 4, 7}) add(pcr, EV_SEPARATOR, String(4, '\0'), 's');
   add(4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\BOOT\\BOOTX64.EFI"), 'd');
   add(4, EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\debian\\grubx64.efi"), 'e');
   add(9, 0x000000FF, "no name", 'f');
   return log;
}

Baseline parsed(String const &json) {
   auto result = parseBaseline(json);
   if (auto const *p = std::get_if<EventLogProblem>(&result)) {
      ADD_FAILURE() << "offset " << p->offset << ": " << p->what << "\n" << json;
      return {};
   }
   return std::get<Baseline>(std::move(result));
}

String described(std::size_t number, std::uint32_t pcr, std::uint32_t type, std::vector<Digest> const &digests,
                 String const &data, bool machineUnique) {
   String text = std::to_string(number) + " pcr " + std::to_string(pcr) + " type " + std::to_string(type);
   for (Digest const &d : digests) text += " alg " + std::to_string(d.algorithm) + " " + d.bytes;
   return text + " data " + data + (machineUnique ? " unique" : "");
}
String described(BaselineRecord const &r) {
   return described(r.recnum, r.pcr, r.type, r.digests, r.data, r.machineUnique);
}

}  // namespace

TEST(Baseline, IsTheLogAsACanonicalEventLogOneRecordPerLineThatReadsBackAsTheLog) {
   EventLog const log = referenceLog();
   String const json = canonicalEventLogJson(log);
   EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 2 + static_cast<long>(log.events.size()));
   EXPECT_TRUE(json.starts_with("[\n{\"recnum\": 0, \"pcr\": 0, \"digests\": [{\"hashAlg\": \"sha1\", ")) << json;
   EXPECT_EQ(json.find("machine_unique"), String::npos);

   auto const doc = SentrelTest::parseJson(json);
   ASSERT_TRUE(doc.IsArray() && doc.Size() == log.events.size());
   auto const &app = doc[9];
   EXPECT_EQ(app["recnum"].GetUint(), 9u);
   EXPECT_EQ(app["pcr"].GetUint(), 4u);
   EXPECT_STREQ(app["digests"][1]["hashAlg"].GetString(), "sha256");
   String sixtyFours;
   for (int i = 0; i < 32; ++i) sixtyFours += "64";  // 'd'
   EXPECT_EQ(app["digests"][1]["digest"].GetString(), sixtyFours);
   EXPECT_STREQ(app["content_type"].GetString(), "pcclient_std");
   EXPECT_STREQ(app["content"]["event_type"].GetString(), "EV_EFI_BOOT_SERVICES_APPLICATION");
   EXPECT_EQ(String(doc[5]["content"]["event_data"].GetString()), "00000000");
   EXPECT_EQ(doc[11]["content"]["event_type"].GetUint(), 0xFFu);  // a type without a name, by its number

   Baseline const records = parsed(json);
   ASSERT_EQ(records.size(), log.events.size());
   for (std::size_t i = 0; i < records.size(); ++i) {
      Event const &e = log.events[i];
      EXPECT_EQ(described(records[i]), described(e.number, e.pcr, e.type, e.digests, e.data, false));
   }
   EXPECT_EQ(canonicalEventLogJson(EventLog{}), "[\n]\n");
}

TEST(Baseline, ReadsTheFormsOtherWritersUse) {
   String const sha256Hex(64, 'A');
   struct Case {
      char const *what;
      String json;
      std::vector<String> records;
   };
   for (auto const &c : std::vector<Case>{
           {"numbers for the algorithm, the content type and the event type",
            R"([{"recnum": 3, "pcr": 2, "digests": [{"hashAlg": 11, "digest": ")" + sha256Hex +
               R"("}], "content_type": 5, "content": {"event_type": 4, "event_data": "0a0B"}}])",
            {described(3, 2, EV_SEPARATOR, {sha256('\xaa')}, "\x0a\x0b", false)}},
           {"names in other cases, an unknown algorithm and members of our own or of others",
            R"([{"machine_unique": true, "extra": {"a": [1, {"b": null}]}, "recnum": 1, "pcr": 1,
                "digests": [{"hashAlg": "sha3_256", "digest": "00"}, {"hashAlg": 65547, "digest": ""},
                            {"hashAlg": "SHA256", "digest": ")" +
               sha256Hex + R"(", "note": []}], "content_type": "PCClient_Std",
                "content": {"event_data": "", "event_type": "ev_separator", "more": {}}}])",
            {described(1, 1, EV_SEPARATOR, {sha256('\xaa')}, "", true)}},
           {"a record of another content type",
            R"([{"recnum": 0, "content_type": "cel", "content": [{"type": "cel_version"}]}])",
            {}},
        }) {
      std::vector<String> records;
      for (BaselineRecord const &r : parsed(c.json)) records.push_back(described(r));
      EXPECT_EQ(records, c.records) << c.what;
   }
}

TEST(Baseline, AMalformedBaselineIsAProblemAtItsOffset) {
   String const record = R"({"recnum": 4, "pcr": 7, "digests": [{"hashAlg": "sha256", "digest": ")" +
                         String(64, 'a') +
                         R"("}], "content_type": "pcclient_std",)"
                         R"( "content": {"event_type": "EV_SEPARATOR", "event_data": "00000000"}})";
   auto const with = [&](String const &from, String const &to) {
      String r = record;
      r.replace(r.find(from), from.size(), to);
      return "[" + r + "]";
   };
   String const noDigests =
      R"({"recnum": 5, "pcr": 7, "content_type": "pcclient_std", "content": {"event_type": 4, "event_data": ""}})";
   String const deep = "[" + record + R"(, {"x": )" + String(300, '[');
   String const skipped = R"({"content_type": "cel"},)";
   String tooMany = "[";
   for (std::size_t i = 0; i <= kMaxEvents; ++i) tooMany += skipped;
   struct Case {
      String json;
      String at;  // where the problem is: the first occurrence of this, or the end when it is empty
      String problem;
   };
   for (auto const &c : std::vector<Case>{
           {"", "", "The document is empty."},
           {String("[\0]", 3), String(1, '\0'), "a NUL byte is not JSON"},
           {"[" + record, "", "Missing a comma or ']' after an array element."},
           {R"({"records": []})", "{", "a baseline is an array of records"},
           {"[1, " + record + "]", "1", "record 0 is not an object"},
           {with(R"("pcr": 7)", R"("pcr": "7")"), R"("7")", R"(record 0: "pcr" is not a PCR index)"},
           {with(R"("pcr": 7)", R"("pcr": 4294967296)"), "4294967296", R"(record 0: "pcr" is not a PCR index)"},
           {with(R"("pcr": 7)", R"("pcr": -1)"), "-1", R"(record 0: "pcr" is not a PCR index)"},
           {with(R"("recnum": 4)", R"("recnum": 1.5)"), "1.5", R"(record 0: "recnum" is not a number)"},
           {with(R"("pcr": 7, )", ""), "{", R"(record 0: no "pcr")"},
           {with(R"("content_type": "pcclient_std",)", ""), "{", R"(record 0: no "content_type")"},
           {"[" + record + ",\n" + noDigests + "]", R"({"recnum": 5)", R"(record 1: no "digests")"},
           {with(String(64, 'a'), String(62, 'a')), R"("aa)", "record 0: the sha256 digest is not 64 hex digits"},
           {with(String(64, 'a'), String(63, 'a') + "g"), R"("aa)",
            "record 0: the sha256 digest is not 64 hex digits"},
           {with(R"("hashAlg": "sha256", )", ""), R"({"digest")", R"(record 0: a digest has no "hashAlg")"},
           {with(R"(, "digest": ")" + String(64, 'a') + "\"", ""), R"({"hashAlg")",
            R"(record 0: a digest has no "digest")"},
           {with(R"(}], "content_type")", R"(}, {"hashAlg": "sha256", "digest": ")" + String(64, 'b') +
                                              R"("}], "content_type")"),
            R"({"hashAlg": "sha256", "digest": "bb)", "record 0: a second sha256 digest"},
           {with("[{", "[7, {"), "7, {", "record 0: a digest is not an object"},
           {with(R"("EV_SEPARATOR")", R"("EV_NOPE")"), R"("EV_NOPE")",
            R"(record 0: "event_type" is not an event type)"},
           {with(R"("00000000")", R"("0000000")"), R"("0000000")", R"(record 0: "event_data" is not hex)"},
           {with(R"("pcr": 7,)", R"("pcr": 7, "machine_unique": "yes",)"), R"("yes")",
            R"(record 0: "machine_unique" is not true or false)"},
           {with(R"({"event_type": "EV_SEPARATOR", "event_data": "00000000"})", "[]"), "[]",
            R"(record 0: "content" is not an object)"},
           {with(R"(, "event_data": "00000000")", ""), R"({"event_type")", R"(record 0: no "event_data")"},
        }) {
      auto const result = parseBaseline(c.json);
      auto const *p = std::get_if<EventLogProblem>(&result);
      ASSERT_NE(p, nullptr) << c.json;
      EXPECT_EQ(p->what, c.problem) << c.json;
      EXPECT_EQ(p->offset, c.at.empty() ? c.json.size() : c.json.find(c.at)) << c.json;
   }
   // The level past the deepest allowed is the 255th bracket below the record's member.
   for (auto const &[json, offset, problem] : std::vector<std::tuple<String, std::size_t, String>>{
           {deep, deep.size() - 300 + 254, "nested deeper than 256 levels"},
           {tooMany, 1 + kMaxEvents * skipped.size(), "more than 100000 records"},
        }) {
      auto const result = parseBaseline(json);
      auto const *p = std::get_if<EventLogProblem>(&result);
      ASSERT_NE(p, nullptr) << problem;
      EXPECT_EQ(p->what, problem);
      EXPECT_EQ(p->offset, offset) << problem;
   }
}

TEST(Baseline, ComparisonNamesTheFirstDifferingEventOfEachPcrThatDiffers) {
   auto const changed = [](Event &e, std::size_t digest = 1) { e.digests[digest].bytes[0] ^= 1; };
   auto const app = [](std::size_t number, std::string_view path) {
      return Event{number, 0, 4, EV_EFI_BOOT_SERVICES_APPLICATION, {sha1('x'), sha256('x')}, imageLoadData(path)};
   };
   struct Case {
      char const *what;
      std::function<void(EventLog &)> log;
      std::function<void(Baseline &)> baseline;
      std::vector<String> differences;
   };
   auto const none = [](auto &) {};
   for (auto const &c : std::vector<Case>{
           {"the same log", none, none, {}},
           {"a changed boot application", [&](EventLog &l) { changed(l.events[9]); }, none,
            {"4: event 9 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\BOOTX64.EFI"}},
           {"changes in three PCRs, the first of each",
            [&](EventLog &l) {
               for (std::size_t i : {10, 9, 3, 1}) changed(l.events[i], i % 2);
            },
            none,
            {"0: event 1 EV_S_CRTM_VERSION 1.0", "4: event 9 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\BOOTX64.EFI",
             "7: event 3 EV_EFI_VARIABLE_DRIVER_CONFIG SecureBoot"}},
           {"a machine-unique event", [&](EventLog &l) { changed(l.events[2]); },
            [](Baseline &b) { b[2].machineUnique = true; }, {}},
           {"the same event unmarked", [&](EventLog &l) { changed(l.events[2]); }, none,
            {"1: event 2 EV_PLATFORM_CONFIG_FLAGS"}},
           {"an event of another type", [](EventLog &l) { l.events[7].type = EV_EFI_ACTION; }, none,
            {"4: event 7 EV_EFI_ACTION"}},
           {"an event beyond the baseline", [&](EventLog &l) { l.events.push_back(app(12, "\\EFI\\x.efi")); }, none,
            {"4: event 12 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\x.efi (not in the baseline)"}},
           {"an event missing from the log", [](EventLog &l) { l.events.erase(l.events.begin() + 10); }, none,
            {"4: event 10 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\debian\\grubx64.efi (missing from this log)"}},
           {"no algorithm in common", [](EventLog &l) { l.events[5].digests = {sha256('s')}; },
            [](Baseline &b) { b[5].digests = {sha1('s')}; },
            {"0: event 5 EV_SEPARATOR (no digest algorithm in common)"}},
           {"a digest that one side does not carry", [&](EventLog &l) { changed(l.events[4], 0); },
            [](Baseline &b) { b[4].digests.erase(b[4].digests.begin()); }, {}},
           {"events that extend nothing",
            [&](EventLog &l) {
               l.events[0].data = "another header";
               changed(l.events[0]);
            },
            none, {}},
           {"a PCR on one side only",
            [](EventLog &l) { l.events.back() = {12, 0, 14, EV_IPL, {sha256('i')}, "grub_cmd: boot"}; }, none,
            {"9: event 11 0x000000ff (missing from this log)",
             "14: event 12 EV_IPL grub_cmd: boot (not in the baseline)"}},
        }) {
      EventLog log = referenceLog();
      Baseline baseline = parsed(canonicalEventLogJson(log));
      c.log(log);
      c.baseline(baseline);
      std::vector<String> texts;
      for (BaselineDifference const &d : compareWithBaseline(log, baseline)) {
         texts.push_back(d.text);
         EXPECT_TRUE(d.text.starts_with(std::to_string(d.pcr) + ": event " + std::to_string(d.event) + " ")) << d.text;
      }
      EXPECT_EQ(texts, c.differences) << c.what;
   }
}
