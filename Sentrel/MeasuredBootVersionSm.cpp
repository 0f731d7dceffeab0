#include "Sentrel/MeasuredBootVersionSm.h"

#include <cerrno>
#include <fstream>

#include "Sentrel/PlatformHelpers.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/Reason.h"

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
   auto sm = Loom::make<MeasuredBootVersionSm>(entityManager, measuredBootVersion);
   sm->hasNotificationActiveIs(true);
   return sm;
}

MeasuredBootVersionSm::MeasuredBootVersionSm(Ptr<Ledger::EntityManager> const &entityManager,
                                             Ptr<MeasuredBootVersion> const &measuredBootVersion)
    : entityManager_(entityManager),
      measuredBootVersion_(measuredBootVersion),
      measuredBootVersionReactor_(*this, measuredBootVersion.ptr(),
                                  [this](unsigned attr) { measuredBootVersionDispatch(attr); }) {
   measuredBootVersionReactor_.subscribe();
   handleInitialized();
}

MeasuredBootVersionSm::~MeasuredBootVersionSm() {
   hasNotificationActiveIs(false);
   loomDoZombieReactors(true);
}

void MeasuredBootVersionSm::measuredBootVersionDispatch(unsigned attr) {
   if (zombie()) return;
   if (attr == MeasuredBootVersion::Attr::vexoVersionFilePath) {
      readVexoMeasuredBootVersion();
   } else if (attr == MeasuredBootVersion::Attr::tarnVersionFilePath) {
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
   String const &path = measuredBootVersion_->tarnVersionFilePath();
   std::ifstream file(path);
   if (!file.is_open()) {
      int const err = errno;
      TRACE2("Cannot open Tarn measured boot version file");
      inputFileReason(*measuredBootVersion_, {"tarn"}, "tarnVersionFilePath", path, err);
      measuredBootVersion_->tarnIs("");
      return;
   }
   // A bounded read: a first line of 64 characters or more fails.
   char line[64];
   errno = 0;
   if (!file.getline(line, sizeof line)) {
      int const err = errno;
      TRACE2("Cannot read Tarn measured boot version");
      if (err == EISDIR) {
         inputFileReason(*measuredBootVersion_, {"tarn"}, "tarnVersionFilePath", path, err);
      } else {
         Loom::reasonIs(*measuredBootVersion_, {"tarn"},
                        path + " is empty or its first line is 64 characters or longer");
      }
      measuredBootVersion_->tarnIs("");
   } else {
      measuredBootVersion_->tarnIs(line);
   }
   file.close();
}

void MeasuredBootVersionSm::readVexoMeasuredBootVersion() {
   TRACE7("void Sentrel::MeasuredBootVersionSm::readVexoMeasuredBootVersion()");
   JsonDocument document;
   String const &path = measuredBootVersion_->vexoVersionFilePath();
   int err = 0;
   if (!parseJsonFile(path.c_str(), document, &err)) {
      TRACE2("Cannot find Vexo measured boot version file");
      if (err != 0) {
         inputFileReason(*measuredBootVersion_, {"vexo"}, "vexoVersionFilePath", path, err);
      } else {
         Loom::reasonIs(*measuredBootVersion_, {"vexo"},
                        path + " is not valid JSON: " + rapidjson::GetParseError_En(document.GetParseError()) +
                           " (byte " + std::to_string(document.GetErrorOffset()) + ")");
      }
      measuredBootVersion_->vexoIs("");
      return;
   }
   // The document is taken to be an object and the value a string: anything
   // else breaks the JSON library's assertions and ends the process.
   auto member = document.FindMember("measuredBootVersion");
   if (member == document.MemberEnd()) {
      TRACE2("Cannot find Vexo measured boot version in json file");
      Loom::reasonIs(*measuredBootVersion_, {"vexo"}, path + " has no \"measuredBootVersion\" member");
      measuredBootVersion_->vexoIs("");
      return;
   }
   measuredBootVersion_->vexoIs(member->value.GetString());
}

}  // namespace Sentrel
