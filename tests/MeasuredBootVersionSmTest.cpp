#include <gtest/gtest.h>

#include "Sentrel/MeasuredBootVersionSm.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::MeasuredBootVersion;
using Sentrel::MeasuredBootVersionSm;

// What each file gives and which path change rereads which file are proved
// through the host; a destroyed machine leaves nothing subscribed.
TEST(MeasuredBootVersionSm, NothingRereadsOnceTheMachineIsGone) {
   TempDir dir;
   auto em = seededLedger();
   auto mbv = entityAt<MeasuredBootVersion>(*em, "sentrel/measuredBootVersion");
   mbv->tarnVersionFilePathIs(dir.file("tarn", "1\n"));
   auto sm = MeasuredBootVersionSm::MeasuredBootVersionSmIs(em, mbv);
   EXPECT_GT(mbv->subscriberCount(), 0u);
   sm = nullptr;
   Recorder rec;
   mbv->tarnVersionFilePathIs(dir.file("tarn2", "2\n"));
   mbv->vexoVersionFilePathIs(dir.path() + "/none.json");
   EXPECT_TRUE(rec.traces().empty());
   EXPECT_EQ(mbv->tarn(), "1");
   EXPECT_EQ(mbv->subscriberCount(), 0u);
}
