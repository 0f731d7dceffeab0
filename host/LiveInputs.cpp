#include "host/LiveInputs.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/types/FirstInstructionSecurity.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/StateTree.h"
#include "Sentrel/types/TarnSecurebootStatus.h"
#include "host/JsonTree.h"
#include "host/StateFile.h"
#include "host/TpmSysfs.h"
#include "host/UsageError.h"
#include "host/evidence/Evidence.h"

namespace SentrelHost {

namespace {

using Sb = Tarn::Secureboot::Status;
using Defaults = Hardware::Sentrel::Config;

char const kEfi[] = "/sys/firmware/efi";
char const kEfivars[] = "/sys/firmware/efi/efivars";
char const kSecureBootVar[] = "/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
char const *const kTpm = kTpmFolder;
char const kTpmVersion[] = "/sys/class/tpm/tpm0/tpm_version_major";
char const kSecurityFs[] = "/sys/kernel/security";
char const *const kEventLog = kEventLogPath;
char const kCpuinfo[] = "/proc/cpuinfo";
// An efivarfs file: the variable's 4-byte attributes word, then its data.
std::size_t const kEfiAttributesSize = 4;

// A pseudo file system mounted at `path` is never empty.
bool mounted(char const *path, int &err) { return !Loom::listSystemDir(path, err).empty(); }

class Reader {
 public:
   explicit Reader(Ledger::EntityManager &em) : em_(em) {}

   void read() {
      defaults();
      auto sb = Sentrel::stateTreeEntity<Sb>(em_);
      std::uint16_t flags = 0;
      secureBoot(flags);
      measuredBoot(flags);
      if (sb) {
         sb->supportedIs(supported_);
         for (auto const &b : banks_) sb->enabledPcrBankIs(b);
         sb->statusFlagsIs(flags);
         // Last, as the writer on a switch does: readers wait for it.
         sb->readyIs(true);
      }
      // Reported once the values stand, so each reason holds the value it explains.
      for (auto &r : pending_) {
         if (r.type == &Sb::typeInfo()) r.entity = sb.ptr();
         if (r.type != &Sb::typeInfo() || sb) Loom::reasonSend(std::move(r));
      }
      virtualMachine();
   }

 private:
   // Why an input is unknown, about some bits of statusFlags or about other
   // facts of the secure boot status.
   void unknown(std::initializer_list<Sb::Attr::Number> attrs, std::uint64_t bits, String reason, String hint = {}) {
      pending_.push_back(
         {&Sb::typeInfo(), nullptr, {attrs.begin(), attrs.end()}, bits, std::move(reason), std::move(hint)});
   }

   // An unknown bit is published as the defaults expect, so that it neither
   // causes a warning nor hides the other bit's; off without defaults.
   void unknownBit(std::uint16_t &flags, std::uint16_t bit, bool onByDefault, bool setMeansOn) {
      bool const on = hasDefaults_ && onByDefault;
      if (on == setMeansOn) flags |= bit;
   }

   void defaults() {
      auto const *entry = Sentrel::stateTreeEntryOf(Defaults::typeInfo());
      Loom::FileText const r = Loom::readSystemFile(kDefaultsFile);
      if (r.error == ENOENT) {
         // No defaults: nothing to compare, which is known, not unknown.
         em_.entityDel(entry->path);
         return;
      }
      if (r.tooLarge) throw UsageError(String(kDefaultsFile) + ": " + r.problem());
      if (!r.ok()) {
         em_.entityDel(entry->path);
         Loom::reasonAbsent<Defaults>("manufacturing defaults unknown: " + Loom::readFailure(kDefaultsFile, r),
                                      Loom::openFailureHint(r.error));
         return;
      }
      // The operator's own file: a mistake in it stops the run, like one in --state.
      JsonError jerr;
      auto root = parseJson(r.text, jerr);
      auto at = [](std::size_t offset, String const &what) {
         return UsageError(String(kDefaultsFile) + ": byte " + std::to_string(offset) + ": " + what);
      };
      if (!root) throw at(jerr.offset, jerr.message);
      if (root->type != JsonNode::Object) {
         auto const name = [](unsigned a) { return "\"" + String(Defaults::typeInfo().attrs[a].name) + "\""; };
         throw at(root->offset, "expected an object with " + name(Defaults::Attr::secureBootEnabled) + " and " +
                                   name(Defaults::Attr::measuredBootEnabled));
      }
      auto config = Sentrel::stateTreeEntity<Defaults>(em_);
      if (!config) return;
      applyEntityObject(*config, *root, kDefaultsFile, "/");
      secureBootDefault_ = config->secureBootEnabled();
      measuredBootDefault_ = config->measuredBootEnabled();
      hasDefaults_ = true;
      config->configReadyIs(true);
   }

