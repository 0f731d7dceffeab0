#include "host/Diagnostics.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/types/StateTree.h"

namespace SentrelHost {

namespace {

char const kVersions[] = "sentrel/measuredBootVersion";
char const kFis[] = "sentrel/firstInstructionSecurity";
char const kFeatures[] = "tarn/features/status";
char const kPcrConfig[] = "tarn/pcrConfig/status";

char const kMsr[] = "/dev/cpu/0/msr";
char const kEfi[] = "/sys/firmware/efi";
char const kEfivars[] = "/sys/firmware/efi/efivars";
char const kPsbStatus[] = "/sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01";
int const kPsbStatusSize = 80;

char const kNotCompared[] = "so secure boot and measured boot were not compared with the manufacturing defaults";

using Attrs = std::initializer_list<char const *>;

bool falsy(Loom::Value const &v) {
   return std::visit(
      [](auto const &x) -> bool {
         using T = std::decay_t<decltype(x)>;
         if constexpr (std::is_same_v<T, bool>) {
            return !x;
         } else if constexpr (std::is_same_v<T, std::uint64_t>) {
            return x == 0;
         } else if constexpr (std::is_same_v<T, Loom::VariantValue>) {
            return x.text.empty() &&
                   std::all_of(x.fields.begin(), x.fields.end(), [](auto const &f) { return f.second == 0; });
         } else if constexpr (std::is_same_v<T, Loom::Object const *>) {
            return x == nullptr;
         } else {
            return x.empty();
         }
      },
      v);
}

// 0 when the file opens now, else why it does not.
int openErrno(String const &path) {
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) return errno;
   close(fd);
   return 0;
}

bool isDir(char const *path) {
   struct stat st;
   return stat(Loom::sysrootPath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

String commandProblem(String const &command, int code) {
   String const name = command.substr(0, command.find(' '));
   if (code == 127) return name + " is not installed (not found in PATH)";
   if (code == 126) return name + " cannot be run (not an executable, or permission denied)";
   if (code > 128) return command + " was ended by signal " + std::to_string(code - 128);
   return command + " failed with exit code " + std::to_string(code);
}

// Whether the CPU runs under a hypervisor: the "hypervisor" flag of
// /proc/cpuinfo, read through the system root (running lscpu again would
// double the cost of a run).
std::optional<String> hypervisor() {
   std::ifstream cpuinfo(Loom::sysrootPath("/proc/cpuinfo"));
   String line;
   while (std::getline(cpuinfo, line)) {
      if (!line.starts_with("flags")) continue;
      auto const colon = line.find(':');
      if (colon != String::npos && (" " + line.substr(colon + 1) + " ").find(" hypervisor ") != String::npos) {
         return "the CPU flags include hypervisor";
      }
   }
   return std::nullopt;
}

class Diagnosis {
 public:
   Diagnosis(Ledger::EntityManager const &em, std::vector<Loom::TraceRecord> const &traces)
       : em_(em), traces_(traces) {}

   void versions() {
      if (auto const *r = last("readTarnMeasuredBootVersion")) {
         if (r->text == "Cannot open Tarn measured boot version file") {
            fileProblem(kVersions, {"tarn"}, "tarnVersionFilePath");
         } else if (r->text == "Cannot read Tarn measured boot version") {
            add(kVersions, {"tarn"}, text(kVersions, "tarnVersionFilePath") +
                                        " is empty or its first line is 64 characters or longer", "");
         }
      }
      if (auto const *r = last("readVexoMeasuredBootVersion")) {
         String const path = text(kVersions, "vexoVersionFilePath");
         if (r->text == "Cannot find Vexo measured boot version file") {
            if (openErrno(path) != 0) {
               fileProblem(kVersions, {"vexo"}, "vexoVersionFilePath");
            } else {
               add(kVersions, {"vexo"}, path + " is not valid JSON", "");
            }
         } else if (r->text == "Cannot find Vexo measured boot version in json file") {
            add(kVersions, {"vexo"}, path + " has no \"measuredBootVersion\" member", "");
         }
      }
   }

   void features() {
      auto const *r = last("getRevisionFromFeaturesFile");
      if (r && r->text == "Cannot open Tarn features file") {
         fileProblem(kFeatures, {"featureRev", "sbOutdated", "pcrMultibankSupported", "measuredbootSupported"},
                     "featuresFilePath");
      }
   }

   void pcrConfig() {
      auto cannotOpen = [](Loom::TraceRecord const *r) { return r && r->text.starts_with("Cannot open "); };
      if (cannotOpen(last("readRequiredPcrBank"))) {
         fileProblem(kPcrConfig, {"requiredPcrBank"}, "requiredPcrBankFilePath");
      }
      // Its trace names the required-bank file whatever failed: the attribute
      // names the file that did.
      if (cannotOpen(last("readConfiguredPcrBank"))) {
         fileProblem(kPcrConfig, {"configuredPcrBank"}, "configuredPcrBankFilePath");
      }
      auto const *r = last("checkPcrConfigErrorLog");
      if (r && r->text == "Cannot open Tarn PCR config error log file") {
         fileProblem(kPcrConfig, {"requiredPcrNotConfigured", "requiredPcrNotEnabled", "pcrConfigFoundOnTpm12"},
                     "errorLogFilePath");
      }
   }

   void firstInstructionSecurity() {
      String const lscpuFailed = "Command lscpu return error code: ";
      auto const *vendorStep = lastWhere([&](Loom::TraceRecord const &r) {
         return is(r, "getCpuVendorId") || (is(r, "runCmd") && r.text.starts_with(lscpuFailed));
      });
      if (!vendorStep) return;  // switched off: nothing was read
      Attrs const all{"cpuVendor",           "supported", "systemFused",   "verifiedbootEnabled",
                      "measuredbootEnabled", "devConfig", "vendorSpecific"};
      if (is(*vendorStep, "runCmd")) {
         int const code = std::atoi(vendorStep->text.c_str() + lscpuFailed.size());
         add(kFis, all, commandProblem("lscpu", code), code == 127 ? "install util-linux, which provides lscpu" : "");
         return;
      }
      if (vendorStep->text == "Cannot find vendor ID in lscpu") {
         add(kFis, all, "lscpu prints no \"Vendor ID:\" line", "");
      }

      Attrs const facts{"supported",           "systemFused", "verifiedbootEnabled",
                        "measuredbootEnabled", "devConfig",   "vendorSpecific"};
      if (anyFalsy(kFis, facts)) {
         if (auto vm = hypervisor()) {
            add(kFis, facts,
                "running in a virtual machine (" + *vm +
                   "): first-instruction security is the host's and is not visible here",
                "run sentrel on the host itself");
         }
      }
      bootGuard();
      psb();
   }

   void configCheck() {
      auto const *r = last("checkConfigurationStatus");
      if (!r) return;
      if (r->text == "defaultSentrelStatus or sbStatus is null, skipping") {
         add(kSbStatus, {""}, String("absent, ") + kNotCompared, "");
         add(kDefaults, {""}, String("absent, ") + kNotCompared, "");
      } else if (r->text == "defaultSentrelStatus or sbStatus is not ready, skipping") {
         String const notFilled = String("not filled in, ") + kNotCompared;
         add(kSbStatus, {"ready"}, notFilled, "run with --live, or give it with --state");
         add(kDefaults, {"configReady"}, notFilled, "run with --live, or give it with --state");
      }
   }

   std::vector<Diagnostic> found;

 private:
   static bool is(Loom::TraceRecord const &r, char const *function) { return std::strcmp(r.function, function) == 0; }

   Loom::TraceRecord const *lastWhere(std::function<bool(Loom::TraceRecord const &)> const &pred) const {
      auto it = std::find_if(traces_.rbegin(), traces_.rend(), pred);
      return it == traces_.rend() ? nullptr : &*it;
   }
   Loom::TraceRecord const *last(char const *function) const {
      return lastWhere([function](Loom::TraceRecord const &r) { return is(r, function); });
   }
   // The exit code of the last failure of `command` that the runner traced.
   std::optional<int> commandFailure(String const &command) const {
      String const prefix = "Command " + command + " return error code: ";
      auto const *r = lastWhere([&](Loom::TraceRecord const &t) { return t.text.starts_with(prefix); });
      if (!r) return std::nullopt;
      return std::atoi(r->text.c_str() + prefix.size());
   }

   String text(char const *entity, char const *attr) const {
      auto e = em_.lookup(entity);
      auto const *a = e ? e->typeData().attr(attr) : nullptr;
      if (!a) return {};
      auto v = a->get(*e);
      auto const *s = std::get_if<String>(&v);
      return s ? *s : String();
   }
   bool anyFalsy(char const *entity, Attrs attrs) const {
      auto e = em_.lookup(entity);
      if (!e) return false;
      return std::any_of(attrs.begin(), attrs.end(), [&](char const *n) {
         auto const *a = e->typeData().attr(n);
         return a && falsy(a->get(*e));
      });
   }

   void add(char const *entity, Attrs attrs, String const &reason, String const &hint) {
      for (char const *a : attrs) found.push_back({entity, a, reason, hint});
   }

   // An input file named by a path attribute: not under the system root.
   void fileProblem(char const *entity, Attrs attrs, char const *pathAttr) {
      String const path = text(entity, pathAttr);
      String const elsewhere = "set " + String(pathAttr) + " with --state if the file is elsewhere";
      if (path.empty()) {
         add(entity, attrs, String(pathAttr) + " names no file", elsewhere);
         return;
      }
      int const err = openErrno(path);
      if (err == 0) {
         add(entity, attrs, "cannot open " + path, "");
         return;
      }
      Finding const f = openFailure(path, err);
      add(entity, attrs, f.reason, err == ENOENT ? elsewhere : f.hint);
   }

   void bootGuard() {
      Attrs const facts{"supported",           "systemFused", "verifiedbootEnabled",
                        "measuredbootEnabled", "devConfig",   "vendorSpecific"};
      auto const *r = last("getBootGuardStatus");
      if (r && r->text == String("Cannot open ") + kMsr) {
         int const err = openErrno(Loom::sysrootPath(kMsr));
         if (err == ENOENT) {
            add(kFis, facts, String(kMsr) + " does not exist", "load the msr kernel module: modprobe msr");
         } else {
            Finding const f = err ? openFailure(kMsr, err) : Finding{String("cannot open ") + kMsr, ""};
            add(kFis, facts, f.reason, f.hint);
         }
         return;
      }
      for (char const *prefix : {"lseek fail errno: ", "read fail errno: "}) {
         if (!r || !r->text.starts_with(prefix)) continue;
         int const err = std::atoi(r->text.c_str() + std::strlen(prefix));
         add(kFis, facts,
             String("cannot read MSR 0x13A from ") + kMsr + ": " +
                (err ? std::strerror(err) : "fewer than 8 bytes were read"),
             "");
         return;
      }
      if (auto code = commandFailure("BootGuardUtil fuse --status")) {
         add(kFis, {"systemFused"}, commandProblem("BootGuardUtil fuse --status", *code), "");
      }
      if (auto code = commandFailure("BootGuardUtil fuse --key-hash")) {
         add(kFis, {"devConfig", "vendorSpecific"}, commandProblem("BootGuardUtil fuse --key-hash", *code), "");
      }
   }

   void psb() {
      // Measured boot is never reported on these platforms: no reason for it.
      Attrs const facts{"supported", "systemFused", "verifiedbootEnabled", "devConfig", "vendorSpecific"};
      auto const *r = last("getPsbStatus");
      if (!r) return;
      String const smaller = "Error, EFI variable file smaller than expected";
      if (r->text == "Cannot open EFI variable file") {
         if (auto p = efivarfsProblem()) {
            add(kFis, facts, p->reason, p->hint);
            return;
         }
         int const err = openErrno(Loom::sysrootPath(kPsbStatus));
         if (err == ENOENT) {
            add(kFis, facts, "no PsbStatus variable: the firmware does not publish the Platform Secure Boot state", "");
         } else {
            Finding const f = err ? openFailure(kPsbStatus, err) : Finding{String("cannot open ") + kPsbStatus, ""};
            add(kFis, facts, f.reason, f.hint);
         }
      } else if (r->text.starts_with(smaller)) {
         auto const only = r->text.find("but only ");
         String const n = only == String::npos ? "fewer" : std::to_string(std::atoi(r->text.c_str() + only + 9));
         add(kFis, facts, "the PsbStatus variable holds " + n + " bytes, not 80", "");
      } else if (r->text.starts_with("Error, EFI variable file larger than expected size")) {
         struct stat st;
         bool const sized = stat(Loom::sysrootPath(kPsbStatus).c_str(), &st) == 0 && st.st_size > kPsbStatusSize;
         add(kFis, facts,
             "the PsbStatus variable holds " + (sized ? std::to_string(st.st_size) : String("more than 80")) +
                " bytes, not 80",
             "");
      } else if (r->text == "Cannot read EFI variable file") {
         add(kFis, facts, String("cannot read ") + kPsbStatus, "");
      }
   }

   Ledger::EntityManager const &em_;
   std::vector<Loom::TraceRecord> const &traces_;
};

// Where a diagnostic stands in the report: state tree order, then the
// attribute's order in its type, the whole entity first.
std::size_t rank(Diagnostic const &d) {
   auto const &tree = Sentrel::stateTree();
   for (std::size_t i = 0; i < tree.size(); ++i) {
      if (d.entity != tree[i].path) continue;
      std::size_t a = 0;
      if (auto const *type = Loom::findType(tree[i].typeName); type && !d.attribute.empty()) {
         while (a < type->attrs.size() && type->attrs[a].name != d.attribute) ++a;
         ++a;
      }
      return i * 1000 + a;
   }
   return tree.size() * 1000;
}

}  // namespace

Finding openFailure(String const &shown, int err) {
   if (err == ENOENT) return {shown + " does not exist", ""};
   if (err == EACCES || err == EPERM) return {"permission denied on " + shown, "run as root"};
   return {"cannot open " + shown + ": " + std::strerror(err), ""};
}

std::optional<Finding> efivarfsProblem() {
   if (!isDir(kEfi)) return Finding{String("not booted through UEFI: ") + kEfi + " does not exist", ""};
   if (!holdsEntries(kEfivars)) {
      return Finding{String("efivarfs is not mounted at ") + kEfivars,
                     String("mount it: mount -t efivarfs efivarfs ") + kEfivars};
   }
   return std::nullopt;
}

bool holdsEntries(char const *dir) {
   std::error_code ec;
   std::filesystem::directory_iterator it(Loom::sysrootPath(dir), ec);
   return !ec && it != std::filesystem::directory_iterator();
}

std::vector<Diagnostic> diagnose(Ledger::EntityManager const &em, std::vector<Loom::TraceRecord> const &traces,
                                 std::vector<Diagnostic> const &live) {
   Diagnosis d(em, traces);
   d.versions();
   d.firstInstructionSecurity();
   d.features();
   d.pcrConfig();
   d.configCheck();

   std::vector<Diagnostic> out = live;
   for (auto const &c : d.found) {
      // The first reason for a fact wins: the live inputs', then the more
      // fundamental ones, which come first.
      bool const known = std::any_of(out.begin(), out.end(), [&](Diagnostic const &o) {
         return o.entity == c.entity && o.attribute == c.attribute;
      });
      if (known) continue;
      auto e = em.lookup(c.entity);
      if (c.attribute.empty() ? e != nullptr : e == nullptr) continue;
      // A later run may have read what an earlier one could not.
      if (auto const *a = e ? e->typeData().attr(c.attribute) : nullptr; a && !falsy(a->get(*e))) continue;
      out.push_back(c);
   }
   std::stable_sort(out.begin(), out.end(), [](auto const &a, auto const &b) { return rank(a) < rank(b); });
   return out;
}

}  // namespace SentrelHost
