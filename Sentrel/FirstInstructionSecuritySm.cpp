#include "Sentrel/FirstInstructionSecuritySm.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <cstring>
#include <initializer_list>
#include <cctype>
#include <unistd.h>

#include "Sentrel/CommandRunning.h"
#include "Sentrel/Toggles.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/ReadFile.h"

#define SENTREL_FIRST_INSTRUCTION_SECURITY_SM_OPS(X) \
   X(getCpuVendorId) X(getBootGuardStatus) X(getPsbStatus) X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, FirstInstructionSecuritySm, firstInstructionSecurity,
                          SENTREL_FIRST_INSTRUCTION_SECURITY_SM_ARGS, SENTREL_FIRST_INSTRUCTION_SECURITY_SM_OPS)

namespace Sentrel {

namespace {

char const kMsrPath[] = "/dev/cpu/0/msr";
off_t const kBootGuardMsr = 0x13A;
std::uint64_t const kBootGuardPresent = std::uint64_t{1} << 32;
std::uint64_t const kVerifiedBootEnforced = 0x40;
std::uint64_t const kMeasuredBootActive = 0x20;
// The key hash fused into development platforms.
char const kDevConfigKeyHash[] = "a71ccf391616919449c7e2368b42002ca8cabfe19012cb0bb6692949a6309e3c";

char const kPsbStatusPath[] = "/sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
// The 4-byte attributes word of the variable and its 76 bytes of data.
std::size_t const kPsbStatusSize = 80;
std::size_t const kPsbModelRevisionByte = 73;
std::size_t const kPsbFlagsByte = 75;
unsigned const kPsbEnabledAndFused = 0x11;
unsigned const kPsbDevConfig = 0x02;

// The facts each reader publishes, for its reasons. Measured boot is never
// reported through the Platform Secure Boot variable.
using A = FirstInstructionSecurity::Attr;
std::initializer_list<A::Number> const kAllFacts{A::cpuVendor,           A::supported,           A::systemFused,
                                                 A::verifiedbootEnabled, A::measuredbootEnabled, A::devConfig,
                                                 A::vendorSpecific};
std::initializer_list<A::Number> const kBootGuardFacts{A::supported,           A::systemFused, A::verifiedbootEnabled,
                                                       A::measuredbootEnabled, A::devConfig,   A::vendorSpecific};
std::initializer_list<A::Number> const kPsbFacts{A::supported, A::systemFused, A::verifiedbootEnabled, A::devConfig,
                                                 A::vendorSpecific};

// Closes the register file on every way out, after the commands have run.
class FdCloser {
 public:
   explicit FdCloser(int fd) : fd_(fd) {}
   FdCloser(FdCloser const &) = delete;
   FdCloser &operator=(FdCloser const &) = delete;
   ~FdCloser() { close(fd_); }

