#include <gtest/gtest.h>
#include <optional>
#include <regex>

#include "Sentrel/FirstInstructionSecuritySm.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::FirstInstructionSecurity;

namespace {

char const kDevHash[] = "a71ccf391616919449c7e2368b42002ca8cabfe19012cb0bb6692949a6309e3c";
char const kPsbFile[] = "sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";

// Fake commands first in PATH, a system root, and the entity at its defaults;
// the facts that each vendor's reader publishes are proved through the host.
struct Platform {
   TempDir bin, root;
   PathPrepend path{bin.path()};
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<FirstInstructionSecurity> fis = entityAt<FirstInstructionSecurity>(*em, "sentrel/firstInstructionSecurity");

   Platform() { Loom::sysrootIs(root.path()); }
   ~Platform() { Loom::sysrootIs(""); }
};

}  // namespace

// The facts are reset, in order, before the reader of the vendor publishes its own.
TEST(FirstInstructionSecuritySm, PublishesInOrder) {
   using A = FirstInstructionSecurity::Attr;
   std::vector<unsigned> const reset{A::cpuVendor, A::supported, A::systemFused, A::devConfig,
                                     A::verifiedbootEnabled, A::measuredbootEnabled};
   struct Case {
      char const *vendor;
      std::vector<unsigned> after;
   };
   std::vector<Case> const cases{
      {"Other", {}},
      {"GenuineIntel", {A::vendorSpecific, A::supported, A::verifiedbootEnabled, A::measuredbootEnabled,
                        A::systemFused, A::devConfig, A::vendorSpecific}},
      {"AuthenticAMD", {A::supported, A::verifiedbootEnabled, A::systemFused, A::devConfig, A::vendorSpecific}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.vendor);
      Platform p;
      p.bin.script("lscpu", String("echo 'Vendor ID: ") + c.vendor + "'\n");
      p.bin.script("BootGuardUtil", "case $2 in --status) echo True;; *) echo " + String(kDevHash) + ";; esac\n");
      p.root.file("dev/cpu/0/msr", String(0x13A, '\xff') + String("\x60\0\0\0\1\0\0\0", 8));
      p.root.file(kPsbFile, String(73, '\7') + String("\x2a\0\x13\0\0\0\0", 7));
      auto &f = *p.fis;
      f.supportedIs(true), f.systemFusedIs(true), f.devConfigIs(true);
      f.verifiedbootEnabledIs(true), f.measuredbootEnabledIs(true), f.vendorSpecificIs(String("untouched"));
      auto watcher = Loom::make<PublicationLog>(*p.fis);
      Sentrel::FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(p.em, p.fis);
      auto want = reset;
      want.insert(want.end(), c.after.begin(), c.after.end());
      EXPECT_EQ(watcher->attrs, want);
   }
}

TEST(VendorIdSearch, FindsWhatTheEcmaScriptSearchCaptures) {
   std::regex const vendor("Vendor ID:\\s*(.*)", std::regex::ECMAScript);
   for (String const &o : {String(), String("Vendor ID:"), String("Vendor ID:   GenuineIntel\r\nModel: 1"),
                           String("Vendor ID: \v\f\n\r\tx y \n"), String("BIOS Vendor ID: A\nVendor ID: B"),
                           String("vendor id: x"), String("Vendor ID:\xc2\xa0" "AMD\xff"),
                           "Vendor ID: " + String(1500, 'q') + "\nrest"}) {
      SCOPED_TRACE(o.substr(0, 40));
      std::smatch m;
      auto const expected = std::regex_search(o, m, vendor) ? std::optional<String>(m[1].str()) : std::nullopt;
      EXPECT_EQ(Sentrel::searchVendorId(o), expected);
   }
}