   void secureBoot(std::uint16_t &flags) {
      bool efiDir = false;
      if (Loom::statSystemPath(kEfi, &efiDir) != 0 || !efiDir) {
         // Not booted through UEFI: no secure boot at all.
         flags |= Sb::secureBootDisabledBit;
         return;
      }
      Loom::FileText const var = Loom::readSystemFile(kSecureBootVar, 64);
      if (var.error == ENOENT) {
         int err = 0;
         if (mounted(kEfivars, err)) {
            // A mounted efivarfs without the variable: the firmware has none.
            flags |= Sb::secureBootDisabledBit;
            return;
         }
         unknownBit(flags, Sb::secureBootDisabledBit, secureBootDefault_, false);
         if (err != 0 && err != ENOENT) {
            unknown({Sb::Attr::supported, Sb::Attr::statusFlags}, Sb::secureBootDisabledBit,
                    "secure boot state (bit 0) unknown: cannot read " + String(kEfivars) + ": " + std::strerror(err),
                    Loom::openFailureHint(err));
         } else {
            unknown({Sb::Attr::supported, Sb::Attr::statusFlags}, Sb::secureBootDisabledBit,
                    String("secure boot state (bit 0) unknown: efivarfs is not mounted at ") + kEfivars,
                    String("mount it: mount -t efivarfs efivarfs ") + kEfivars);
         }
         return;
      }
      supported_ = true;
      if (var.error != 0 || var.folder || var.text.size() != kEfiAttributesSize + 1) {
         unknownBit(flags, Sb::secureBootDisabledBit, secureBootDefault_, false);
         String const why = var.error != 0 || var.folder
                               ? Loom::readFailure(kSecureBootVar, var)
                               : "the SecureBoot variable holds " +
                                    (var.tooLarge ? String("more than 64") : std::to_string(var.text.size())) +
                                    " bytes, not 5";
         unknown({Sb::Attr::statusFlags}, Sb::secureBootDisabledBit, "secure boot state (bit 0) unknown: " + why,
                 Loom::openFailureHint(var.error));
         return;
      }
      if (var.text[kEfiAttributesSize] == 0) flags |= Sb::secureBootDisabledBit;
   }

   void measuredBoot(std::uint16_t &flags) {
      bool tpmDir = false;
      int const seen = Loom::statSystemPath(kTpm, &tpmDir);
      if (seen == ENOENT) return;  // no TPM: measured boot off, no banks
      Loom::FileText const version = Loom::readSystemFile(kTpmVersion, 64);
      bool tpm2 = false;
      if (!version.ok()) {
         unknownBit(flags, Sb::measuredBootEnabledBit, measuredBootDefault_, true);
         unknown({Sb::Attr::statusFlags}, Sb::measuredBootEnabledBit,
                 "measured boot state (bit 5) unknown: " + Loom::readFailure(kTpmVersion, version),
                 Loom::openFailureHint(version.error));
      } else {
         tpm2 = tpm2Present();
         if (tpm2) eventLog(flags);
      }
      banks(tpm2);
   }

