#include <algorithm>
#include <chrono>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <unistd.h>

#include "Sentrel/platform/Json.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

std::int64_t secondsNow() {
   return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The host run on a small switch (a fake lscpu, a system root, bootloader
// files beside the state file) printing the metrics.
class Metrics : public testing::Test {
 protected:
   Metrics() {
      sw.script("bin/lscpu", "echo 'Vendor ID:           TestVendor'\n");
      sw.file("root/proc/cmdline", "ro Tarn=7.1 quiet\n");
      sw.file("tarn-version", "2\n");
      sw.file("vexo.json", R"({"measuredBootVersion": "1.1"})");
      sw.file("features", "secureboot:26\nbootguard:10\n");
   }

   HostRun run(String const &entities, Strings args = {}) {
      args.insert(args.begin(), {"--sysroot", sw.path() + "/root", "--toggles", toggles.path(), "--state",
                                 sw.file("state.json", R"({"entities": {)" + entities + "}}")});
      if (std::find(args.begin(), args.end(), "--format") == args.end()) {
         args.insert(args.end(), {"--format", "openmetrics"});
      }
      return runHost(args, {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH")});
   }

   // The sample lines of a clean run, series to value.
   std::map<String, String> samples(String const &entities, Strings args = {}) {
      auto r = run(entities, std::move(args));
      EXPECT_EQ(r.exitCode, 0) << r.err;
      std::map<String, String> out;
      std::size_t pos = 0;
      for (std::size_t nl; (nl = r.out.find('\n', pos)) != String::npos; pos = nl + 1) {
         String const line = r.out.substr(pos, nl - pos);
         if (line.empty() || line[0] == '#') continue;
         auto const space = line.rfind(' ');
         EXPECT_TRUE(out.emplace(line.substr(0, space), line.substr(space + 1)).second) << "twice: " << line;
      }
      return out;
   }

   TempDir sw, toggles;
};

String const kInputs = R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "tarn-version",
                                                    "vexoVersionFilePath": "vexo.json"},
   "tarn/features/status": {"featuresFilePath": "features"},
   "tarn/sb/status": {"supported": true, "ready": true, "statusFlags": 1, "enabledPcrBank": ["sha256"]},
   "hardware/sentrel/config/sentrel": {"secureBootEnabled": true, "measuredBootEnabled": false,
                                       "configReady": true})";

}  // namespace

TEST_F(Metrics, EveryKindOfAttributeLandsInItsFamily) {
   auto const s = samples(kInputs);
   std::map<String, String> const expected = {
      {R"(sentrel_fact{entity="tarn/features/status",attribute="sbOutdated"})", "1"},
      {R"(sentrel_fact{entity="tarn/sb/status",attribute="supported"})", "1"},
      {R"(sentrel_fact{entity="hardware/sentrel/config/sentrel",attribute="measuredBootEnabled"})", "0"},
      {R"(sentrel_fact{entity="tarn/sb/status",attribute="statusFlags"})", "1"},
      {R"(sentrel_fact_info{entity="sentrel/firstInstructionSecurity",attribute="cpuVendor",value="TestVendor"})", "1"},
      {R"(sentrel_fact_info{entity="sentrel/measuredBootVersion",attribute="vexo",value="1.1"})", "1"},
      // The variant's text alternative, empty off a UEFI boot.
      {R"(sentrel_fact_info{entity="sentrel/firstInstructionSecurity",attribute="vendorSpecific",value=""})", "1"},
      {R"(sentrel_set_member{entity="tarn/sb/status",attribute="enabledPcrBank",member="sha256"})", "1"},
      {R"(sentrel_map_entry{entity="tarn/features/status",attribute="featureRev",key="secureboot"})", "26"},
      {R"(sentrel_map_entry{entity="tarn/features/status",attribute="featureRev",key="bootguard"})", "10"},
      {R"(sentrel_entity_present{entity="sentrel/integrity/key/keyringColl"})", "1"},
   };
   for (auto const &[series, value] : expected) {
      auto const it = s.find(series);
      ASSERT_NE(it, s.end()) << series;
      EXPECT_EQ(it->second, value) << series;
   }
}

TEST_F(Metrics, LabelValuesAreEscapedAndAlwaysUtf8) {
   struct Case {
      char const *what;
      String entities;
      String tarnVersion;  // file content
      String series;
   };
   Case const cases[] = {
      {"backslash, quote and line feed set by --state",
       R"("tarn/features/status": {"featuresFilePath": "/x\\y\"z\nw"})", "2\n",
       R"(sentrel_fact_info{entity="tarn/features/status",attribute="featuresFilePath",value="/x\\y\"z\nw"})"},
      // A byte outside UTF-8 becomes the code point of the same value, as in
      // the JSON report; other control characters pass as they are.
      {"bytes read from a file", kInputs, "a\xff\x01\"\\\xc3\xa9\n",
       "sentrel_fact_info{entity=\"sentrel/measuredBootVersion\",attribute=\"tarn\",value=\"a\xc3\xbf\x01\\\"\\\\"
       "\xc3\xa9\"}"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.what);
      sw.file("tarn-version", c.tarnVersion);
      auto const s = samples(c.entities);
      ASSERT_EQ(s.count(c.series), 1u);
      EXPECT_EQ(s.at(c.series), "1");
   }
}

