#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <regex>

#include "Sentrel/TarnFeatureSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::TarnFeatureSm;

// The facts the revisions give are proved through the host; subscribers also
// see the multibank fact published true before the bootguard veto.
TEST(TarnFeatureSm, MultibankIsPublishedThenVetoedByBootguard) {
   TempDir dir;
   auto em = seededLedger();
   auto status = entityAt<Tarn::Features::Status>(*em, "tarn/features/status");
   status->featuresFilePathIs(dir.file("features", "secureboot:54\nbootguard:9\n"));
   auto w = Loom::make<PublicationLog>(*status);
   auto sm = TarnFeatureSm::TarnFeatureSmIs(em, status, entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status"));
   auto const multibank = Tarn::Features::Status::Attr::pcrMultibankSupported;
   EXPECT_EQ(std::count(w->attrs.begin(), w->attrs.end(), multibank), 2);  // true, then false
   EXPECT_FALSE(status->pcrMultibankSupported());
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
