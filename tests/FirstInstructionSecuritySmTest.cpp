#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Sentrel/FirstInstructionSecuritySm.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::FirstInstructionSecurity;
using Sentrel::FirstInstructionSecuritySm;
using Sentrel::ModelRevisionId;
using Sentrel::VendorSpecific;

namespace {

char const kDevHash[] = "a71ccf391616919449c7e2368b42002ca8cabfe19012cb0bb6692949a6309e3c";
char const kPsbFile[] = "sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
char const kSm[] = "void Sentrel::FirstInstructionSecuritySm::";
VendorSpecific const kUntouched{String("untouched")};

// Fake commands first in PATH, a system root, and the entity at its defaults.
struct Platform {
   TempDir bin, root;
   PathPrepend path{bin.path()};
   Ptr<Ledger::EntityManager> em = seededLedger();
   Ptr<FirstInstructionSecurity> fis = entityAt<FirstInstructionSecurity>(*em, "sentrel/firstInstructionSecurity");

   Platform() {
      Loom::sysrootIs(root.path());
      fis->vendorSpecificIs(kUntouched);
   }
   ~Platform() { Loom::sysrootIs(""); }
   String binFile(char const *name) const { return bin.path() + "/" + name; }
   void lscpu(String const &out, int code = 0) const {
      bin.file("lscpu.out", out);
      bin.script("lscpu", "touch '" + binFile("lscpu.ran") + "'\ncat '" + binFile("lscpu.out") +
                             "'\nexit " + std::to_string(code) + "\n");
   }
   // Answers --status and --key-hash from files, noting each call.
   void bootGuardUtil(String const &status, String const &hash) const {
      bin.file("status.out", status);
      bin.file("hash.out", hash);
      bin.script("BootGuardUtil", "echo \"$2\" >> '" + binFile("calls") + "'\ncase \"$2\" in\n" +
                                     "--status) cat '" + binFile("status.out") + "';;\n" +
                                     "--key-hash) cat '" + binFile("hash.out") + "';;\nesac\n");
   }
   String calls() const {
      std::ostringstream s;
      s << std::ifstream(binFile("calls")).rdbuf();
      return s.str();
   }
   Ptr<FirstInstructionSecuritySm> run() const {
      return FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(em, fis);
   }
};

// Register 0x13A at its offset, little-endian, amid bytes with every bit set.
String msrImage(std::uint64_t value) {
   String image(0x13A, '\xff');
   for (int i = 0; i < 8; ++i) image += static_cast<char>(value >> (8 * i));
   return image + String(8, '\xff');
}

String psbImage(std::size_t size, unsigned char byte73, unsigned char byte75) {
   String image(size, '\0');
   if (size > 0) image[0] = 0x07;
   if (size > 75) image[73] = static_cast<char>(byte73), image[75] = static_cast<char>(byte75);
   return image;
}

std::vector<bool> flags(FirstInstructionSecurity const &f) {
   return {f.supported(), f.systemFused(), f.devConfig(), f.verifiedbootEnabled(), f.measuredbootEnabled()};
}

// Element i of `got` must start with element i of `want`.
void expectPrefixes(std::vector<String> const &got, std::vector<String> const &want) {
   ASSERT_EQ(got.size(), want.size()) << ::testing::PrintToString(got);
   for (std::size_t i = 0; i < got.size(); ++i) EXPECT_TRUE(got[i].starts_with(want[i])) << got[i];
}

class Watcher : public Loom::Node {
 public:
   explicit Watcher(Loom::Entity const *e) : reactor_(*this, e, [this](unsigned a) { attrs.push_back(a); }) {
      reactor_.subscribe();
   }
   Loom::TypeInfo const &typeData() const override {
      static Loom::TypeInfo const t{"Watcher", {}, {}, nullptr};
      return t;
   }
   std::vector<unsigned> attrs;

 private:
   Loom::Reactor reactor_;
};

}  // namespace

