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
String makeScratch() {
   String tmpl = (std::filesystem::temp_directory_path() / "sentrel-fuzz-XXXXXX").string();
   if (!mkdtemp(tmpl.data())) std::abort();
   std::filesystem::create_directories(tmpl + "/bin");
   std::filesystem::create_directories(tmpl + "/toggles");
   setenv("PATH", (tmpl + "/bin:" + std::getenv("PATH")).c_str(), 1);
   Loom::sysrootIs(tmpl);
   Loom::toggleDirIs(tmpl + "/toggles");
   Loom::logSyslogIs(false, nullptr);
   std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(scratch(), ec);
   });
   return tmpl;
}
}  // namespace

String const &scratch() {
   static String const dir = makeScratch();
   return dir;
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
