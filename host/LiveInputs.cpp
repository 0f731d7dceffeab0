#include "host/LiveInputs.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/TarnSecurebootStatus.h"
#include "host/UsageError.h"

namespace SentrelHost {

namespace {

using Sb = Tarn::Secureboot::Status;

char const kEfi[] = "/sys/firmware/efi";
char const kEfivars[] = "/sys/firmware/efi/efivars";
char const kSecureBootVar[] = "/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
char const kTpm[] = "/sys/class/tpm/tpm0";
char const kTpmVersion[] = "/sys/class/tpm/tpm0/tpm_version_major";
char const kSecurityFs[] = "/sys/kernel/security";
char const kEventLog[] = "/sys/kernel/security/tpm0/binary_bios_measurements";
char const kCpuinfo[] = "/proc/cpuinfo";
char const kFis[] = "sentrel/firstInstructionSecurity";
// An efivarfs file: the variable's 4-byte attributes word, then its data.
std::size_t const kEfiAttributesSize = 4;

JsonNode boolNode(bool b) {
   JsonNode n(JsonNode::Bool);
   n.boolean = b;
   return n;
}
JsonNode uintNode(std::uint64_t v) {
   JsonNode n(JsonNode::Uint);
   n.uint = v;
   n.text = std::to_string(v);
   return n;
}
JsonNode strNode(String s) {
   JsonNode n(JsonNode::Str);
   n.text = std::move(s);
   return n;
}
void member(JsonNode &object, String const &key, JsonNode value) {
   object.members.emplace_back(strNode(key), std::move(value));
}

// The names in a folder below the system root, or the errno of listing it.
std::vector<String> listDir(char const *path, int &err) {
   std::vector<String> names;
   err = 0;
   DIR *d = opendir(Loom::sysrootPath(path).c_str());
   if (!d) {
      err = errno;
      return names;
   }
   while (dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
   }
   closedir(d);
   return names;
}

// A pseudo file system mounted at `path` is never empty.
bool mounted(char const *path, int &err) { return !listDir(path, err).empty(); }

class Reader {
 public:
   LiveInputs out;

   void read() {
      defaults();
      JsonNode sb(JsonNode::Object);
      std::uint16_t flags = 0;
      secureBoot(sb, flags);
      measuredBoot(sb, flags);
      member(sb, "statusFlags", uintNode(flags));
      // Last, as the writer on a switch does: readers wait for it.
      member(sb, "ready", boolNode(true));
      JsonNode entities(JsonNode::Object);
      member(entities, kSbStatus, std::move(sb));
      member(entities, kDefaults, std::move(defaults_));
      out.document = JsonNode(JsonNode::Object);
      member(out.document, "entities", std::move(entities));
      virtualMachine();
   }

 private:
   // Why `input` is unknown; both bits share statusFlags, so their reasons
   // are joined into one for it.
   void unknown(char const *input, std::initializer_list<char const *> attrs, String reason, String hint = {}) {
      out.unknownInputs[input] = {reason, hint};
      for (char const *a : attrs) {
         auto it = std::find_if(out.reasons.begin(), out.reasons.end(),
                                [&](auto const &r) { return r.attributes.front() == a; });
         if (it == out.reasons.end()) {
            out.reasons.push_back({nullptr, kSbStatus, {a}, reason, hint});
         } else {
            it->reason += "; " + reason;
            if (!hint.empty()) it->hint += (it->hint.empty() ? "" : "; ") + hint;
         }
      }
   }

   // An unknown bit is published as the defaults expect, so that it neither
   // causes a warning nor hides the other bit's; off without defaults.
   void unknownBit(std::uint16_t &flags, std::uint16_t bit, bool onByDefault, bool setMeansOn) {
      bool const on = hasDefaults_ && onByDefault;
      if (on == setMeansOn) flags |= bit;
   }

