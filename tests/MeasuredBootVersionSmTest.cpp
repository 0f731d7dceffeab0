#include <gtest/gtest.h>
#include <optional>

#include "Sentrel/MeasuredBootVersionSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::MeasuredBootVersion;
using Sentrel::MeasuredBootVersionSm;

namespace {

String const kSm = "void Sentrel::MeasuredBootVersionSm::";

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

}  // namespace

// The bootloader's first line is kept verbatim below 64 characters; the
// image's JSON gives its member's string. A failed read publishes "".
TEST(MeasuredBootVersionSm, EachFileGivesItsVersionOrAnEmptyOne) {
   String const vexo = R"({"measuredBootVersion": "1"})", cannotRead = "Cannot read Tarn measured boot version";
   String const noVexo = "Cannot find Vexo measured boot version file", l63(63, 'a'), l64(64, 'a');
   struct Case {
      std::optional<String> tarnFile, vexoFile;
      String tarn, vexo;
      std::vector<String> traces;  // level 2
   };
   std::vector<Case> const cases{
      {std::nullopt, vexo, "", "1", {"Cannot open Tarn measured boot version file"}},
      {" 2 \nsecond\n", vexo, " 2 ", "1", {}},
      {l63 + "\n", vexo, l63, "1", {}},
      {l64, vexo, "", "1", {cannotRead}},
      {"", vexo, "", "1", {cannotRead}},
      {"\n", vexo, "", "1", {}},
      {"2", std::nullopt, "2", "", {noVexo}},
      {"2", R"({"a": 1, "measuredBootVersion": " 2\r", "b": []})", "2", " 2\r", {}},
      {"2", R"({"measuredBootVersion": "a\u0000b"})", "2", "a", {}},
      {"2", R"({"other": "1.1"})", "2", "", {"Cannot find Vexo measured boot version in json file"}},
      {"2", R"({"measuredBootVersion": "1.1",})", "2", "", {noVexo}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.tarnFile.value_or("<absent>") + " / " + c.vexoFile.value_or("<absent>"));
      Machine m;
      m.mbv->tarnIs("stale");
      m.mbv->vexoIs("stale");
      Recorder rec;
      auto sm = m.start(c.tarnFile, c.vexoFile);
      EXPECT_EQ(m.mbv->tarn(), c.tarn);
      EXPECT_EQ(m.mbv->vexo(), c.vexo);
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
   EXPECT_EQ(rec.traceTexts(7), (std::vector<String>{kSm + "handleInitialized()", kSm + "readTarnMeasuredBootVersion()",
                                                     kSm + "readVexoMeasuredBootVersion()"}));
   rec.clear();
   m.mbv->tarnVersionFilePathIs(m.dir.file("tarn2", "2\n"));
   EXPECT_EQ(m.mbv->vexo(), "1");
   m.mbv->vexoVersionFilePathIs(m.dir.file("vexo2.json", R"({"measuredBootVersion": "3"})"));
   EXPECT_EQ(m.mbv->tarn(), "2");
   EXPECT_EQ(m.mbv->vexo(), "3");
   EXPECT_EQ(rec.traceTexts(7),
             (std::vector<String>{kSm + "readTarnMeasuredBootVersion()", kSm + "readVexoMeasuredBootVersion()"}));
   // Its own outputs trigger nothing, nor does anything once it is gone.
   rec.clear();
   m.mbv->tarnIs("x");
   sm = nullptr;
   m.mbv->vexoVersionFilePathIs(m.dir.path() + "/none.json");
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_EQ(m.mbv->subscriberCount(), 0u);
}
