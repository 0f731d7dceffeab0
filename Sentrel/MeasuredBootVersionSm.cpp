#include "Sentrel/MeasuredBootVersionSm.h"

#include <cerrno>
#include <unistd.h>

#include "Sentrel/FileReading.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/platform/ReadFile.h"
#include "Sentrel/platform/Reason.h"

#define SENTREL_MEASURED_BOOT_VERSION_SM_OPS(X) \
   X(readVexoMeasuredBootVersion) X(readTarnMeasuredBootVersion) X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, MeasuredBootVersionSm, measuredBootVersion,
                          SENTREL_MEASURED_BOOT_VERSION_SM_ARGS, SENTREL_MEASURED_BOOT_VERSION_SM_OPS)

namespace Sentrel {

using A = MeasuredBootVersion::Attr;

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
   int const fd = Loom::openInputFile(path);
   if (fd < 0) {
      int const err = errno;
      TRACE2("Cannot open Tarn measured boot version file");
      inputFileReason(*measuredBootVersion_, {A::tarn}, A::tarnVersionFilePath, path, err);
      measuredBootVersion_->tarnIs("");
      return;
   }
   // A bounded read of the first line, as getline into 64 characters takes
   // it: at most 63 characters before the newline or the end of the file.
   Loom::FileText const head = Loom::readWholeFd(fd, 64);
   close(fd);
   auto const newline = head.text.find('\n');
   bool const complete = newline <= 63 || (!head.tooLarge && newline == String::npos && head.text.size() <= 63);
   if (!head.ok() && !head.tooLarge) {
      TRACE2("Cannot read Tarn measured boot version");
      inputFileReason(*measuredBootVersion_, {A::tarn}, A::tarnVersionFilePath, path,
                      head.folder ? EISDIR : head.error);
      measuredBootVersion_->tarnIs("");
   } else if (head.text.empty() || !complete) {
      TRACE2("Cannot read Tarn measured boot version");
      Loom::reasonIs(*measuredBootVersion_, {A::tarn}, path + " is empty or its first line is 64 characters or longer");
      measuredBootVersion_->tarnIs("");
   } else {
      // Up to a NUL, as the line is a C string.
      measuredBootVersion_->tarnIs(head.text.substr(0, newline).c_str());
   }
}

void MeasuredBootVersionSm::readVexoMeasuredBootVersion() {
   TRACE7("void Sentrel::MeasuredBootVersionSm::readVexoMeasuredBootVersion()");
   JsonDocument document;
   String const &path = measuredBootVersion_->vexoVersionFilePath();
   int err = 0;
   if (!parseJsonFile(path.c_str(), document, &err)) {
      TRACE2("Cannot find Vexo measured boot version file");
      if (err != 0) {
         inputFileReason(*measuredBootVersion_, {A::vexo}, A::vexoVersionFilePath, path, err);
      } else {
         Loom::reasonIs(*measuredBootVersion_, {A::vexo},
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
      Loom::reasonIs(*measuredBootVersion_, {A::vexo}, path + " has no \"measuredBootVersion\" member");
      measuredBootVersion_->vexoIs("");
      return;
   }
   measuredBootVersion_->vexoIs(member->value.GetString());
}

}  // namespace Sentrel
