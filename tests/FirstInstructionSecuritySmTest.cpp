#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <tuple>

#include "Sentrel/FirstInstructionSecuritySm.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"

using namespace SentrelTest;
using Sentrel::FirstInstructionSecurity;
using Sentrel::ModelRevisionId;
using Sentrel::VendorSpecific;
using Strings = std::vector<String>;

namespace {

char const kDevHash[] = "a71ccf391616919449c7e2368b42002ca8cabfe19012cb0bb6692949a6309e3c";
char const kPsbFile[] = "sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
String const kSm = "void Sentrel::FirstInstructionSecuritySm::";
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
   void lscpu(String const &out, int code = 0) const {
      bin.file("lscpu.out", out);
      bin.script("lscpu", "touch '" + bin.path() + "/lscpu.ran'\ncat '" + bin.path() + "/lscpu.out'\nexit " +
                             std::to_string(code) + "\n");
   }
   // Answers --status and --key-hash from files, noting each call.
   void bootGuardUtil(String const &status, String const &hash) const {
      bin.file("status.out", status);
      bin.file("hash.out", hash);
      bin.script("BootGuardUtil", "cd '" + bin.path() + "'\necho \"$2\" >> calls\ncase \"$2\" in\n"
                                  "--status) cat status.out;;\n--key-hash) cat hash.out;;\nesac\n");
   }
   Ptr<Sentrel::FirstInstructionSecuritySm> run() const {
      return Sentrel::FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(em, fis);
   }
   std::vector<bool> flags() const {
      return {fis->supported(), fis->systemFused(), fis->devConfig(), fis->verifiedbootEnabled(),
              fis->measuredbootEnabled()};
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

}  // namespace

// The facts are reset, in order, before the reader of the vendor publishes its own.
TEST(FirstInstructionSecuritySm, PublishesInOrder) {
   using A = FirstInstructionSecurity::Attr;
   std::vector<unsigned> const reset{A::cpuVendor, A::supported, A::systemFused, A::devConfig,
                                     A::verifiedbootEnabled, A::measuredbootEnabled};
   struct Case {
      char const *vendor;
      std::vector<unsigned> after;
      String reader;  // the vendor's reader, entered after getCpuVendorId
   };
   std::vector<Case> const cases{
      {"Other", {}, ""},
      {"GenuineIntel", {A::vendorSpecific, A::supported, A::verifiedbootEnabled, A::measuredbootEnabled,
                        A::systemFused, A::devConfig, A::vendorSpecific}, "getBootGuardStatus()"},
      {"AuthenticAMD", {A::supported, A::verifiedbootEnabled, A::systemFused, A::devConfig, A::vendorSpecific},
       "getPsbStatus()"},
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
      auto watcher = Loom::make<PublicationLog>(*p.fis);
      Recorder rec;
      p.run();
      auto want = reset;
      want.insert(want.end(), c.after.begin(), c.after.end());
      EXPECT_EQ(watcher->attrs, want);
      Strings entries{kSm + "handleInitialized()", kSm + "getCpuVendorId()", kSm + c.reader};
      if (c.reader.empty()) entries.pop_back();
      EXPECT_EQ(rec.traceTexts(7), entries);
   }
}

// The vendor from lscpu picks the reader: Intel (and its second spelling) the
// register and BootGuardUtil, AMD the PsbStatus variable, any other none.
TEST(FirstInstructionSecuritySm, FactsFromTheReaderOfTheVendor) {
   String const intel = "GenuineIntel", amd = "AuthenticAMD", both = "--status\n--key-hash\n";
   String const noMsr = "Cannot open /dev/cpu/0/msr", noPsb = "Cannot open EFI variable file";
   String const upper = "A71CCF391616919449C7E2368B42002CA8CABFE19012CB0BB6692949A6309E3C";
   std::uint64_t const bg = std::uint64_t{1} << 32;
   struct Case {
      char const *name;
      String vendor;                 // what lscpu prints after "Vendor ID:", and what is published
      std::optional<String> file;    // the register file or the variable
      std::optional<String> status;  // none: no BootGuardUtil
      String hash;
      std::vector<bool> flags;  // supported, fused, devConfig, verified, measured
      VendorSpecific vendorSpecific;
      String calls;
      Strings problems;  // level-2 traces after the vendor's
   };
   std::vector<Case> const cases{
      {"second Intel spelling", "GenuineIotel", std::nullopt, {}, "", {0, 0, 0, 0, 0}, String(), "", {noMsr}},
      {"vendors compare exactly", "genuineintel", std::nullopt, {}, "", {0, 0, 0, 0, 0}, kUntouched, "", {}},
      {"bit 32 alone", intel, msrImage(bg), "True", kDevHash, {1, 1, 1, 0, 0}, String(kDevHash), both, {}},
      {"0x60 without bit 32", intel, msrImage(0x60), "True", kDevHash, {0, 0, 0, 0, 0}, String(), "", {}},
      {"both bits, lower-case true", intel, msrImage(bg | 0x60), "true", "ab", {1, 0, 0, 1, 1}, String("ab"), both, {}},
      {"verified, trailing blank", intel, msrImage(bg | 0x40), "True ", "", {1, 0, 0, 1, 0}, String(), both, {}},
      {"measured, True then newlines", intel, msrImage(bg | 0x20), "True\n\n\n", upper + "\n", {1, 1, 0, 0, 1}, upper,
       both, {}},
      {"utility missing", intel, msrImage(bg), std::nullopt, "", {1, 0, 0, 0, 0}, String(), "",
       {"Command BootGuardUtil fuse --status return error code: 127",
        "Command BootGuardUtil fuse --key-hash return error code: 127"}},
      {"short register file", intel, String(0x13A + 4, '\1'), "True", kDevHash, {0, 0, 0, 0, 0}, String(), "",
       {"read fail errno: 0"}},
      {"PSB enabled and fused", amd, psbImage(80, 0x2A, 0x11), {}, "", {1, 1, 0, 1, 0}, ModelRevisionId{2, 10}, "", {}},
      {"PSB dev config", amd, psbImage(80, 0xF0, 0x13), {}, "", {1, 1, 1, 1, 0}, ModelRevisionId{15, 0}, "", {}},
      {"PSB 0x12, not fused", amd, psbImage(80, 1, 0x12), {}, "", {1, 0, 0, 0, 0}, ModelRevisionId{0, 1}, "", {}},
      {"PSB 0x01", amd, psbImage(80, 0x2A, 0x01), {}, "", {1, 0, 0, 0, 0}, ModelRevisionId{2, 10}, "", {}},
      {"PSB 79 bytes", amd, psbImage(79, 0, 0), {}, "", {0, 0, 0, 0, 0}, kUntouched, "",
       {"Error, EFI variable file smaller than expected, Expected 80 bytes, but only 79 bytes were read"}},
      {"PSB 81 bytes", amd, psbImage(81, 0x2A, 0x11), {}, "", {0, 0, 0, 0, 0}, kUntouched, "",
       {"Error, EFI variable file larger than expected size 80"}},
      {"PSB missing", amd, std::nullopt, {}, "", {0, 0, 0, 0, 0}, ModelRevisionId{0, 0}, "", {noPsb}},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      Platform p;
      p.lscpu("Vendor ID: " + c.vendor + "\n");
      if (c.status) p.bootGuardUtil(*c.status, c.hash);
      if (c.file) p.root.file(c.vendor == intel ? "dev/cpu/0/msr" : kPsbFile, *c.file);
      Recorder rec;
      EXPECT_TRUE(p.run()->initialized());
      EXPECT_EQ(p.fis->cpuVendor(), c.vendor);
      EXPECT_EQ(p.flags(), c.flags);
      EXPECT_EQ(p.fis->vendorSpecific(), c.vendorSpecific);
      EXPECT_EQ(slurp(p.bin.path() + "/calls"), c.calls);
      Strings want{"Logging CPU vendor ID: " + c.vendor};
      want.insert(want.end(), c.problems.begin(), c.problems.end());
      EXPECT_EQ(rec.traceTexts(2), want);
   }
}

// Without a vendor from lscpu the one published earlier stands.
TEST(FirstInstructionSecuritySm, LscpuWithoutAVendorLeavesTheEarlierOne) {
   for (auto const &[lscpu, code, trace] : std::vector<std::tuple<String, int, String>>{
           {"CPU(s): 2\n", 0, "Cannot find vendor ID in lscpu"},
           {"Vendor ID: GenuineIntel\n", 1, "Command lscpu return error code: 1"}}) {
      SCOPED_TRACE(trace);
      Platform p;
      p.lscpu(lscpu, code);
      p.fis->cpuVendorIs("AuthenticAMD");
      Recorder rec;
      p.run();
      EXPECT_EQ(p.fis->cpuVendor(), "AuthenticAMD");
      EXPECT_EQ(rec.traceTexts(2), (Strings{trace, "Cannot open EFI variable file"}));
   }
}

TEST(FirstInstructionSecuritySmToggleOff, NothingIsReadOrTouched) {
   SENTREL_ONLY_WITH_TOGGLES_OFF();
   Platform p;
   p.lscpu("Vendor ID: GenuineIntel\n");
   p.fis->cpuVendorIs("Earlier"), p.fis->supportedIs(true), p.fis->measuredbootEnabledIs(true);
   Recorder rec;
   EXPECT_TRUE(p.run()->initialized());
   EXPECT_FALSE(std::filesystem::exists(p.bin.path() + "/lscpu.ran"));
   EXPECT_EQ(p.fis->cpuVendor(), "Earlier");
   EXPECT_EQ(p.flags(), (std::vector<bool>{1, 0, 0, 0, 1}));
   EXPECT_EQ(p.fis->vendorSpecific(), kUntouched);
   EXPECT_EQ(rec.traceTexts(7), Strings{kSm + "handleInitialized()"});
   EXPECT_TRUE(rec.traceTexts(2).empty());
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
