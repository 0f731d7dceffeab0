#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Sentrel/SentrelAgent.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"

using namespace SentrelTest;

namespace {

long residentKiB() {
   std::ifstream statm("/proc/self/statm");
   long size = 0, resident = 0;
   statm >> size >> resident;
   return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

// Many agents, one after the other, in one process: every object goes back
// and resident memory stays where it was after the first thousand.
TEST(Soak, TenThousandAgentsLeaveNothingBehind) {
   TempDir sw;
   sw.script("bin/lscpu", "echo 'Vendor ID: AuthenticAMD'\n");
   PathPrepend path(sw.path() + "/bin");
   Loom::sysrootIs(sw.path());
   sw.file("sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01", String(80, '\x11'));
   sw.file("proc/cmdline", "Tarn=1\n");
   String const features = sw.file("features", "secureboot:26\n"), banks = sw.file("banks", "sha256\n"),
                boot = sw.file("boot", "PCRBANK=sha1\n"), errors = sw.file("errors", "REQUIRED_PCR_NOT_CONFIGURED\n");
   auto cycle = [&] {
      auto em = seededLedger();
      entityAt<Tarn::Features::Status>(*em, "tarn/features/status")->featuresFilePathIs(features);
      auto pcr = entityAt<Tarn::PcrConfig::Status>(*em, "tarn/pcrConfig/status");
      pcr->requiredPcrBankFilePathIs(banks);
      pcr->configuredPcrBankFilePathIs(boot);
      pcr->errorLogFilePathIs(errors);
      auto sb = entityAt<Tarn::Secureboot::Status>(*em, "tarn/sb/status");
      sb->supportedIs(true);
      auto agent = Sentrel::agentFactory("Sentrel");
      Loom::startAgent(*agent, em);
      sb->supportedIs(false);
      sb->readyIs(true);
   };
   std::size_t logged = 0;
   Loom::logSinkIs([&](Loom::LogRecord const &) { ++logged; });
   for (int i = 0; i < 1000; ++i) cycle();
   long const settled = residentKiB();
   for (int i = 0; i < 9000; ++i) cycle();
   long const after = residentKiB();
   Loom::logSinkIs(nullptr);
   Loom::sysrootIs("");

   EXPECT_EQ(logged, 10000u * 2);  // the deprecation and the PCR warning, every cycle
   for (auto const *t : Loom::AllocationTracker::all()) EXPECT_EQ(t->live(), 0) << t->typeName();
   EXPECT_LT(after - settled, 1024) << "resident KiB grew from " << settled << " to " << after;
}
