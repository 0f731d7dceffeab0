#include "Sentrel/platform/Reason.h"

#include <cerrno>
#include <cstring>

#include "Sentrel/platform/ReadFile.h"

namespace Loom {

namespace {
std::function<void(ReasonRecord const &)> &sink() {
   static auto *s = new std::function<void(ReasonRecord const &)>;
   return *s;
}
}  // namespace

void reasonSinkIs(std::function<void(ReasonRecord const &)> s) { sink() = std::move(s); }

void reasonSend(ReasonRecord record) {
   if (sink()) sink()(record);
}

void reasonIs(ReasonRecord facts, String reason, String hint) {
   facts.reason = std::move(reason);
   facts.hint = std::move(hint);
   reasonSend(std::move(facts));
}

String openFailure(String const &file, int err) {
   if (err == EISDIR) return file + " is a folder, not a file";
   return "cannot open " + file + ": " + std::strerror(err);
}

String readFailure(String const &file, FileText const &read) {
   if (read.folder || read.tooLarge) return file + " " + read.problem();
   return openFailure(file, read.error);
}

String openFailureHint(int err) { return err == EACCES || err == EPERM ? "run as root" : ""; }

}  // namespace Loom

#include <sys/utsname.h>

namespace Loom {

String kernelModuleHint(char const *module) {
   // No /proc/modules: the kernel was built without module loading.
   if (statSystemPath("/proc/modules") != 0) {
      return String("this kernel cannot load modules and has no ") + module + " driver built in";
   }
   auto const disabled = readSystemFile("/proc/sys/kernel/modules_disabled", 64);
   if (disabled.ok() && disabled.text.starts_with('1')) {
      return String("module loading is disabled on this machine (kernel.modules_disabled=1): load ") + module +
             " at boot";
   }
   struct utsname u {};
   if (uname(&u) == 0) {
      String const dir = String("/lib/modules/") + u.release;
      bool isDir = false;
      if (statSystemPath(dir.c_str(), &isDir) == 0 && isDir) {
         auto const builtin = readSystemFile((dir + "/modules.builtin").c_str());
         auto const deps = readSystemFile((dir + "/modules.dep").c_str());
         String const file = String("/") + module + ".ko";
         bool const known = deps.text.find(file) != String::npos || builtin.text.find(file) != String::npos;
         if (deps.ok() && !known) return String("this kernel has no ") + module + " driver";
      }
   }
   return String("load the ") + module + " kernel module: modprobe " + module;
}

}  // namespace Loom
