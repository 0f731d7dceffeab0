#include <gtest/gtest.h>
#include <optional>
#include <tuple>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/CommandRunning.h"
#include "Sentrel/FileReading.h"
#include "Sentrel/Toggles.h"
#include "Sentrel/platform/Printable.h"
#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/platform/Toggle.h"
#include "Sentrel/types/TarnSecurebootStatus.h"
#include "TestSupport.h"

using namespace SentrelTest;

// The trace of a failure is proved through the host's lscpu.
TEST(RunCmd, TrailingLineFeedsGoAndAFailureLeavesTheOutputUntouched) {
   for (auto const &[command, want] : std::vector<std::pair<char const *, Loom::String>>{
           {"printf 'abc\\n\\n'", "abc"}, {"printf '\\n\\n\\n'", ""}, {"printf 'a\\r\\n b \\n'", "a\r\n b "}}) {
      Loom::String out;
      EXPECT_TRUE(Sentrel::runCmd(command, out)) << command;
      EXPECT_EQ(out, want) << command;
   }
   Loom::String out = "untouched";
   EXPECT_FALSE(Sentrel::runCmd("echo printed; exit 3", out));
   EXPECT_EQ(out, "untouched");
}

TEST(RunCommand, ResultCodesAreTheShells) {
   TempDir d;
   d.file("not-executable", "#!/bin/sh\n");
   d.file("no-shebang", "exit 4\n", 0755);
   PathPrepend path(d.path());
   // Plain words are spawned directly, the rest through the shell: same codes.
   // A missing command (127) is proved through the host's lscpu.
   for (auto const &[command, code] : std::vector<std::pair<char const *, int>>{
           {"false", 1}, {"exit 9", 9}, {"not-executable", 126}, {"no-shebang", 4}, {"/bin/sh -c 'kill -KILL $$'", 137}}) {
      EXPECT_EQ(Loom::runCommand(command, Loom::kNoInput, -1, Loom::kDiscard), code) << command;
   }
}

// Missing and malformed files are proved through the measured boot version.
TEST(ParseJsonFile, AnyDepthParsesWithoutRecursing) {
   TempDir d;
   Loom::String const deep(1000000, '[');
   Sentrel::JsonDocument doc;
   EXPECT_FALSE(Sentrel::parseJsonFile(d.file("unclosed", deep).c_str(), doc));
   EXPECT_TRUE(Sentrel::parseJsonFile(d.file("closed", deep + Loom::String(deep.size(), ']')).c_str(), doc));
}

TEST(Toggles, FileNameAndDefault) {
   TempDir d;
   d.file("Good.json", R"({"On": true, "Off": false, "Number": 1})");
   d.file("Bad.json", "{not json");
   d.file("List.json", "[true]");
   Loom::toggleDirIs(d.path());
   // Name, file, default, what it gives.
   for (auto const &[name, file, dflt, want] : std::vector<std::tuple<char const *, char const *, bool, unsigned>>{
           {"On", "Good.json", false, 1}, {"Off", "Good.json", true, 0}, {"Absent", "Good.json", true, 1},
           {"Number", "Good.json", true, 1}, {"On", "Missing.json", false, 0}, {"On", "Bad.json", true, 1},
           {"On", "List.json", false, 0}}) {
      EXPECT_EQ(Loom::getToggleState(name, file, dflt), want) << name << " in " << file;
   }
   Loom::toggleDirIs("/etc/sentrel/toggles");
}

TEST(Toggles, EachAccessorAsksOncePerProcess) {
   for (int i = 0; i < 3; ++i) {
      togglePcrMultibankEnabled();
      toggleSentrelMfgExpectedConfigCheckEnabled();
      togglePlatformFirstInstructionSecurityEnabled();
      toggleSentrelImaEnabled();
   }
   for (char const *name :
        {"PcrMultibank", "SentrelMfgExpectedConfigCheck", "PlatformFirstInstructionSecurity", "SentrelIma"}) {
      EXPECT_EQ(Loom::toggleQueryCountForTest(name), 1u) << name;
   }
}

