#include "host/LiveInputs.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/TarnSecurebootStatus.h"
#include "host/Host.h"

namespace SentrelHost {

namespace {

char const kSecureBootVar[] = "/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
char const kTpm[] = "/sys/class/tpm/tpm0";
char const kTpmVersion[] = "/sys/class/tpm/tpm0/tpm_version_major";
char const kSecurityFs[] = "/sys/kernel/security";
char const kEventLog[] = "/sys/kernel/security/tpm0/binary_bios_measurements";
char const kDefaultsFile[] = "/etc/sentrel/defaults.json";

std::uint16_t const kSecureBootOff = 0x0001;
std::uint16_t const kMeasuredBootOn = 0x0020;
// An efivarfs file: the variable's 4-byte attributes word, then its data.
std::size_t const kEfiAttributesSize = 4;

// The whole of a file below the system root, or nullopt with `err` set.
std::optional<String> readFile(char const *path, int &err) {
   int const fd = open(Loom::sysrootPath(path).c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      err = errno;
      return std::nullopt;
   }
   String text;
   char chunk[4096];
   ssize_t n;
   while ((n = read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<std::size_t>(n));
   err = errno;
   close(fd);
   if (n < 0) return std::nullopt;
   return text;
}

// 0 when the path exists below the system root, else why it cannot be seen.
int statErrno(char const *path) {
   struct stat st;
   return stat(Loom::sysrootPath(path).c_str(), &st) == 0 ? 0 : errno;
}

class SecureBootReader {
 public:
   explicit SecureBootReader(std::vector<Diagnostic> &found) : found_(found) {}

   void fill(Tarn::Secureboot::Status &sb) {
      secureBoot(sb);
      tpm(sb);
      sb.statusFlagsIs(flags_);
      // Last, as the writer on a switch does: readers wait for it.
      sb.readyIs(true);
   }

 private:
   void add(std::initializer_list<char const *> attrs, String const &reason, String const &hint) {
      for (char const *a : attrs) found_.push_back({kSbStatus, a, reason, hint});
   }

   void secureBoot(Tarn::Secureboot::Status &sb) {
      int const seen = statErrno(kSecureBootVar);
      if (seen == ENOENT) {
         // No such variable in a mounted efivarfs: the firmware has no secure boot.
         if (auto p = efivarfsProblem()) add({"supported", "statusFlags"}, p->reason, p->hint);
         return;
      }
      if (seen != 0) {
         Finding const f = openFailure(kSecureBootVar, seen);
         add({"supported", "statusFlags"}, f.reason, f.hint);
         return;
      }
      sb.supportedIs(true);
      int err = 0;
      auto const data = readFile(kSecureBootVar, err);
      if (!data) {
         Finding const f = openFailure(kSecureBootVar, err);
         add({"statusFlags"}, "secure boot state (bit 0) unknown: " + f.reason, f.hint);
      } else if (data->size() <= kEfiAttributesSize) {
         add({"statusFlags"},
             "secure boot state (bit 0) unknown: the SecureBoot variable holds " + std::to_string(data->size()) +
                " bytes, no data byte",
             "");
      } else if ((*data)[kEfiAttributesSize] == 0) {
         flags_ |= kSecureBootOff;
      }
   }

   void tpm(Tarn::Secureboot::Status &sb) {
      int err = 0;
      auto const version = readFile(kTpmVersion, err);
      if (!version) {
         if (err == ENOENT && statErrno(kTpm) == ENOENT) return;  // no TPM
         Finding const f = openFailure(kTpmVersion, err);
         add({"statusFlags"}, "measured boot state (bit 5) unknown: " + f.reason, f.hint);
      }
      bool const tpm2 = version && version->substr(0, version->find_first_of(" \t\r\n")) == "2";
      if (tpm2) eventLog();
      banks(sb, tpm2);
   }

   void eventLog() {
      int const seen = statErrno(kEventLog);
      if (seen == 0) {
         flags_ |= kMeasuredBootOn;
      } else if (seen != ENOENT) {
         Finding const f = openFailure(kEventLog, seen);
         add({"statusFlags"}, "measured boot state (bit 5) unknown: " + f.reason, f.hint);
      } else if (!holdsEntries(kSecurityFs)) {
         add({"statusFlags"},
             String("measured boot state (bit 5) unknown: securityfs is not mounted at ") + kSecurityFs,
             String("mount it: mount -t securityfs securityfs ") + kSecurityFs);
      }
      // Otherwise the firmware left no event log: measured boot is off.
   }

   void banks(Tarn::Secureboot::Status &sb, bool tpm2) {
      std::error_code ec;
      for (auto const &e : std::filesystem::directory_iterator(Loom::sysrootPath(kTpm), ec)) {
         String const name = e.path().filename().string();
         if (name.starts_with("pcr-") && name.size() > 4) sb.enabledPcrBankIs(name.substr(4));
      }
      if (tpm2 && sb.enabledPcrBank().empty()) {
         add({"enabledPcrBank"}, String("the kernel lists no pcr-<algorithm> folders under ") + kTpm,
             "Linux 5.12 and later list the PCR banks there");
      }
   }

   std::vector<Diagnostic> &found_;
   std::uint16_t flags_ = 0;
};

String at(std::size_t offset, String const &problem) {
   return String(kDefaultsFile) + ": byte " + std::to_string(offset) + ": " + problem;
}

void fillDefaults(Ledger::EntityManager &em, std::vector<Diagnostic> &found) {
   int err = 0;
   auto const text = readFile(kDefaultsFile, err);
   if (!text) {
      em.entityDel(kDefaults);
      Finding const f = openFailure(kDefaultsFile, err);
      found.push_back({kDefaults, "",
                       "no manufacturing defaults (" + f.reason +
                          "), so secure boot and measured boot were not compared with them",
                       f.hint.empty() ? String("write them there, e.g. {\"secureBootEnabled\": true, "
                                               "\"measuredBootEnabled\": true}, or give them with --state")
                                      : f.hint});
      return;
   }
   // The operator's own file: a mistake in it stops the run, like one in --state.
   JsonError jerr;
   auto root = parseJson(*text, jerr);
   if (!root) throw UsageError(at(jerr.offset, jerr.message));
   if (root->type != JsonNode::Object) {
      throw UsageError(at(root->offset, "expected an object with \"secureBootEnabled\" and \"measuredBootEnabled\""));
   }
   auto config = Loom::ptrCast<Hardware::Sentrel::Config>(em.lookup(kDefaults));
   for (auto const &[key, value] : root->members) {
      void (Hardware::Sentrel::Config::*set)(bool) = nullptr;
      if (key.text == "secureBootEnabled") set = &Hardware::Sentrel::Config::secureBootEnabledIs;
      if (key.text == "measuredBootEnabled") set = &Hardware::Sentrel::Config::measuredBootEnabledIs;
      if (!set) throw UsageError(at(key.offset, "unknown member \"" + key.text + "\""));
      if (value.type != JsonNode::Bool) {
         throw UsageError(at(value.offset, key.text + ": expected true or false, not " + value.typeName()));
      }
      ((*config).*set)(value.boolean);
   }
   config->configReadyIs(true);
}

}  // namespace

std::vector<Diagnostic> fillLiveInputs(Ledger::EntityManager &em) {
   std::vector<Diagnostic> found;
   if (auto sb = em.lookup(kSbStatus)) SecureBootReader(found).fill(*Loom::ptrCast<Tarn::Secureboot::Status>(sb));
   if (em.lookup(kDefaults)) fillDefaults(em, found);
   return found;
}

}  // namespace SentrelHost
