#include "Sentrel/MeasuredBootVersionSm.h"

#include <fstream>

#include "Sentrel/PlatformHelpers.h"
#include "Sentrel/SentrelTrace.h"

#define SENTREL_MEASURED_BOOT_VERSION_SM_OPS(X) \
   X(readVexoMeasuredBootVersion) X(readTarnMeasuredBootVersion) X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, MeasuredBootVersionSm, SENTREL_MEASURED_BOOT_VERSION_SM_ARGS,
                          SENTREL_MEASURED_BOOT_VERSION_SM_OPS)

namespace Sentrel {

MeasuredBootVersionSm::MeasuredBootVersionSm(Ptr<Ledger::EntityManager> const &entityManager,
                                             Ptr<MeasuredBootVersion> const &measuredBootVersion)
    : entityManager_(entityManager),
      measuredBootVersion_(measuredBootVersion),
      measuredBootVersionReactor_(
         *this, measuredBootVersion.ptr(),
         {MeasuredBootVersion::Attr::vexoVersionFilePath, MeasuredBootVersion::Attr::tarnVersionFilePath},
         [this](unsigned attr) { measuredBootVersionDispatch(attr); }) {
   handleInitialized();
}

void MeasuredBootVersionSm::measuredBootVersionDispatch(unsigned attr) {
   if (attr == MeasuredBootVersion::Attr::vexoVersionFilePath) {
      readVexoMeasuredBootVersion();
   } else {
      readTarnMeasuredBootVersion();
   }
}

void MeasuredBootVersionSm::handleInitialized() {
   TRACE7("void Sentrel::MeasuredBootVersionSm::handleInitialized()");
   readTarnMeasuredBootVersion();
   readVexoMeasuredBootVersion();
   initialized_ = true;
}

void MeasuredBootVersionSm::readTarnMeasuredBootVersion() {
   TRACE7("void Sentrel::MeasuredBootVersionSm::readTarnMeasuredBootVersion()");
   std::ifstream file(measuredBootVersion_->tarnVersionFilePath());
   if (!file.is_open()) {
      TRACE2("Cannot open Tarn measured boot version file");
      measuredBootVersion_->tarnIs("");
      return;
   }
   // A bounded read: a first line of 64 characters or more fails.
   char line[64];
   if (!file.getline(line, sizeof line)) {
      TRACE2("Cannot read Tarn measured boot version");
      measuredBootVersion_->tarnIs("");
   } else {
      measuredBootVersion_->tarnIs(line);
   }
   file.close();
}

void MeasuredBootVersionSm::readVexoMeasuredBootVersion() {
   TRACE7("void Sentrel::MeasuredBootVersionSm::readVexoMeasuredBootVersion()");
   JsonDocument document;
   if (!parseJsonFile(measuredBootVersion_->vexoVersionFilePath().c_str(), document)) {
      TRACE2("Cannot find Vexo measured boot version file");
      measuredBootVersion_->vexoIs("");
      return;
   }
   // The document is taken to be an object and the value a string: anything
   // else breaks the JSON library's assertions and ends the process.
   auto member = document.FindMember("measuredBootVersion");
   if (member == document.MemberEnd()) {
      TRACE2("Cannot find Vexo measured boot version in json file");
      measuredBootVersion_->vexoIs("");
      return;
   }
   measuredBootVersion_->vexoIs(member->value.GetString());
}

}  // namespace Sentrel
