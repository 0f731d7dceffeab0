#include "BenchSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Sentrel/platform/Log.h"
#include "Sentrel/platform/Sysroot.h"
#include "Sentrel/platform/Toggle.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/MeasuredBootVersion.h"
#include "Sentrel/types/StateTree.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace SentrelBench {

ScratchDir::ScratchDir() {
   String tmpl = (std::filesystem::temp_directory_path() / "sentrel-bench-XXXXXX").string();
   if (!mkdtemp(tmpl.data())) std::abort();
   path_ = tmpl;
}

ScratchDir::~ScratchDir() {
   std::error_code ec;
   std::filesystem::remove_all(path_, ec);
}

String ScratchDir::file(String const &name, String const &content) const {
   std::filesystem::path p = std::filesystem::path(path_) / name;
   std::filesystem::create_directories(p.parent_path());
   std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
   return p.string();
}

String sampleSwitch(char const *name) { return String(SENTREL_SOURCE_DIR "/examples/switch/") + name; }

void useSampleSwitch() {
   static bool const done = [] {
      char const *path = std::getenv("PATH");
      setenv("PATH", (sampleSwitch("intel/bin") + ":" + (path ? path : "")).c_str(), 1);
      Loom::sysrootIs(sampleSwitch("intel/root"));
      Loom::toggleDirIs(sampleSwitch("toggles"));
      Loom::logSyslogIs(false, nullptr);
      return true;
   }();
   (void)done;
}

namespace {
template <class T>
Ptr<T> at(Ledger::EntityManager const &em, char const *path) {
   return Loom::ptrCast<T>(em.lookup(path));
}
}  // namespace

Ptr<Ledger::EntityManager> sampleLedger(String const &featuresFile) {
   auto em = Loom::make<Ledger::EntityManager>();
   Sentrel::stateTreeSeed(*em);
   auto mbv = at<Sentrel::MeasuredBootVersion>(*em, "sentrel/measuredBootVersion");
   mbv->tarnVersionFilePathIs(sampleSwitch("tarn/measured-boot-version"));
   mbv->vexoVersionFilePathIs(sampleSwitch("vexo/measured-boot.json"));
   at<Tarn::Features::Status>(*em, "tarn/features/status")->featuresFilePathIs(featuresFile);
   auto pcr = at<Tarn::PcrConfig::Status>(*em, "tarn/pcrConfig/status");
   pcr->requiredPcrBankFilePathIs(sampleSwitch("vexo/required-pcr-banks"));
   pcr->configuredPcrBankFilePathIs(sampleSwitch("tarn/boot-config"));
   pcr->errorLogFilePathIs(sampleSwitch("tarn/pcr-config-errors.log"));
   auto sb = at<Tarn::Secureboot::Status>(*em, "tarn/sb/status");
   sb->supportedIs(true);
   sb->readyIs(true);
   sb->statusFlagsIs(1);
   sb->enabledPcrBankIs("sha1");
   auto defaults = at<Hardware::Sentrel::Config>(*em, "hardware/sentrel/config/sentrel");
   defaults->secureBootEnabledIs(true);
   defaults->measuredBootEnabledIs(true);
   defaults->configReadyIs(true);
   return em;
}

}  // namespace SentrelBench