 private:
   int fd_;
};

}  // namespace

std::optional<String> searchVendorId(String const &output) {
   // The first match of the ECMAScript search "Vendor ID:\s*(.*)", group 1,
   // scanned by hand: std::regex recurses once per character it repeats over,
   // and a long enough line would overflow the stack. \s takes line ends too;
   // . stops at a line feed or a carriage return.
   static char const label[] = "Vendor ID:";
   auto const at = output.find(label);
   if (at == String::npos) return std::nullopt;
   std::size_t begin = at + sizeof label - 1;
   while (begin < output.size() && std::isspace(static_cast<unsigned char>(output[begin]))) ++begin;
   std::size_t end = begin;
   while (end < output.size() && output[end] != '\n' && output[end] != '\r') ++end;
   return output.substr(begin, end - begin);
}

FirstInstructionSecuritySm::FirstInstructionSecuritySm(
   Ptr<Ledger::EntityManager> const &entityManager, Ptr<FirstInstructionSecurity> const &firstInstructionSecurity)
    : entityManager_(entityManager), firstInstructionSecurity_(firstInstructionSecurity) {
   handleInitialized();
}

void FirstInstructionSecuritySm::handleInitialized() {
   TRACE7("void Sentrel::FirstInstructionSecuritySm::handleInitialized()");
   if (!togglePlatformFirstInstructionSecurityEnabled()) {
      toggleOffReason(firstInstructionSecurity_, kAllFacts, "PlatformFirstInstructionSecurity", "Sentrel.json");
      initialized_ = true;
      return;
   }
   getCpuVendorId();
   auto &fis = *firstInstructionSecurity_;
   fis.supportedIs(false);
   fis.systemFusedIs(false);
   fis.devConfigIs(false);
   fis.verifiedbootEnabledIs(false);
   fis.measuredbootEnabledIs(false);
   String const vendor = fis.cpuVendor();
   if (vendor == "GenuineIntel") {
      getBootGuardStatus();
   } else if (vendor == "GenuineIotel") {
      // A second Intel spelling, kept on purpose: it takes the same path.
      getBootGuardStatus();
   } else if (vendor == "AuthenticAMD") {
      getPsbStatus();
   }
   initialized_ = true;
}

void FirstInstructionSecuritySm::getCpuVendorId() {
   TRACE7("void Sentrel::FirstInstructionSecuritySm::getCpuVendorId()");
   String output, why;
   if (!runCmd("lscpu", output, &why)) {
      Loom::reasonIs(*firstInstructionSecurity_, kAllFacts, why,
                     why.ends_with("(not found in PATH)") ? "install util-linux, which provides lscpu" : "");
      return;
   }
   auto const found = searchVendorId(output);
   if (!found) {
      TRACE2("Cannot find vendor ID in lscpu");
      Loom::reasonIs(*firstInstructionSecurity_, kAllFacts, "lscpu prints no \"Vendor ID:\" line");
      return;
   }
   String const &vendor = *found;
   TRACE2("Logging CPU vendor ID: " << vendor);
   firstInstructionSecurity_->cpuVendorIs(vendor);
}

void FirstInstructionSecuritySm::getBootGuardStatus() {
   TRACE7("void Sentrel::FirstInstructionSecuritySm::getBootGuardStatus()");
   auto &fis = *firstInstructionSecurity_;
   // Published first, so that a platform whose register cannot be read still
   // shows an (empty) key hash.
   fis.vendorSpecificIs(VendorSpecific{std::in_place_index<0>, String()});

   // Close-on-exec: the file stays open while BootGuardUtil runs.
   int const fd = open(Loom::sysrootPath(kMsrPath).c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      int const err = errno;
      TRACE2("Cannot open " << kMsrPath);
      if (err == ENOENT) {
         Loom::reasonIs(fis, kBootGuardFacts, String(kMsrPath) + " does not exist", Loom::kernelModuleHint("msr"));
      } else {
         Loom::reasonIs(fis, kBootGuardFacts, Loom::openFailure(kMsrPath, err), Loom::openFailureHint(err));
      }
      return;
   }
   FdCloser const closer(fd);
   auto const unreadable = [&](int err) {
      Loom::reasonIs(fis, kBootGuardFacts,
                     String("cannot read MSR 0x13A from ") + kMsrPath + ": " +
                        (err ? std::strerror(err) : "fewer than 8 bytes were read"));
   };
   if (lseek(fd, kBootGuardMsr, SEEK_SET) == -1) {
      int const err = errno;
      TRACE2("lseek fail errno: " << err);
      unreadable(err);
      return;
   }
   unsigned char bytes[8];
   errno = 0;
   if (read(fd, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes)) {
      int const err = errno;
      TRACE2("read fail errno: " << err);
      unreadable(err);
      return;
   }
   std::uint64_t msr = 0;
   for (std::size_t i = sizeof bytes; i-- > 0;) msr = (msr << 8) | bytes[i];
   if (!(msr & kBootGuardPresent)) return;

   fis.supportedIs(true);
   if (msr & kVerifiedBootEnforced) fis.verifiedbootEnabledIs(true);
   if (msr & kMeasuredBootActive) fis.measuredbootEnabledIs(true);

   String fused, why;
   if (runCmd("BootGuardUtil fuse --status", fused, &why)) {
      fis.systemFusedIs(fused == "True");
   } else {
      Loom::reasonIs(fis, {A::systemFused}, why);
   }
   String keyHash;
   if (runCmd("BootGuardUtil fuse --key-hash", keyHash, &why)) {
      if (keyHash == kDevConfigKeyHash) fis.devConfigIs(true);
      fis.vendorSpecificIs(VendorSpecific{std::in_place_index<0>, keyHash});
   } else {
      Loom::reasonIs(fis, {A::devConfig, A::vendorSpecific}, why);
   }
}

void FirstInstructionSecuritySm::getPsbStatus() {
   TRACE7("void Sentrel::FirstInstructionSecuritySm::getPsbStatus()");
   auto &fis = *firstInstructionSecurity_;
   VendorSpecific value{std::in_place_index<1>, ModelRevisionId{0, 0}};

   Loom::FileText const file = Loom::readSystemFile(kPsbStatusPath, kPsbStatusSize);
   if (file.error != 0) {
      TRACE2("Cannot open EFI variable file");
      bool efi = false;
      if (file.error == ENOENT && (Loom::statSystemPath("/sys/firmware/efi", &efi) != 0 || !efi)) {
         Loom::reasonIs(fis, kPsbFacts, "not booted through UEFI (/sys/firmware/efi does not exist), so there is no PsbStatus variable");
      } else if (file.error == ENOENT) {
         Loom::reasonIs(fis, kPsbFacts, "no PsbStatus variable: the firmware does not publish the Platform Secure Boot state");
      } else {
         Loom::reasonIs(fis, kPsbFacts, Loom::openFailure(kPsbStatusPath, file.error),
                        Loom::openFailureHint(file.error));
      }
      fis.vendorSpecificIs(value);
      return;
   }
   if (file.folder) {
      // A folder opens as a file does and reads nothing.
      TRACE2("Error, EFI variable file smaller than expected, Expected " << kPsbStatusSize
                                                                        << " bytes, but only 0 bytes were read");
      Loom::reasonIs(fis, kPsbFacts, Loom::readFailure(kPsbStatusPath, file));
      return;
   }
   std::string const &data = file.text;
   if (data.size() < kPsbStatusSize) {
      TRACE2("Error, EFI variable file smaller than expected, Expected "
             << kPsbStatusSize << " bytes, but only " << data.size() << " bytes were read");
      Loom::reasonIs(fis, kPsbFacts, "the PsbStatus variable holds " + std::to_string(data.size()) + " bytes, not 80");
      return;
   }
   if (file.tooLarge) {
      TRACE2("Error, EFI variable file larger than expected size " << kPsbStatusSize);
      Loom::reasonIs(fis, kPsbFacts, "the PsbStatus variable holds more than 80 bytes");
      return;
   }

   fis.supportedIs(true);
   auto const flags = static_cast<unsigned char>(data[kPsbFlagsByte]);
   // Bit 1 counts only on a platform that is enabled and fused.
   if ((flags & kPsbEnabledAndFused) == kPsbEnabledAndFused) {
      fis.verifiedbootEnabledIs(true);
      fis.systemFusedIs(true);
      if (flags & kPsbDevConfig) fis.devConfigIs(true);
   }
   auto const id = static_cast<unsigned char>(data[kPsbModelRevisionByte]);
   value = ModelRevisionId{static_cast<std::uint8_t>(id >> 4), static_cast<std::uint8_t>(id & 0x0F)};
   fis.vendorSpecificIs(value);
}

}  // namespace Sentrel