TEST(FirstInstructionSecuritySm, VendorFromLscpuPicksTheBranch) {
   struct Case {
      String lscpu;
      int code;
      String preset, vendor;
      char branch;      // 'I' Boot Guard, 'A' PSB, 0 none
      String problem;   // level-2 trace in place of the vendor's
   };
   std::vector<Case> const cases{
      {"Architecture: x86_64\nVendor ID:      GenuineIntel\nModel: 85\n", 0, "", "GenuineIntel", 'I', ""},
      {"Vendor ID: GenuineIotel", 0, "", "GenuineIotel", 'I', ""},
      {"Vendor ID:\tAuthenticAMD\n", 0, "", "AuthenticAMD", 'A', ""},
      {"Vendor ID: genuineintel\n", 0, "", "genuineintel", 0, ""},
      {"Vendor ID: GenuineIntel \n", 0, "", "GenuineIntel ", 0, ""},
      {"BIOS Vendor ID: QEMU\nVendor ID: AuthenticAMD\n", 0, "", "QEMU", 0, ""},
      {"Vendor ID:\n  GenuineIntel\nModel: 1\n", 0, "", "GenuineIntel", 'I', ""},
      {"CPU(s): 2\n", 0, "", "", 0, "Cannot find vendor ID in lscpu"},
      {"Vendor ID: " + String(50000, 'x'), 0, "", String(50000, 'x'), 0, ""},
      {"Vendor ID: GenuineIntel\n", 1, "AuthenticAMD", "AuthenticAMD", 'A', "Command lscpu return error code: 1"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.lscpu.substr(0, 60));
      Platform p;
      p.lscpu(c.lscpu, c.code);
      p.fis->cpuVendorIs(c.preset);
      Recorder rec;
      EXPECT_TRUE(p.run()->initialized());
      EXPECT_EQ(p.fis->cpuVendor(), c.vendor);
      EXPECT_EQ(flags(*p.fis), std::vector<bool>(5, false));
      std::vector<String> traces{c.problem.empty() ? "Logging CPU vendor ID: " + c.vendor : c.problem};
      std::vector<String> entries{String(kSm) + "handleInitialized()", String(kSm) + "getCpuVendorId()"};
      VendorSpecific vs = kUntouched;
      if (c.branch == 'I') {
         traces.push_back("Cannot open /dev/cpu/0/msr");
         entries.push_back(String(kSm) + "getBootGuardStatus()");
         vs = String();
      } else if (c.branch == 'A') {
         traces.push_back("Cannot open EFI variable file");
         entries.push_back(String(kSm) + "getPsbStatus()");
         vs = ModelRevisionId{0, 0};
      }
      EXPECT_EQ(rec.traceTexts(2), traces);
      EXPECT_EQ(rec.traceTexts(7), entries);
      EXPECT_EQ(p.fis->vendorSpecific(), vs);
   }
}

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
      {"GenuineIntel",
       {A::vendorSpecific, A::supported, A::verifiedbootEnabled, A::measuredbootEnabled, A::systemFused,
        A::devConfig, A::vendorSpecific}},
      {"AuthenticAMD", {A::supported, A::verifiedbootEnabled, A::systemFused, A::devConfig, A::vendorSpecific}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.vendor);
      Platform p;
      p.lscpu(String("Vendor ID: ") + c.vendor + "\n");
      p.bootGuardUtil("True", kDevHash);
      p.root.file("dev/cpu/0/msr", msrImage((std::uint64_t{1} << 32) | 0x60));
      p.root.file(kPsbFile, psbImage(80, 0x2A, 0x13));
      auto &f = *p.fis;
      f.supportedIs(true), f.systemFusedIs(true), f.devConfigIs(true);
      f.verifiedbootEnabledIs(true), f.measuredbootEnabledIs(true);
      auto watcher = Loom::make<Watcher>(p.fis.ptr());
      p.run();
      auto want = reset;
      want.insert(want.end(), c.after.begin(), c.after.end());
      EXPECT_EQ(watcher->attrs, want);
   }
}

