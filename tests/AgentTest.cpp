#include <algorithm>
#include <gtest/gtest.h>
#include <tuple>

#include "Sentrel/PlatformHelpers.h"
#include "Sentrel/platform/Toggle.h"
#include "Sentrel/SentrelAgent.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

struct Started {
   Ptr<Ledger::EntityManager> em;
   Ptr<Sentrel::Agent> agent;
};

Started startAgent(Ptr<Ledger::EntityManager> em) {
   auto agent = Sentrel::agentFactory("Sentrel");
   Loom::startAgent(*agent, em);
   return {em, agent};
}

std::size_t count(std::vector<Loom::String> const &v, Loom::String const &s) {
   return static_cast<std::size_t>(std::count(v.begin(), v.end(), s));
}

}  // namespace

TEST(Agent, DeclaresTheSevenMountsInOrder) {
   auto em = seededLedger();
   auto agent = Sentrel::agentFactory("Sentrel");
   agent->entityManagerIs(em);
   agent->doInit();
   auto const &group = agent->mountGroup();
   ASSERT_TRUE(group);
   EXPECT_TRUE(group->closed());
   std::vector<std::tuple<Loom::String, Loom::String, bool>> got;
   for (auto const &m : group->mounts()) got.emplace_back(m.path, m.typeName, m.flags.write);
   std::vector<std::tuple<Loom::String, Loom::String, bool>> const want{
      {"sentrel/measuredBootVersion", "Sentrel::MeasuredBootVersion", true},
      {"sentrel/firstInstructionSecurity", "Sentrel::FirstInstructionSecurity", true},
      {"tarn/features/status", "Tarn::Features::Status", true},
      {"tarn/sb/status", "Tarn::Secureboot::Status", false},
      {"tarn/pcrConfig/status", "Tarn::PcrConfig::Status", true},
      {"hardware/sentrel/config", "Loom::Dir", false},
      {"sentrel/integrity/key/keyringColl", "Sentrel::IntegrityKeyringColl", true}};
   EXPECT_EQ(got, want);
}

TEST(Agent, MountsCompleteCreatesEveryMachineOnTheMountedEntities) {
   Recorder rec;
   auto s = startAgent(seededLedger());
   auto const &a = *s.agent;
   EXPECT_EQ(a.measuredBootVersion(), s.em->lookup("sentrel/measuredBootVersion"));
   EXPECT_EQ(a.sbStatus(), s.em->lookup("tarn/sb/status"));
   EXPECT_EQ(a.defaultSentrelStatus(), s.em->lookup("hardware/sentrel/config/sentrel"));
   EXPECT_EQ(a.integrityKeyringColl(), s.em->lookup("sentrel/integrity/key/keyringColl"));
   for (auto const *sm : {static_cast<Loom::Node *>(a.measuredBootVersionSm().ptr()),
                          static_cast<Loom::Node *>(a.tarnFeatureSm().ptr()),
                          static_cast<Loom::Node *>(a.tarnPcrConfigStatusSm().ptr()),
                          static_cast<Loom::Node *>(a.firstInstructionSecuritySm().ptr()),
                          static_cast<Loom::Node *>(a.checkConfigurationStatusSm().ptr()),
                          static_cast<Loom::Node *>(a.integrityKeyringSm().ptr()),
                          static_cast<Loom::Node *>(a.integritySyslogSm().ptr())}) {
      ASSERT_NE(sm, nullptr);
      EXPECT_TRUE(sm->notificationActive());
   }
   EXPECT_FALSE(a.integrityKeyringRequestColl());
   EXPECT_FALSE(a.integrityKeyringRequestStatusColl());
   // The machines start in this order.
   std::vector<Loom::String> starts;
   for (auto const &t : rec.traces()) {
      if (t.level == 7 && t.text.ends_with("::handleInitialized()")) starts.push_back(t.text);
   }
   std::vector<Loom::String> const order{"void Sentrel::MeasuredBootVersionSm::handleInitialized()",
                                         "void Sentrel::FirstInstructionSecuritySm::handleInitialized()",
                                         "void Sentrel::TarnFeatureSm::handleInitialized()",
                                         "void Sentrel::TarnPcrConfigStatusSm::handleInitialized()"};
   ASSERT_GE(starts.size(), order.size());
   EXPECT_EQ(std::vector<Loom::String>(starts.begin(), starts.begin() + 4), order);
}

