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
   EXPECT_EQ(a.measuredBootVersion(), s.em->lookup("sentrel/measuredBootVersion"));
   EXPECT_EQ(a.sbStatus(), s.em->lookup("tarn/sb/status"));
   EXPECT_EQ(a.defaultSentrelStatus(), s.em->lookup("hardware/sentrel/config/sentrel"));
   EXPECT_EQ(a.integrityKeyringColl(), s.em->lookup("sentrel/integrity/key/keyringColl"));
   auto on = [](auto const &sm) { return sm && sm->notificationActive(); };
   EXPECT_EQ((std::vector<bool>{on(a.measuredBootVersionSm()), on(a.tarnFeatureSm()), on(a.tarnPcrConfigStatusSm()),
                                on(a.firstInstructionSecuritySm()), on(a.checkConfigurationStatusSm()),
                                on(a.integrityKeyringSm()), on(a.integritySyslogSm())}),
             std::vector<bool>(7, true));
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

TEST(Agent, EveryCreateAndDestroyCycleLeavesNoLiveObject) {
   struct Cycle {
      char const *name;
      std::function<void()> run;
   };
   std::vector<Cycle> const cycles{
      {"started agent", [] { startAgent(seededLedger()); }},
      {"agent made by AgentIs", [] { Sentrel::Agent::AgentIs("Sentrel"); }},
      {"agent made in a directory",
       [] { Loom::make<Loom::Dir>()->entityNew("Sentrel", Sentrel::Agent::typeInfo()); }},
      {"machines replaced and taken",
       [] {
          auto s = startAgent(seededLedger());
          s.agent->measuredBootVersionSmIs(s.em, Loom::make<Sentrel::MeasuredBootVersion>());
          s.agent->integrityKeyringSmIs(Loom::make<Sentrel::IntegrityKeyringColl>());
          s.agent->tarnFeatureSmDel();
       }},
      {"references set through the type description",
       [] {
          auto s = startAgent(seededLedger());
          auto const *attr = s.agent->typeData().attr("tarnFeatureStatus");
          EXPECT_FALSE(attr->set(*s.agent, s.em->lookup("tarn/features/status").ptr()));
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

TEST(Agent, ItsReferencesAreSetThroughTheTypeDescriptionOnlyToTheirOwnType) {
   auto s = startAgent(seededLedger());
   auto &a = *s.agent;
   auto const request = Loom::make<Sentrel::IntegrityKeyringRequestColl>();
   struct Case {
      char const *attr;
      Loom::Object const *value;
      char const *error;  // nullptr: accepted
   };
   // The setters come from one template: one row per branch.
   std::vector<Case> const cases{
      {"integrityKeyringRequestColl", request.ptr(), nullptr},
      {"defaultSentrelStatus", nullptr, nullptr},
      {"integrityKeyringColl", &a, "expected a Sentrel::IntegrityKeyringColl, not a Sentrel::Agent"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(std::string(c.attr) + (c.error ? " refused" : " accepted"));
      auto const &attr = *a.typeData().attr(c.attr);
      ASSERT_TRUE(attr.set);
      Loom::Object const *before = std::get<Loom::Object const *>(attr.get(a));
      auto const error = attr.set(a, c.value);
      EXPECT_EQ(error.value_or(""), c.error ? c.error : "");
      EXPECT_EQ(std::get<Loom::Object const *>(attr.get(a)), c.error ? before : c.value);
   }
   // Exactly the references of the lifecycle are settable; the machines are not.
   std::vector<Loom::String> settable;
   for (auto const &attr : a.typeData().attrs) {
      if (attr.set) settable.push_back(attr.name);
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

TEST(Agent, AScriptSetsItsReferencesByEntityPath) {
   TempDir sw;
   sw.script("bin/lscpu", "echo 'Vendor ID: TestVendor'\n");
   String const state = sw.file("state.json", R"({"entities": {}})");
   struct Case {
      char const *line;
      int exitCode;
      char const *error;
   };
   std::vector<Case> const cases{
      {"set agent sbStatus \"tarn/sb/status\"", 0, ""},
      {"set agent sbStatus \"tarn/features/status\"", 2,
       "script:1: sbStatus: expected a Tarn::Secureboot::Status, not a Tarn::Features::Status"},
      {"set agent sbStatus \"tarn/elsewhere\"", 2, "script:1: sbStatus: no entity at \"tarn/elsewhere\""},
      {"set agent tarnFeatureSm \"tarn/sb/status\"", 2, "script:1: unknown attribute \"tarnFeatureSm\" of agent"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.line);
      String const script = sw.file("script", String(c.line) + "\n");
      auto r = runHost({"--state", state, "--sysroot", sw.path(), "--script", script},
                       {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH")});
      EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
      EXPECT_NE(r.err.find(c.error), String::npos) << r.err;
   }
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