TEST_F(Metrics, UnknownFactsAreTheReportsDiagnosticsAndAbsentEntitiesHaveNoFacts) {
   String const entities = R"("sentrel/measuredBootVersion": {"tarnVersionFilePath": "missing"},
                              "hardware/sentrel/config/sentrel": null)";
   auto json = run(entities, {"--format", "json"});
   ASSERT_EQ(json.exitCode, 0) << json.err;
   rapidjson::Document d;
   d.Parse(json.out.c_str());
   ASSERT_FALSE(d.HasParseError()) << json.out;
   std::set<String> diagnosed;
   for (auto const &x : d["diagnostics"].GetArray()) {
      diagnosed.insert(String(R"(sentrel_unknown_fact{entity=")") + x["entity"].GetString() + R"(",attribute=")" +
                       x["attribute"].GetString() + R"("})");
   }
   EXPECT_EQ(diagnosed.count(R"(sentrel_unknown_fact{entity="sentrel/measuredBootVersion",attribute="tarn"})"), 1u);

   std::set<String> unknown;
   for (auto const &[series, value] : samples(entities)) {
      if (series.starts_with("sentrel_unknown_fact{")) {
         unknown.insert(series);
         EXPECT_EQ(value, "1");
      }
      EXPECT_EQ(series.find(R"(sentrel_fact{entity="hardware/sentrel/config/sentrel")"), String::npos) << series;
      if (series == R"(sentrel_entity_present{entity="hardware/sentrel/config/sentrel"})") {
         EXPECT_EQ(value, "0");
      }
   }
   EXPECT_EQ(unknown, diagnosed);
}

TEST_F(Metrics, WarningsAreCountedByName) {
   // Secure boot support withdrawn and restored: the outdated bootloader is warned about twice.
   String const script = sw.file("script", "set tarn/sb/status supported false\nset tarn/sb/status supported true\n");
   auto const s = samples(kInputs, {"--script", script});
   std::map<String, String> warnings;
   for (auto const &[series, value] : s) {
      if (series.starts_with("sentrel_warnings{")) warnings[series] = value;
   }
   EXPECT_EQ(warnings, (std::map<String, String>{{R"(sentrel_warnings{name="SENTREL_WARNING"})", "1"},
                                                 {R"(sentrel_warnings{name="TARN_DEPRECATION_WARNING"})", "2"}}));
}

TEST_F(Metrics, BothFormatsSayWhenWhereAndByWhichVersionTheRunWasMade) {
   auto const before = secondsNow();
   auto json = run(kInputs, {"--format", "json"});
   auto const s = samples(kInputs);
   auto const after = secondsNow();
   ASSERT_EQ(json.exitCode, 0) << json.err;
   rapidjson::Document d;
   d.Parse(json.out.c_str());
   ASSERT_FALSE(d.HasParseError()) << json.out;
   ASSERT_STREQ(d.MemberBegin()->name.GetString(), "run");  // first, to be seen at a glance
   auto const &r = d["run"];
   String const version = r["version"].GetString();
   EXPECT_FALSE(version.empty());
   EXPECT_EQ(s.count(R"(sentrel_build_info{version=")" + version + R"("})"), 1u);
   char host[256] = {};
   gethostname(host, sizeof host - 1);
   EXPECT_STREQ(r["host"].GetString(), host);
   std::tm tm{};
   String const time = r["time"].GetString();
   ASSERT_NE(strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm), nullptr) << time;
   EXPECT_EQ(time.size(), 20u) << time;
   auto const jsonTime = static_cast<std::int64_t>(timegm(&tm));
   EXPECT_GE(jsonTime, before);
   EXPECT_LE(jsonTime, after);
   auto const metricsTime = std::stoll(s.at("sentrel_last_run_timestamp_seconds"));
   EXPECT_GE(metricsTime, jsonTime);
   EXPECT_LE(metricsTime, after);
}