   void eventLog(std::uint16_t &flags) {
      int const fd = open(Loom::sysrootPath(kEventLog).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd >= 0) {
         close(fd);
         flags |= Sb::measuredBootEnabledBit;
         return;
      }
      int const err = errno;
      int listErr = 0;
      if (err == ENOENT && mounted(kSecurityFs, listErr)) return;  // the firmware left no event log: off
      unknownBit(flags, Sb::measuredBootEnabledBit, measuredBootDefault_, true);
      if (err == ENOENT) {
         unknown({Sb::Attr::statusFlags}, Sb::measuredBootEnabledBit,
                 String("measured boot state (bit 5) unknown: securityfs is not mounted at ") + kSecurityFs,
                 String("mount it: mount -t securityfs securityfs ") + kSecurityFs);
      } else {
         unknown({Sb::Attr::statusFlags}, Sb::measuredBootEnabledBit,
                 "measured boot state (bit 5) unknown: " + Loom::openFailure(kEventLog, err),
                 Loom::openFailureHint(err));
      }
   }

   void banks(bool tpm2) {
      int err = 0;
      banks_ = sysfsPcrBanks(err);
      if (err != 0) {
         unknown({Sb::Attr::enabledPcrBank}, 0, "cannot read " + String(kTpm) + ": " + std::strerror(err),
                 Loom::openFailureHint(err));
      } else if (tpm2 && banks_.empty()) {
         unknown({Sb::Attr::enabledPcrBank}, 0, String("the kernel lists no pcr-<algorithm> folders under ") + kTpm,
                 "Linux 5.12 and later list the PCR banks there");
      }
   }

   // A guest sees its hypervisor's firmware, not the host's: said once, for
   // every first-instruction fact that stays unknown.
   static void virtualMachine() {
      String note;
      for (char const *marker : {"/.dockerenv", "/run/.containerenv"}) {
         if (Loom::statSystemPath(marker) == 0) {
            note = String("running in a container (") + marker +
                   " exists): the machine's devices and firmware variables may not be visible here";
         }
      }
      String const flags = firstCpuFlags();
      if ((" " + flags + " ").find(" hypervisor ") != String::npos) {
         // The stronger statement: a guest never sees the host's register.
         note = "running in a virtual machine (the CPU flags include hypervisor): first-instruction "
                "security is the host's and is not visible here";
      }
      if (!note.empty()) Loom::noteIs<Sentrel::FirstInstructionSecurity>(note);
   }

   // The flags of the first CPU in /proc/cpuinfo, empty if there are none.
   // Read in small pieces and no further: the kernel formats the file one CPU
   // at a time as it is read, and on a switch with many cores all of it
   // costs milliseconds.
   static String firstCpuFlags() {
      int const fd = Loom::openInputFile(Loom::sysrootPath(kCpuinfo));
      if (fd < 0) return {};
      String text = "\n";
      char chunk[1024];
      ssize_t n = 0;
      std::size_t line = String::npos;
      while (text.size() < (1 << 20) && (n = ::read(fd, chunk, sizeof chunk)) > 0) {
         text.append(chunk, static_cast<std::size_t>(n));
         if (line == String::npos) line = text.find("\nflags");
         if (line != String::npos && text.find('\n', line + 1) != String::npos) break;
      }
      close(fd);
      if (line == String::npos) return {};
      String const flags = text.substr(line + 1, text.find('\n', line + 1) - line - 1);
      auto const colon = flags.find(':');
      return colon == String::npos ? String() : flags.substr(colon + 1);
   }

   Ledger::EntityManager &em_;
   // Reasons waiting for their facts' values to stand.
   std::vector<Loom::ReasonRecord> pending_;
   std::vector<String> banks_;
   bool supported_ = false;
   bool hasDefaults_ = false;
   bool secureBootDefault_ = false;
   bool measuredBootDefault_ = false;
};

}  // namespace

void readLiveInputs(Ledger::EntityManager &em) { Reader(em).read(); }

bool tpm2Present() {
   Loom::FileText const version = Loom::readSystemFile(kTpmVersion, 64);
   return version.ok() && version.text.substr(0, version.text.find_first_of(" \t\r\n")) == "2";
}

}  // namespace SentrelHost