   void defaults() {
      Loom::FileText const r = Loom::readSystemFile(kDefaultsFile);
      if (r.error == ENOENT) {
         // No defaults: nothing to compare, which is known, not unknown.
         defaults_ = JsonNode(JsonNode::Null);
         return;
      }
      if (r.tooLarge) throw UsageError(String(kDefaultsFile) + ": " + r.problem());
      if (!r.ok()) {
         defaults_ = JsonNode(JsonNode::Null);
         String const why = "manufacturing defaults unknown: " + Loom::readFailure(kDefaultsFile, r);
         out.reasons.push_back({nullptr, kDefaults, {}, why, Loom::openFailureHint(r.error)});
         out.unknownInputs["manufacturing defaults"] = {why, Loom::openFailureHint(r.error)};
         return;
      }
      // The operator's own file: a mistake in it stops the run, like one in --state.
      JsonError jerr;
      auto root = parseJson(r.text, jerr);
      if (!root) throw UsageError(String(kDefaultsFile) + ": byte " + std::to_string(jerr.offset) + ": " + jerr.message);
      if (root->type != JsonNode::Object) {
         throw UsageError(String(kDefaultsFile) + ": byte " + std::to_string(root->offset) +
                          ": expected an object with \"secureBootEnabled\" and \"measuredBootEnabled\"");
      }
      for (auto const &[key, value] : root->members) {
         if (value.type != JsonNode::Bool) continue;  // the generic apply names the problem
         if (key.text == "secureBootEnabled") secureBootDefault_ = value.boolean;
         if (key.text == "measuredBootEnabled") measuredBootDefault_ = value.boolean;
      }
      hasDefaults_ = true;
      defaults_ = std::move(*root);
      member(defaults_, "configReady", boolNode(true));
   }

   void secureBoot(JsonNode &sb, std::uint16_t &flags) {
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
            unknown("secure boot", {"supported", "statusFlags"}, "secure boot state (bit 0) unknown: cannot read " + String(kEfivars) +
                                                     ": " + std::strerror(err),
                    Loom::openFailureHint(err));
         } else {
            unknown("secure boot", {"supported", "statusFlags"},
                    String("secure boot state (bit 0) unknown: efivarfs is not mounted at ") + kEfivars,
                    String("mount it: mount -t efivarfs efivarfs ") + kEfivars);
         }
         return;
      }
      member(sb, "supported", boolNode(true));
      if (var.error != 0 || var.folder || var.text.size() != kEfiAttributesSize + 1) {
         unknownBit(flags, Sb::secureBootDisabledBit, secureBootDefault_, false);
         String const why = var.error != 0 || var.folder
                               ? Loom::readFailure(kSecureBootVar, var)
                               : "the SecureBoot variable holds " +
                                    (var.tooLarge ? String("more than 64") : std::to_string(var.text.size())) +
                                    " bytes, not 5";
         unknown("secure boot", {"statusFlags"}, "secure boot state (bit 0) unknown: " + why,
                 Loom::openFailureHint(var.error));
         return;
      }
      if (var.text[kEfiAttributesSize] == 0) flags |= Sb::secureBootDisabledBit;
   }

   void measuredBoot(JsonNode &sb, std::uint16_t &flags) {
      bool tpmDir = false;
      int const seen = Loom::statSystemPath(kTpm, &tpmDir);
      if (seen == ENOENT) return;  // no TPM: measured boot off, no banks
      Loom::FileText const version = Loom::readSystemFile(kTpmVersion, 64);
      bool tpm2 = false;
      if (!version.ok()) {
         unknownBit(flags, Sb::measuredBootEnabledBit, measuredBootDefault_, true);
         unknown("measured boot", {"statusFlags"},
                 "measured boot state (bit 5) unknown: " + Loom::readFailure(kTpmVersion, version),
                 Loom::openFailureHint(version.error));
      } else {
         tpm2 = version.text.substr(0, version.text.find_first_of(" \t\r\n")) == "2";
         if (tpm2) eventLog(flags);
      }
      banks(sb, tpm2);
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
         unknown("measured boot", {"statusFlags"},
                 String("measured boot state (bit 5) unknown: securityfs is not mounted at ") + kSecurityFs,
                 String("mount it: mount -t securityfs securityfs ") + kSecurityFs);
      } else {
         unknown("measured boot", {"statusFlags"}, "measured boot state (bit 5) unknown: " + Loom::openFailure(kEventLog, err),
                 Loom::openFailureHint(err));
      }
   }

   void banks(JsonNode &sb, bool tpm2) {
      int err = 0;
      JsonNode list(JsonNode::Array);
      for (auto const &name : listDir(kTpm, err)) {
         if (name.starts_with("pcr-") && name.size() > 4) list.items.push_back(strNode(name.substr(4)));
      }
      if (err != 0) {
         unknown("enabled PCR banks", {"enabledPcrBank"}, "cannot read " + String(kTpm) + ": " + std::strerror(err),
                 Loom::openFailureHint(err));
      } else if (tpm2 && list.items.empty()) {
         unknown("enabled PCR banks", {"enabledPcrBank"}, String("the kernel lists no pcr-<algorithm> folders under ") + kTpm,
                 "Linux 5.12 and later list the PCR banks there");
      }
      member(sb, "enabledPcrBank", std::move(list));
   }

   // A guest sees its hypervisor's firmware, not the host's: said once, for
   // every first-instruction fact that stays unknown.
   void virtualMachine() {
      for (char const *marker : {"/.dockerenv", "/run/.containerenv"}) {
         if (Loom::statSystemPath(marker) == 0) {
            out.notes[kFis] = String("running in a container (") + marker +
                              " exists): the machine's devices and firmware variables may not be visible here";
         }
      }
      String const flags = firstCpuFlags();
      if ((" " + flags + " ").find(" hypervisor ") != String::npos) {
         // The stronger statement: a guest never sees the host's register.
         out.notes[kFis] = "running in a virtual machine (the CPU flags include hypervisor): first-instruction "
                           "security is the host's and is not visible here";
      }
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

   JsonNode defaults_;
   bool hasDefaults_ = false;
   bool secureBootDefault_ = false;
   bool measuredBootDefault_ = false;
};

