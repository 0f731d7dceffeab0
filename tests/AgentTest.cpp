#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <tuple>

#include "Sentrel/Toggles.h"
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
   EXPECT_EQ(a.integrityKeyringColl(), s.em->lookup("sentrel/integrity/key/keyringColl"));
   auto on = [](auto const &sm) { return sm && sm->notificationActive(); };
   EXPECT_EQ((std::vector<bool>{on(a.measuredBootVersionSm()), on(a.tarnFeatureSm()), on(a.tarnPcrConfigStatusSm()),
                                on(a.firstInstructionSecuritySm()), on(a.checkConfigurationStatusSm()),
                                on(a.integrityKeyringSm()), on(a.integritySyslogSm())}),
             std::vector<bool>(7, true));
   // The machines start in this order.
   std::vector<Loom::String> starts;
   for (auto const &t : rec.traceTexts(7)) {
      if (t.ends_with("Sm::handleInitialized()")) starts.push_back(t.substr(14, t.size() - 37));
   }
   starts.resize(4);
   EXPECT_EQ(starts, (std::vector<Loom::String>{"MeasuredBootVersion", "FirstInstructionSecurity", "TarnFeature",
                                                "TarnPcrConfigStatus"}));
}

TEST(Agent, SmIsKeepsTheMachineOnTheSameObjectsReplacesOtherwiseAndSmDelHandsItOverSwitchedOff) {
   Recorder rec;
   auto s = startAgent(seededLedger());
   auto &a = *s.agent;
   auto const first = a.measuredBootVersionSm();
   char const *start = "void Sentrel::MeasuredBootVersionSm::handleInitialized()";
   EXPECT_EQ(count(rec.traceTexts(7), start), 1u);

   EXPECT_EQ(a.measuredBootVersionSmIs(s.em, a.measuredBootVersion()), first);
   EXPECT_EQ(count(rec.traceTexts(7), start), 1u);

   auto other = Loom::make<Sentrel::MeasuredBootVersion>();
   auto replaced = a.measuredBootVersionSmIs(s.em, other);
   EXPECT_NE(replaced, first);
   EXPECT_EQ(replaced->measuredBootVersion(), other);
   EXPECT_TRUE(replaced->notificationActive());
   EXPECT_EQ(count(rec.traceTexts(7), start), 2u);

   EXPECT_EQ(a.integritySyslogSmIs(), a.integritySyslogSm());

   auto taken = a.tarnFeatureSmDel();
   EXPECT_FALSE(taken->notificationActive());
   EXPECT_FALSE(a.tarnFeatureSm() || a.tarnFeatureSmDel());
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

TEST(Agent, EveryCreateAndDestroyCycleLeavesNoLiveObject) {
   struct Cycle {
      char const *name;
      std::function<void()> run;
   };
   std::vector<Cycle> const cycles{
      {"started agent", [] { startAgent(seededLedger()); }},
      {"agent made in a directory",
       [] { Loom::make<Loom::Dir>()->entityNew("Sentrel", Sentrel::Agent::typeInfo()); }},
      {"machines replaced and taken",
       [] {
          auto s = startAgent(seededLedger());
          s.agent->measuredBootVersionSmIs(s.em, Loom::make<Sentrel::MeasuredBootVersion>());
          s.agent->integrityKeyringSmIs(Loom::make<Sentrel::IntegrityKeyringColl>());
          s.agent->tarnFeatureSmDel();
       }},
   };
   for (auto const &c : cycles) {
      SCOPED_TRACE(c.name);
      c.run();
      for (auto const *t : Loom::AllocationTracker::all()) {
         EXPECT_EQ(t->live(), 0) << t->typeName();
      }
   }
   EXPECT_GT(Sentrel::Agent::memAllocationTracker_.constructions(), 0u);
}

// Accepted references and the refusal's text are proved through the host's script.
TEST(Agent, ARefusedReferenceLeavesTheOldOneAndOnlyLifecycleReferencesAreSettable) {
   auto s = startAgent(seededLedger());
   auto &a = *s.agent;
   auto const &attr = *a.typeData().attr("integrityKeyringColl");
   auto const before = std::get<Loom::Object const *>(attr.get(a));
   EXPECT_TRUE(attr.set(a, &a));
   EXPECT_EQ(std::get<Loom::Object const *>(attr.get(a)), before);
   // Exactly the references of the lifecycle are settable; the machines are not.
   std::vector<Loom::String> settable;
   for (auto const &attr : a.typeData().attrs) {
      if (attr.set) settable.emplace_back(attr.name);
   }
   EXPECT_EQ(settable, (std::vector<Loom::String>{"measuredBootVersion", "tarnFeatureStatus", "sbStatus",
                                                  "tarnPcrConfigStatus", "firstInstructionSecurity",
                                                  "defaultSentrelStatus", "integrityKeyringRequestColl",
                                                  "integrityKeyringRequestStatusColl", "integrityKeyringColl"}));
}

TEST(Agent, TheGenericPathBuildsItInADirectoryAndRefusesExtraArguments) {
   auto dir = Loom::make<Loom::Dir>();
   auto const &type = *Loom::findType("Sentrel::Agent");
   auto const before = Sentrel::Agent::memAllocationTracker_.constructions();
   EXPECT_THROW(dir->entityNew("Sentrel", type, {Loom::String("extra")}), Loom::NewEntityArgumentsError);
   EXPECT_EQ(Sentrel::Agent::memAllocationTracker_.constructions(), before);
   EXPECT_FALSE(dir->entity("Sentrel"));

   auto agent = Loom::ptrCast<Sentrel::Agent>(dir->entityNew("Sentrel", type));
   ASSERT_TRUE(agent);
   EXPECT_EQ(agent->name(), "Sentrel");
   EXPECT_EQ(dir->entity("Sentrel"), agent);
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
   EXPECT_TRUE(s.agent->measuredBootVersionSm() && s.agent->firstInstructionSecuritySm() && s.agent->tarnFeatureSm() &&
               s.agent->tarnPcrConfigStatusSm() && s.agent->checkConfigurationStatusSm());
   EXPECT_EQ(Loom::toggleQueryCountForTest("SentrelIma"), 1u);
}
