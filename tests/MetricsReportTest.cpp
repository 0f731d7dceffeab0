#include <chrono>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <unistd.h>

#include "Sentrel/platform/Json.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

// The host run on a small switch with bootloader files beside the state file.
class Metrics : public testing::Test {
 protected:
   Metrics() { host.bootloaderFiles(); }

   HostRun run(String const &entities, String const &format, Strings args = {}) {
      args.insert(args.end(), {"--state", host.state(entities), "--format", format});
      return host.run(args);
   }

   // The sample lines of a clean run, series to value.
   std::map<String, String> samples(String const &entities, Strings args = {}) {
      auto r = run(entities, "openmetrics", std::move(args));
      EXPECT_EQ(r.exitCode, 0) << r.err;
      std::map<String, String> out;
      std::istringstream lines(r.out);
      for (String line; std::getline(lines, line);) {
         if (line.empty() || line[0] == '#') continue;
         auto const space = line.rfind(' ');
         EXPECT_TRUE(out.emplace(line.substr(0, space), line.substr(space + 1)).second) << "twice: " << line;
      }
      return out;
   }

   FakeSwitch host;
};

}  // namespace

TEST_F(Metrics, EveryKindOfAttributeLandsInItsFamilyWithLabelsEscaped) {
   // A byte outside UTF-8 becomes the code point of the same value, as in
   // the JSON report; other control characters pass as they are.
   host.sw.file("tarn-version", "a\xff\x01\"\\\xc3\xa9\n");
   auto const s = samples(kInputs);
   std::map<String, String> const expected = {
      {R"(sentrel_fact{entity="tarn/features/status",attribute="sbOutdated"})", "1"},
      {R"(sentrel_fact{entity="tarn/sb/status",attribute="statusFlags"})", "1"},
      {"sentrel_fact_info{entity=\"sentrel/measuredBootVersion\",attribute=\"tarn\",value=\"a\xc3\xbf\x01\\\"\\\\"
       "\xc3\xa9\"}", "1"},
      // The variant's text alternative, empty off a UEFI boot.
      {R"(sentrel_fact_info{entity="sentrel/firstInstructionSecurity",attribute="vendorSpecific",value=""})", "1"},
      {R"(sentrel_set_member{entity="tarn/sb/status",attribute="enabledPcrBank",member="sha256"})", "1"},
      {R"(sentrel_map_entry{entity="tarn/features/status",attribute="featureRev",key="secureboot"})", "26"},
      {R"(sentrel_entity_present{entity="sentrel/integrity/key/keyringColl"})", "1"},
   };
   for (auto const &[series, value] : expected) {
      auto const it = s.find(series);
      ASSERT_NE(it, s.end()) << series;
      EXPECT_EQ(it->second, value) << series;
   }
   // Backslash, quote and line feed set by --state.
   auto const set = samples(R"("tarn/features/status": {"featuresFilePath": "/x\\y\"z\nw"})");
   EXPECT_EQ(set.count(R"(sentrel_fact_info{entity="tarn/features/status",attribute="featuresFilePath",value="/x\\y\"z\nw"})"), 1u);
}

TEST_F(Metrics, BothFormatsSayWhenAndWhereTheRunWasMadeAndEveryOutputNamesTheProjectVersion) {
   // The host's clock, not time(2): that one is coarse and may lag it by a tick.
   auto const now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
   auto const before = now();
   auto const d = parseJson(run(kInputs, "json").out);
   auto const s = samples(kInputs);
   auto const after = now();
   ASSERT_STREQ(d.MemberBegin()->name.GetString(), "run");  // first, to be seen at a glance
   auto const &r = d["run"];
   // One version, the project's, whichever way it is asked for.
   EXPECT_STREQ(r["version"].GetString(), SENTREL_PROJECT_VERSION);
   EXPECT_EQ(s.count(R"(sentrel_build_info{version=")" SENTREL_PROJECT_VERSION R"("})"), 1u);
   EXPECT_EQ(runHost({"--version"}).out, "sentrel " SENTREL_PROJECT_VERSION "\n");
   char name[256] = {};
   gethostname(name, sizeof name - 1);
   EXPECT_STREQ(r["host"].GetString(), name);
   std::tm tm{};
   String const time = r["time"].GetString();
   ASSERT_NE(strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm), nullptr) << time;
   EXPECT_EQ(time.size(), 20u) << time;
   auto const jsonTime = timegm(&tm);
   auto const metricsTime = std::stoll(s.at("sentrel_last_run_timestamp_seconds"));
   EXPECT_TRUE(before <= jsonTime && jsonTime <= metricsTime && metricsTime <= after) << time << " " << metricsTime;
}