String onOff(bool on) { return on ? "on" : "off"; }

}  // namespace

bool inInputsBlock(String const &entity, String const &attribute) {
   if (entity == kDefaults) return attribute.empty();
   return entity == kSbStatus && (attribute == "supported" || attribute == "statusFlags" || attribute == "enabledPcrBank");
}

String inputsText(Ledger::EntityManager const &em, std::map<String, std::pair<String, String>> const &unknown) {
   std::vector<std::pair<String, String>> lines;
   auto sb = Loom::ptrCast<Sb const>(em.lookup(kSbStatus));
   if (!sb) {
      lines = {{"secure boot", "unknown (tarn/sb/status is absent)"},
               {"measured boot", "unknown (tarn/sb/status is absent)"},
               {"enabled PCR banks", "unknown (tarn/sb/status is absent)"}};
   } else if (!sb->ready()) {
      lines = {{"secure boot", "unknown (tarn/sb/status is not filled in)"},
               {"measured boot", "unknown (tarn/sb/status is not filled in)"},
               {"enabled PCR banks", "unknown (tarn/sb/status is not filled in)"}};
   } else {
      String banks;
      for (auto const &b : sb->enabledPcrBank()) banks += (banks.empty() ? "" : ", ") + b;
      lines = {{"secure boot", onOff(!(sb->statusFlags() & Sb::secureBootDisabledBit))},
               {"measured boot", onOff(sb->statusFlags() & Sb::measuredBootEnabledBit)},
               {"enabled PCR banks", banks.empty() ? "none" : banks}};
   }
   auto config = Loom::ptrCast<Hardware::Sentrel::Config const>(em.lookup(kDefaults));
   if (!config) {
      lines.push_back({"manufacturing defaults", "none: nothing is compared with them"});
   } else if (!config->configReady()) {
      lines.push_back({"manufacturing defaults", "not filled in: nothing is compared with them"});
   } else {
      lines.push_back({"manufacturing defaults", "secure boot " + onOff(config->secureBootEnabled()) +
                                                    ", measured boot " + onOff(config->measuredBootEnabled())});
   }
   String out;
   for (auto const &[label, value] : lines) {
      String const pad(24 - label.size(), ' ');
      auto u = unknown.find(label);
      if (u == unknown.end()) {
         out += "  " + label + pad + value + "\n";
         continue;
      }
      out += "  " + label + pad + "unknown\n";
      String const indent(26, ' ');
      out += indent + "why:  " + u->second.first + "\n";
      if (!u->second.second.empty()) out += indent + "hint: " + u->second.second + "\n";
   }
   return out;
}

LiveInputs readLiveInputs() {
   Reader r;
   r.read();
   return std::move(r.out);
}

}  // namespace SentrelHost