TEST(FirstInstructionSecuritySm, BootGuardFromRegisterAndUtility) {
   struct Case {
      char const *name;
      String msr;  // empty: no register file
      bool util;
      String status, hash;
      std::vector<bool> flags;  // supported, fused, devConfig, verified, measured
      String vendorSpecific, calls;
      std::vector<String> problems;  // level-2 traces after the vendor's, by prefix
   };
   std::uint64_t const bg = std::uint64_t{1} << 32;
   String const both = "--status\n--key-hash\n";
   String const upper = "A71CCF391616919449C7E2368B42002CA8CABFE19012CB0BB6692949A6309E3C";
   std::vector<Case> const cases{
      {"bit 32 alone", msrImage(bg), true, "True", kDevHash, {1, 1, 1, 0, 0}, kDevHash, both, {}},
      {"0x60 without bit 32", msrImage(0x60), true, "True", kDevHash, {0, 0, 0, 0, 0}, "", "", {}},
      {"both bits, lower-case true", msrImage(bg | 0x60), true, "true", "ab12", {1, 0, 0, 1, 1}, "ab12", both, {}},
      {"verified, trailing blank", msrImage(bg | 0x40), true, "True ", "", {1, 0, 0, 1, 0}, "", both, {}},
      {"measured, True then newlines", msrImage(bg | 0x20), true, "True\n\n\n", upper + "\n", {1, 1, 0, 0, 1}, upper,
       both, {}},
      {"utility missing", msrImage(bg), false, "", "", {1, 0, 0, 0, 0}, "", "",
       {"Command BootGuardUtil fuse --status return error code: 127",
        "Command BootGuardUtil fuse --key-hash return error code: 127"}},
      {"no register file", "", true, "True", kDevHash, {0, 0, 0, 0, 0}, "", "", {"Cannot open /dev/cpu/0/msr"}},
      {"short register file", String(0x13A + 4, '\1'), true, "True", kDevHash, {0, 0, 0, 0, 0}, "", "",
       {"read fail errno: "}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      Platform p;
      p.lscpu("Vendor ID: GenuineIntel\n");
      if (c.util) p.bootGuardUtil(c.status, c.hash);
      if (!c.msr.empty()) p.root.file("dev/cpu/0/msr", c.msr);
      Recorder rec;
      EXPECT_TRUE(p.run()->initialized());
      EXPECT_EQ(flags(*p.fis), c.flags);
      EXPECT_EQ(p.fis->vendorSpecific(), VendorSpecific{c.vendorSpecific});
      EXPECT_EQ(p.calls(), c.calls);
      std::vector<String> want{"Logging CPU vendor ID: GenuineIntel"};
      want.insert(want.end(), c.problems.begin(), c.problems.end());
      expectPrefixes(rec.traceTexts(2), want);
   }
}

TEST(FirstInstructionSecuritySm, PsbFromEfiVariable) {
   struct Case {
      char const *name;
      String file;
      bool exists;
      std::vector<bool> flags;  // supported, fused, devConfig, verified, measured
      VendorSpecific vendorSpecific;
      String problem;
   };
   std::vector<Case> const cases{
      {"enabled and fused", psbImage(80, 0x2A, 0x11), true, {1, 1, 0, 1, 0}, ModelRevisionId{2, 10}, ""},
      {"dev config", psbImage(80, 0xF0, 0x13), true, {1, 1, 1, 1, 0}, ModelRevisionId{15, 0}, ""},
      {"0x12", psbImage(80, 0x01, 0x12), true, {1, 0, 0, 0, 0}, ModelRevisionId{0, 1}, ""},
      {"0x10", psbImage(80, 0x2A, 0x10), true, {1, 0, 0, 0, 0}, ModelRevisionId{2, 10}, ""},
      {"0x01", psbImage(80, 0x2A, 0x01), true, {1, 0, 0, 0, 0}, ModelRevisionId{2, 10}, ""},
      {"79 bytes", psbImage(79, 0, 0), true, {0, 0, 0, 0, 0}, kUntouched,
       "Error, EFI variable file smaller than expected, Expected 80 bytes, but only 79 bytes were read"},
      {"81 bytes", psbImage(81, 0x2A, 0x11), true, {0, 0, 0, 0, 0}, kUntouched,
       "Error, EFI variable file larger than expected size 80"},
      {"empty", "", true, {0, 0, 0, 0, 0}, kUntouched,
       "Error, EFI variable file smaller than expected, Expected 80 bytes, but only 0 bytes were read"},
      {"missing", "", false, {0, 0, 0, 0, 0}, ModelRevisionId{0, 0}, "Cannot open EFI variable file"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      Platform p;
      p.lscpu("Vendor ID: AuthenticAMD\n");
      if (c.exists) p.root.file(kPsbFile, c.file);
      Recorder rec;
      EXPECT_TRUE(p.run()->initialized());
      EXPECT_EQ(flags(*p.fis), c.flags);
      EXPECT_EQ(p.fis->vendorSpecific(), c.vendorSpecific);
      std::vector<String> want{"Logging CPU vendor ID: AuthenticAMD"};
      if (!c.problem.empty()) want.push_back(c.problem);
      EXPECT_EQ(rec.traceTexts(2), want);
   }
}

TEST(FirstInstructionSecuritySmToggleOff, NothingIsReadOrTouched) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Platform p;
   p.lscpu("Vendor ID: GenuineIntel\n");
   p.fis->cpuVendorIs("Earlier");
   p.fis->supportedIs(true);
   p.fis->measuredbootEnabledIs(true);
   Recorder rec;
   auto sm = p.run();
   EXPECT_TRUE(sm->initialized());
   EXPECT_FALSE(std::filesystem::exists(p.binFile("lscpu.ran")));
   EXPECT_EQ(p.fis->cpuVendor(), "Earlier");
   EXPECT_EQ(flags(*p.fis), (std::vector<bool>{1, 0, 0, 0, 1}));
   EXPECT_EQ(p.fis->vendorSpecific(), kUntouched);
   EXPECT_EQ(rec.traceTexts(7), std::vector<String>{String(kSm) + "handleInitialized()"});
   EXPECT_TRUE(rec.traceTexts(2).empty());
}

TEST(VendorIdSearch, FindsWhatTheEcmaScriptSearchCaptures) {
   std::regex const vendor("Vendor ID:\\s*(.*)", std::regex::ECMAScript);
   std::vector<String> const outputs{"",
                                     "Vendor ID:",
                                     "Vendor ID:   GenuineIntel\r\nModel: 1",
                                     "Vendor ID: \v\f\n\r\tx y \n",
                                     "BIOS Vendor ID: A\nVendor ID: B",
                                     "vendor id: x",
                                     "Vendor ID:\xc2\xa0" "AMD\xff",
                                     "Vendor ID: " + String(1500, 'q') + "\nrest"};
   for (auto const &o : outputs) {
      SCOPED_TRACE(o.substr(0, 40));
      std::smatch m;
      auto const expected = std::regex_search(o, m, vendor) ? std::optional<String>(m[1].str()) : std::nullopt;
      EXPECT_EQ(Sentrel::searchVendorId(o), expected);
   }
}
