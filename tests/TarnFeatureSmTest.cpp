#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <tuple>

#include "Sentrel/TarnFeatureSm.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::TarnFeatureSm;
using Rev = std::vector<std::pair<String, std::uint32_t>>;

namespace {

// Features file and kernel command line in a temporary directory, which is
// also the system root; nullopt leaves a file absent.
struct Machine {
   TempDir dir;
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<Tarn::Features::Status> status = entityAt<Tarn::Features::Status>(*em, "tarn/features/status");
   Ptr<Tarn::Secureboot::Status> sb = entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status");

   explicit Machine(std::optional<String> cmdline = std::nullopt) {
      Loom::sysrootIs(dir.path());
      if (cmdline) dir.file("proc/cmdline", *cmdline);
   }
   ~Machine() { Loom::sysrootIs(""); }
   Ptr<TarnFeatureSm> start(std::optional<String> features, bool supported) {
      sb->supportedIs(supported);
      status->featuresFilePathIs(features ? dir.file("features", *features) : dir.path() + "/none");
      return TarnFeatureSm::TarnFeatureSmIs(em, status, sb);
   }
};

}  // namespace

TEST(TarnFeatureSm, FactsFollowTheRevisionThresholds) {
   struct Case {
      std::optional<String> features;
      bool supported, sbOutdated, pcrMultibank, measuredboot;
   };
   std::vector<Case> const cases{
      {"secureboot:26\n", true, true, false, false},
      {"secureboot:27\n", true, false, false, false},
      {"secureboot:26\n", false, false, false, false},
      {"secureboot:28\n", true, false, false, false},
      {"secureboot:29\n", true, false, false, true},
      {"secureboot:29\n", false, false, false, false},
      {"secureboot:53\n", false, false, false, false},
      {"secureboot:54\n", false, false, true, false},
      {"secureboot:54\nbootguard:9\n", true, false, false, true},
      {"secureboot:54\nbootguard:10\n", true, false, true, true},
      {"secureboot:-1\n", true, false, true, true},
      {"bootguard:99\n", true, false, false, false},
      {std::nullopt, true, false, false, false},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.features.value_or("<absent>") + (c.supported ? " supported" : ""));
      Machine m;
      Recorder rec;
      EXPECT_TRUE(m.start(c.features, c.supported)->initialized());
      EXPECT_EQ(m.status->sbOutdated(), c.sbOutdated);
      EXPECT_EQ(m.status->pcrMultibankSupported(), c.pcrMultibank);
      EXPECT_EQ(m.status->measuredbootSupported(), c.measuredboot);
      // Without a command line the warning names the fallback subject.
      EXPECT_EQ(rec.logTexts(), c.sbOutdated ? std::vector<String>{"This version of Tarn" + kDeprecationTail}
                                             : std::vector<String>{});
      if (!c.features) {
         EXPECT_EQ(rec.traceTexts(2), std::vector<String>{"Cannot open Tarn features file"});
      }
   }
}

TEST(TarnFeatureSm, FeatureLinesAreReadLikeStoi) {
   String const invalid = "Invalid value for version number, not an integer";
   String const range = "Value for version number out of range";
   struct Case {
      String features;
      Rev revs;
      std::vector<String> traces;
   };
   std::vector<Case> const cases{
      {"secureboot :27", {{"secureboot ", 27}}, {}},
      {"a:\t+12abc\nb:-2147483648\nc:2147483647\n", {{"a", 12}, {"b", 2147483648u}, {"c", 2147483647}}, {}},
      {"a:b:3\nb: \nc:-\nd:+-1\ne:\r\n", {}, {invalid, invalid, invalid, invalid, invalid}},
      {"a:99999999999\nb:2147483648\nc:-2147483649\n", {}, {range, range, range}},
      {"\nname only\nname:\n", {}, {}},
      {"a:1\na:2\na:x\n", {{"a", 2}}, {invalid}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.features);
      Machine m;
      m.status->featureRevIs("kept", 1);  // the map is never cleared
      Recorder rec;
      auto sm = m.start(c.features, false);
      Rev want = c.revs;
      want.emplace_back("kept", 1);
      std::sort(want.begin(), want.end());
      EXPECT_EQ(Rev(m.status->featureRev().begin(), m.status->featureRev().end()), want);
      EXPECT_EQ(rec.traceTexts(2), c.traces);
   }
}

