#include "FuzzSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/Toggle.h"
#include "Sentrel/types/StateTree.h"

namespace SentrelFuzz {

namespace {
// The scratch folder, removed with everything in it when the process exits.
struct Scratch {
   Scratch() {
      String tmpl = (std::filesystem::temp_directory_path() / "sentrel-fuzz-XXXXXX").string();
      if (!mkdtemp(tmpl.data())) std::abort();
      path = tmpl;
      std::filesystem::create_directories(path + "/bin");
      std::filesystem::create_directories(path + "/toggles");
      setenv("PATH", (path + "/bin:" + std::getenv("PATH")).c_str(), 1);
      Loom::sysrootIs(path);
      Loom::toggleDirIs(path + "/toggles");
      Loom::logSyslogIs(false, nullptr);
   }
   Scratch(Scratch const &) = delete;
   Scratch &operator=(Scratch const &) = delete;
   ~Scratch() {
      std::error_code ec;
      std::filesystem::remove_all(path, ec);
   }
   String path;
};
}  // namespace

String const &scratch() {
   static Scratch const dir;
   return dir.path;
}

String put(String const &name, String const &content) {
   String const path = scratch() + "/" + name;
   std::filesystem::create_directories(std::filesystem::path(path).parent_path());
   std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
   return path;
}

void command(String const &name, String const &body) {
   String const path = put("bin/" + name, "#!/bin/sh\n" + body);
   chmod(path.c_str(), 0755);
}

Ptr<Ledger::EntityManager> freshLedger() {
   auto em = Loom::make<Ledger::EntityManager>();
   Sentrel::stateTreeSeed(*em);
   return em;
}

}  // namespace SentrelFuzz
