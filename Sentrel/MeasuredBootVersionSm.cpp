#include "Sentrel/MeasuredBootVersionSm.h"

#include <cerrno>
#include <fstream>

#include "Sentrel/FileReading.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/Reason.h"

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