TEST(TraceLevels, Parse) {
   for (auto const &[text, mask] : std::vector<std::pair<char const *, std::optional<unsigned>>>{
           {"0-9", 0x3ff}, {"", 0}, {"1-3,9", 0x20e}, {"10", std::nullopt}, {"3-1", std::nullopt},
           {"2,", std::nullopt}, {"x", std::nullopt}}) {
      EXPECT_EQ(Loom::parseTraceLevels(text), mask) << text;
   }
}

TEST(Log, CatalogueLiesInOrderInItsSection) {
   Loom::LogDescriptor const *order[] = {
      &Sentrel::SENTREL_INTEGRITY_LOAD_KEY_FAIL_DESC, &Sentrel::SENTREL_INTEGRITY_DESC,
      &Sentrel::SENTREL_WARNING_DESC, &Sentrel::MEASUREDBOOT_PCR_CONFIG_WARNING_DESC,
      &Sentrel::TARN_DEPRECATION_WARNING_DESC};
   for (int i = 1; i < 5; ++i) EXPECT_EQ(order[i], order[0] + i);
   EXPECT_STREQ(Sentrel::SENTREL_INTEGRITY_DESC.explanation,
                "The Integrity Measurement Architecture (IMA) apparaisal raised a warning");
   EXPECT_STREQ(Sentrel::TARN_DEPRECATION_WARNING_DESC.recommendedAction, "\x02");
}

TEST(Log, AHandleKeyedOnItsFirstArgumentLetsOneMessageAKeyThroughPerInterval) {
   Recorder rec;
   Loom::LogHandle limited(Sentrel::SENTREL_WARNING_DESC, std::chrono::hours(1), 2.0, 1, 0);
   Loom::log(limited, "a", "x", "y");
   Loom::log(limited, "a", "other", "args");
   Loom::log(limited, Loom::String("b"), "x", "y");
   EXPECT_EQ(rec.logTexts(),
             (std::vector<Loom::String>{"a is currently x (default: y)", "b is currently x (default: y)"}));
}

namespace {
using A = Tarn::Secureboot::Status::Attr;
// A state machine that records the changes of its attributes it sees, can
// act from inside its reaction and looks at itself as its destruction starts.
class Probe : public Loom::StateMachine {
 public:
   Loom::TypeInfo const &typeData() const override {
      static Loom::TypeInfo const t{"Probe", {}, {}, nullptr};
      return t;
   }
   explicit Probe(Tarn::Secureboot::Status const *sb, std::vector<unsigned> const &attrs = {A::ready})
       : reactor(*this, sb, attrs, [this](unsigned a) {
            seen.push_back(a);
            if (act) act();
         }) {}
   ~Probe() override {
      if (destroyed) *destroyed = {notificationActive(), zombie()};
   }
   std::vector<unsigned> seen;
   std::function<void()> act;
   std::pair<bool, bool> *destroyed = nullptr;  // notifications on, zombie
   Loom::Reactor reactor;
};
}  // namespace

TEST(Notification, OnChangeOnlyInOrderAndSafeAgainstChangesDuringDelivery) {
   auto sb = Loom::make<Tarn::Secureboot::Status>();
   std::vector<unsigned> const all{A::supported, A::ready, A::enabledPcrBank};
   auto late = Loom::stateMachineNew<Probe>(sb.ptr(), all);
   late->reactor.unsubscribe();
   auto second = Loom::stateMachineNew<Probe>(sb.ptr(), all);
   // The first subscriber removes the second and subscribes the third while
   // a change is being delivered.
   auto first = Loom::stateMachineNew<Probe>(sb.ptr(), all);
   first->act = [&] {
      second->reactor.unsubscribe();
      late->reactor.subscribe();
   };
   second->reactor.unsubscribe();
   second->reactor.subscribe();  // now after `first`

   sb->supportedIs(false);  // no change: nothing delivered
   sb->supportedIs(true);
   sb->enabledPcrBankIs("sha1");
   sb->enabledPcrBankIs("sha1");  // already there
   EXPECT_EQ(first->seen, (std::vector<unsigned>{A::supported, A::enabledPcrBank}));
   EXPECT_TRUE(second->seen.empty());
   EXPECT_EQ(late->seen, (std::vector<unsigned>{A::enabledPcrBank}));

   first->loomDoZombieReactors(true);
   sb->readyIs(true);
   EXPECT_EQ(first->seen.size(), 2u);  // a zombie is not called
   EXPECT_EQ(sb->subscriberCount(), 2u);
   first = nullptr;
   late = nullptr;
   EXPECT_EQ(sb->subscriberCount(), 0u);
}