TEST(Agent, SmIsKeepsTheMachineBuiltOnTheSameObjectsAndReplacesOtherwise) {
   Recorder rec;
   auto s = startAgent(seededLedger());
   auto &a = *s.agent;
   auto const first = a.measuredBootVersionSm();
   char const *start = "void Sentrel::MeasuredBootVersionSm::handleInitialized()";
   EXPECT_EQ(count(rec.traceTexts(7), start), 1u);

   EXPECT_EQ(a.measuredBootVersionSmIs(s.em, a.measuredBootVersion()), first);
   EXPECT_EQ(count(rec.traceTexts(7), start), 1u);

   auto other = Loom::ptrCast<Sentrel::MeasuredBootVersion>(
      Loom::findType("Sentrel::MeasuredBootVersion")->create());
   auto replaced = a.measuredBootVersionSmIs(s.em, other);
   EXPECT_NE(replaced, first);
   EXPECT_EQ(replaced->measuredBootVersion(), other);
   EXPECT_TRUE(replaced->notificationActive());
   EXPECT_EQ(count(rec.traceTexts(7), start), 2u);

   EXPECT_EQ(a.integritySyslogSmIs(), a.integritySyslogSm());
}

TEST(Agent, SmDelHandsOverTheMachineWithNotificationsOff) {
   auto s = startAgent(seededLedger());
   auto sm = s.agent->tarnFeatureSmDel();
   ASSERT_TRUE(sm);
   EXPECT_FALSE(sm->notificationActive());
   EXPECT_FALSE(s.agent->tarnFeatureSm());
   EXPECT_FALSE(s.agent->tarnFeatureSmDel());
}

TEST(Agent, NoSentrelEntryInTheConfigDirectoryGivesANullDefaultStatus) {
   auto em = seededLedger();
   em->entityDel("hardware/sentrel/config/sentrel");
   auto s = startAgent(em);
   EXPECT_FALSE(s.agent->defaultSentrelStatus());
   ASSERT_TRUE(s.agent->checkConfigurationStatusSm());
   EXPECT_FALSE(s.agent->checkConfigurationStatusSm()->defaultSentrelStatus());
}

TEST(Agent, AMistypedEntityIsLeftNull) {
   auto em = seededLedger();
   em->entityIs("sentrel/integrity/key/keyringColl",
                Loom::ptrCast<Loom::Entity>(Loom::findType("Sentrel::MeasuredBootVersion")->create()));
   auto agent = Sentrel::agentFactory("Sentrel");
   agent->entityManagerIs(em);
   agent->doInit();
   // The framework would refuse the mount; the agent, handed success anyway,
   // takes nothing of the wrong type.
   agent->doMountsComplete(Ledger::mountSuccess_, em);
   EXPECT_FALSE(agent->integrityKeyringColl());
   ASSERT_TRUE(agent->integrityKeyringSm());
   EXPECT_FALSE(agent->integrityKeyringSm()->integrityKeyringColl());
   EXPECT_EQ(em->completeMounts(*agent->mountGroup()), Ledger::mountFailure_);
}

TEST(AgentDeathTest, AFailedMountAborts) {
   EXPECT_DEATH(
      {
         auto em = seededLedger();
         auto agent = Sentrel::agentFactory("Sentrel");
         agent->doMountsComplete(Ledger::mountFailure_, em);
      },
      "mountStatus == Ledger::mountSuccess_");
}

TEST(Agent, CreateAndDestroyLeavesNoLiveObject) {
   for (int i = 0; i < 3; ++i) {
      auto s = startAgent(seededLedger());
   }
   for (auto const *t : Loom::AllocationTracker::all()) {
      EXPECT_EQ(t->live(), 0) << t->typeName();
   }
   EXPECT_GT(Sentrel::Agent::memAllocationTracker_.constructions(), 0u);
}

TEST(Agent, DestructionSwitchesOffAndReleasesEveryMachine) {
   auto s = startAgent(seededLedger());
   Ptr<Sentrel::TarnFeatureSm> held = s.agent->tarnFeatureSm();
   auto sb = s.em->lookup("tarn/sb/status");
   EXPECT_EQ(sb->subscriberCount(), 2u);  // features and configuration check
   s.agent = nullptr;
   EXPECT_FALSE(held->notificationActive());
   EXPECT_EQ(sb->subscriberCount(), 0u);
}

TEST(ImaToggleOff, IntegrityMachinesStayNull) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   auto s = startAgent(seededLedger());
   EXPECT_FALSE(s.agent->integrityKeyringSm());
   EXPECT_FALSE(s.agent->integritySyslogSm());
   EXPECT_TRUE(s.agent->measuredBootVersionSm());
   EXPECT_TRUE(s.agent->firstInstructionSecuritySm());
   EXPECT_TRUE(s.agent->tarnFeatureSm());
   EXPECT_TRUE(s.agent->tarnPcrConfigStatusSm());
   EXPECT_TRUE(s.agent->checkConfigurationStatusSm());
   EXPECT_EQ(Loom::toggleQueryCountForTest("SentrelIma"), 1u);
}