TEST(TarnFeatureSm, MultibankIsPublishedThenVetoedByBootguard) {
   Machine m;
   auto w = Loom::make<PublicationLog>(*m.status);
   auto sm = m.start("secureboot:54\nbootguard:9\n", false);
   auto const multibank = Tarn::Features::Status::Attr::pcrMultibankSupported;
   EXPECT_EQ(std::count(w->attrs.begin(), w->attrs.end(), multibank), 2);  // true, then false
   EXPECT_FALSE(m.status->pcrMultibankSupported());
}

TEST(TarnFeatureSm, RunningVersionIsTheFirstTarnEntryOfTheFirstLine) {
   String const notFound = "Cannot find Tarn version in /proc/cmdline", fallback = "This version of Tarn";
   for (auto const &[cmdline, version, trace] : std::vector<std::tuple<std::optional<String>, String, String>>{
           {std::nullopt, fallback, "Cannot open /proc/cmdline"},
           {"ro Tarn=2.1 quiet\n", "Tarn=2.1", ""},
           {"ro\nTarn=9\n", fallback, notFound}}) {
      SCOPED_TRACE(cmdline.value_or("<absent>"));
      Machine m(cmdline);
      auto sm = m.start(std::nullopt, false);
      Recorder rec;
      // Reached by name, as the host invokes it.
      EXPECT_EQ(TarnFeatureSm::typeInfo().op("getRunningTarnVersion")->invoke(*sm), version);
      EXPECT_EQ(rec.traceTexts(7), std::vector<String>{"Loom::String Sentrel::TarnFeatureSm::getRunningTarnVersion()"});
      EXPECT_EQ(rec.traceTexts(2), trace.empty() ? std::vector<String>{} : std::vector<String>{trace});
   }
}

TEST(TarnFeatureSm, SupportedChangesRecheckDeprecationAndMeasuredBootOnly) {
   Machine m("BOOT_IMAGE=/vexo Tarn=2.1 quiet\n");
   auto sm = m.start("secureboot:26\n", false);
   Recorder rec;
   m.sb->readyIs(true);
   EXPECT_TRUE(rec.traces().empty());

   m.sb->supportedIs(true);
   EXPECT_TRUE(m.status->sbOutdated());
   EXPECT_EQ(rec.logTexts(), std::vector<String>{"Tarn=2.1" + kDeprecationTail});
   EXPECT_EQ(rec.traceTexts(2), std::vector<String>{"Logging Tarn Deprecation Warning"});
   EXPECT_EQ(rec.traceTexts(7), (std::vector<String>{
                                   "void Sentrel::TarnFeatureSm::checkTarnDeprecation()",
                                   "void Sentrel::TarnFeatureSm::populateSbOutdatedFromSbVersion()",
                                   "Loom::String Sentrel::TarnFeatureSm::getRunningTarnVersion()",
                                   "void Sentrel::TarnFeatureSm::checkMeasuredbootSupported()"}));

   // Measured boot follows `supported` on the revisions read at start-up.
   m.sb->supportedIs(false);
   EXPECT_FALSE(m.status->sbOutdated());
   m.status->featureRevIs("secureboot", 29);
   m.sb->supportedIs(true);
   EXPECT_TRUE(m.status->measuredbootSupported());
   EXPECT_FALSE(m.status->sbOutdated());
}

TEST(TarnEntrySearch, FindsWhatTheEcmaScriptSearchFinds) {
   std::regex const tarnEntry("Tarn=\\S+", std::regex::ECMAScript);
   std::vector<String> const lines{"", "Tarn=", "Tarn= Tarn=2", "a Tarn=1 Tarn=2", "xTarn=3\tq", "Tarn=\v1 Tarn=\f2",
                                   "Tarn=\xff\xfe end", "Tarn=Tarn=4", "ro quiet", "Tarn=5\r",
                                   "Tarn=" + String(1500, 'x') + " y"};
   for (auto const &line : lines) {
      SCOPED_TRACE(line.substr(0, 40));
      std::smatch m;
      std::optional<String> const expected =
         std::regex_search(line, m, tarnEntry) ? std::optional<String>(m.str(0)) : std::nullopt;
      EXPECT_EQ(Sentrel::searchTarnEntry(line), expected);
   }
   // A line far longer than any kernel's is scanned without recursion.
   EXPECT_EQ(Sentrel::searchTarnEntry("Tarn=" + String(1 << 20, '9'))->size(), 5u + (1u << 20));
}
