#include <gtest/gtest.h>
#include <optional>

#include "Sentrel/MeasuredBootVersionSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::MeasuredBootVersion;
using Sentrel::MeasuredBootVersionSm;

namespace {

struct Machine {
   TempDir dir;
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<MeasuredBootVersion> mbv = entityAt<MeasuredBootVersion>(*em, "sentrel/measuredBootVersion");

   // Points both paths into the temporary directory; nullopt leaves a file absent.
   Ptr<MeasuredBootVersionSm> start(std::optional<String> tarn, std::optional<String> vexo) {
      mbv->tarnVersionFilePathIs(tarn ? dir.file("tarn", *tarn) : dir.path() + "/no-tarn");
      mbv->vexoVersionFilePathIs(vexo ? dir.file("vexo.json", *vexo) : dir.path() + "/no-vexo.json");
      return MeasuredBootVersionSm::MeasuredBootVersionSmIs(em, mbv);
   }
};

struct Case {
   std::optional<String> content;
   String published;
   std::vector<String> traces;  // level 2
};

}  // namespace

TEST(MeasuredBootVersionSm, BootloaderFileFirstLineIsBoundedAndVerbatim) {
   String const l63(63, 'a'), l64(64, 'a');
   std::vector<Case> const cases{
      {std::nullopt, "", {"Cannot open Tarn measured boot version file"}},
      {"2\n", "2", {}},
      {"2\r\n", "2\r", {}},
      {" 2 \nsecond\n", " 2 ", {}},
      {l63 + "\n", l63, {}},
      {l63, l63, {}},
      {l64 + "\n", "", {"Cannot read Tarn measured boot version"}},
      {l64, "", {"Cannot read Tarn measured boot version"}},
      {"", "", {"Cannot read Tarn measured boot version"}},
      {"\n", "", {}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.content.value_or("<absent>"));
      Machine m;
      m.mbv->tarnIs("stale");  // a failed or empty read overwrites it
      Recorder rec;
      auto sm = m.start(c.content, R"({"measuredBootVersion": "1"})");
      EXPECT_EQ(m.mbv->tarn(), c.published);
      EXPECT_EQ(rec.traceTexts(2), c.traces);
   }
}

TEST(MeasuredBootVersionSm, ImageJsonFileValueIsPublished) {
   std::vector<Case> const cases{
      {std::nullopt, "", {"Cannot find Vexo measured boot version file"}},
      {R"({"a": 1, "measuredBootVersion": "1.1", "b": []})", "1.1", {}},
      {R"({"measuredBootVersion": " 2\r"})", " 2\r", {}},
      {R"({"measuredBootVersion": "a\u0000b"})", "a", {}},
      {R"({"other": "1.1"})", "", {"Cannot find Vexo measured boot version in json file"}},
      {R"({"measuredBootVersion": "1.1",})", "", {"Cannot find Vexo measured boot version file"}},
      {"", "", {"Cannot find Vexo measured boot version file"}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.content.value_or("<absent>"));
      Machine m;
      m.mbv->vexoIs("stale");
      Recorder rec;
      auto sm = m.start("2\n", c.content);
      EXPECT_EQ(m.mbv->vexo(), c.published);
      EXPECT_EQ(rec.traceTexts(2), c.traces);
   }
}

TEST(MeasuredBootVersionSmDeathTest, ImageJsonOfTheWrongShapeEndsTheProcess) {
   EXPECT_DEATH(Machine().start("2\n", R"(["measuredBootVersion"])"), "IsObject\\(\\)");
   EXPECT_DEATH(Machine().start("2\n", R"({"measuredBootVersion": 2})"), "IsString\\(\\)");
}

TEST(MeasuredBootVersionSm, StartsWithTheBootloaderThenRereadsOnlyTheChangedPath) {
   Machine m;
   Recorder rec;
   auto sm = m.start("1\n", R"({"measuredBootVersion": "1"})");
   EXPECT_TRUE(sm->initialized());
   EXPECT_TRUE(sm->notificationActive());
   EXPECT_EQ(rec.traceTexts(7), (std::vector<String>{
                                   "void Sentrel::MeasuredBootVersionSm::handleInitialized()",
                                   "void Sentrel::MeasuredBootVersionSm::readTarnMeasuredBootVersion()",
                                   "void Sentrel::MeasuredBootVersionSm::readVexoMeasuredBootVersion()"}));
   rec.clear();
   m.mbv->tarnVersionFilePathIs(m.dir.file("tarn2", "2\n"));
   EXPECT_EQ(m.mbv->tarn(), "2");
   EXPECT_EQ(m.mbv->vexo(), "1");
   m.mbv->vexoVersionFilePathIs(m.dir.file("vexo2.json", R"({"measuredBootVersion": "3"})"));
   EXPECT_EQ(m.mbv->tarn(), "2");
   EXPECT_EQ(m.mbv->vexo(), "3");
   EXPECT_EQ(rec.traceTexts(7), (std::vector<String>{
                                   "void Sentrel::MeasuredBootVersionSm::readTarnMeasuredBootVersion()",
                                   "void Sentrel::MeasuredBootVersionSm::readVexoMeasuredBootVersion()"}));
   // Its own outputs trigger nothing.
   rec.clear();
   m.mbv->tarnIs("x");
   m.mbv->vexoIs("y");
   EXPECT_TRUE(rec.traces().empty());

   // Nor does anything once it is being torn down, or gone.
   sm->loomDoZombieReactors(true);
   m.mbv->tarnVersionFilePathIs(m.dir.path() + "/none");
   EXPECT_TRUE(rec.traces().empty());
   sm->loomDoZombieReactors(false);
   sm = nullptr;
   EXPECT_EQ(m.mbv->subscriberCount(), 0u);
   m.mbv->vexoVersionFilePathIs(m.dir.path() + "/none.json");
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_EQ(m.mbv->tarn(), "x");
}