TEST(StateMachine, NotificationsOfItsAttributesGoOnOnceTheCreatorHasBuiltTheMachine) {
   auto sb = Loom::make<Tarn::Secureboot::Status>();
   auto built = Loom::make<Probe>(sb.ptr());
   EXPECT_FALSE(built->notificationActive());
   EXPECT_EQ(sb->subscriberCount(), 0u);

   auto sm = Loom::stateMachineNew<Probe>(sb.ptr());
   EXPECT_TRUE(sm->notificationActive());
   EXPECT_EQ(sb->subscriberCount(), 1u);
   sb->supportedIs(true);  // not an attribute it reacts to
   sb->readyIs(true);
   EXPECT_EQ(sm->seen.size(), 1u);
   EXPECT_EQ(built->seen.size(), 0u);
}

// The last reference switches a machine off and makes it a zombie before its
// destruction, even from inside a delivery, which goes on to the others.
TEST(StateMachine, AMachineDroppedDuringADeliveryGoesAndTheDeliveryGoesOn) {
   auto sb = Loom::make<Tarn::Secureboot::Status>();
   std::pair<bool, bool> secondGone{true, false}, firstGone{true, false};
   auto first = Loom::stateMachineNew<Probe>(sb.ptr());
   auto second = Loom::stateMachineNew<Probe>(sb.ptr());
   auto third = Loom::stateMachineNew<Probe>(sb.ptr());
   second->destroyed = &secondGone;
   first->destroyed = &firstGone;
   // The first drops the second, then itself, from inside its reaction.
   Probe *self = first.ptr();
   first->act = [&] {
      second = nullptr;
      first = nullptr;
      EXPECT_EQ(self->seen.size(), 1u);  // still whole until its reaction returns
   };
   sb->readyIs(true);
   EXPECT_EQ(secondGone, std::make_pair(false, true));
   EXPECT_EQ(firstGone, std::make_pair(false, true));
   EXPECT_EQ(third->seen.size(), 1u);
   EXPECT_EQ(sb->subscriberCount(), 1u);
}

TEST(Ledger, PathsDirectoriesAndMountFlags) {
   auto em = seededLedger();
   EXPECT_EQ(Ledger::Cell::path("/tarn//sb/status/", 0), "tarn/sb/status");
   EXPECT_TRUE(em->lookup("tarn/sb/status"));
   EXPECT_TRUE(Loom::ptrCast<Loom::Dir>(em->lookup("hardware/sentrel/config")));
   EXPECT_FALSE(em->lookup("tarn/sb/status/deeper"));

   Ledger::MountFlags f;
   EXPECT_TRUE(f.parse("r"));
   EXPECT_FALSE(f.write);
   EXPECT_FALSE(f.parse("x"));
}

// What people read is what was written, but for what could mislead them:
// one backslash stays one, and marks that reorder or break a line show.
TEST(Printable, EscapesOnlyWhatCouldMisleadAReader) {
   for (auto const &[text, shown] : std::vector<std::pair<Loom::String, Loom::String>>{
           {"\\EFI\\BOOT\\grubx64.efi", "\\EFI\\BOOT\\grubx64.efi"},
           {"caf\xc3\xa9" " \xf0\x9f\x98\x80 \"quoted\"", "caf\xc3\xa9" " \xf0\x9f\x98\x80 \"quoted\""},
           {"a\tb\nc\x1b[2J\x7f", "a\\x09b\\x0ac\\x1b[2J\\x7f"},
           {"next\xc2\x85line", "next\\u0085line"},
           {"\xe2\x80\x8e\xe2\x80\x8f\xd8\x9c\xe2\x80\xae" "evil\xe2\x81\xa6", "\\u200e\\u200f\\u061c\\u202eevil\\u2066"},
           {"one\xe2\x80\xa8two\xe2\x80\xa9", "one\\u2028two\\u2029"},
           {"\xff\xc3(\xed\xa0\x80\xc0\xaf", "\\xff\\xc3(\\xed\\xa0\\x80\\xc0\\xaf"},
        }) {
      EXPECT_EQ(Loom::printable(text), shown);
   }
}
