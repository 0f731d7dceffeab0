#include "Sentrel/MeasuredBootVersionSm.h"

#include <fstream>

#include "Sentrel/PlatformHelpers.h"
#include "Sentrel/SentrelTrace.h"

namespace Sentrel {

Loom::AllocationTracker MeasuredBootVersionSm::memAllocationTracker_{"Sentrel::MeasuredBootVersionSm"};

Loom::TypeInfo const &MeasuredBootVersionSm::typeInfo() {
   using S = MeasuredBootVersionSm;
   static Loom::TypeInfo const t{
      "Sentrel::MeasuredBootVersionSm",
      {Loom::attr("entityManager", &S::entityManager), Loom::attr("measuredBootVersion", &S::measuredBootVersion),
       Loom::attr("initialized", &S::initialized, &S::initializedIs)},
      {Loom::op("readVexoMeasuredBootVersion", &S::readVexoMeasuredBootVersion),
       Loom::op("readTarnMeasuredBootVersion", &S::readTarnMeasuredBootVersion),
       Loom::op("handleInitialized", &S::handleInitialized)},
      nullptr};
   return t;
}

Ptr<MeasuredBootVersionSm> MeasuredBootVersionSm::MeasuredBootVersionSmIs(
   Ptr<Ledger::EntityManager> const &entityManager, Ptr<MeasuredBootVersion> const &measuredBootVersion) {
   return Loom::stateMachineNew<MeasuredBootVersionSm>(entityManager, measuredBootVersion);
}

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

MeasuredBootVersionSm::~MeasuredBootVersionSm() = default;

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
