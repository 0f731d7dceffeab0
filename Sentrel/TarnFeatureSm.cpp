#include "Sentrel/TarnFeatureSm.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <cctype>
#include <optional>
#include <string>

#include "Sentrel/LogCatalogue.h"
#include "Sentrel/SentrelTrace.h"
#include "Sentrel/FileReading.h"
#include "Sentrel/platform/ReadFile.h"

#define SENTREL_TARN_FEATURE_SM_OPS(X)                                                  \
   X(getRevisionFromFeaturesFile) X(populateSbOutdatedFromSbVersion) X(getRunningTarnVersion) \
   X(checkTarnDeprecation) X(checkPcrMultibankSupported) X(checkMeasuredbootSupported) X(handleInitialized)
LOOM_STATE_MACHINE_DEFINE(Sentrel, TarnFeatureSm, tarnFeature,
                          SENTREL_TARN_FEATURE_SM_ARGS, SENTREL_TARN_FEATURE_SM_OPS)

namespace Sentrel {

using A = Tarn::Features::Status::Attr;

TarnFeatureSm::TarnFeatureSm(Ptr<Ledger::EntityManager> const &entityManager,
                             Ptr<Tarn::Features::Status> const &tarnFeatureStatus,
                             Ptr<Tarn::Secureboot::Status const> const &sbStatus)
    : entityManager_(entityManager),
      tarnFeatureStatus_(tarnFeatureStatus),
      sbStatus_(sbStatus),
      sbStatusDispatch_(*this, sbStatus.ptr(), {Tarn::Secureboot::Status::Attr::supported},
                        [this](unsigned) { sbStatusDispatch(); }) {
   handleInitialized();
}

void TarnFeatureSm::sbStatusDispatch() {
   // The revisions read at start-up stand; only the checks gated by
   // `supported` are run again.
   checkTarnDeprecation();
   checkMeasuredbootSupported();
}

void TarnFeatureSm::handleInitialized() {
   TRACE7("void Sentrel::TarnFeatureSm::handleInitialized()");
   getRevisionFromFeaturesFile();
   checkTarnDeprecation();
   checkPcrMultibankSupported();
   checkMeasuredbootSupported();
   initialized_ = true;
}

namespace {

enum class RevisionParse { ok, notAnInteger, outOfRange };

// Reads a signed decimal int the way std::stoi does (leading blanks, an
// optional sign, digits up to the first non-digit), without its exceptions.
RevisionParse parseRevision(std::string const &text, int &out) {
   char const *begin = text.c_str();
   char *end = nullptr;
   errno = 0;
   long const value = std::strtol(begin, &end, 10);
   if (end == begin) return RevisionParse::notAnInteger;
   if (errno == ERANGE || value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
      return RevisionParse::outOfRange;
   }
   out = static_cast<int>(value);
   return RevisionParse::ok;
}

}  // namespace

std::optional<std::string> searchTarnEntry(std::string const &line) {
   // The leftmost match of the ECMAScript search "Tarn=\S+", scanned by hand:
   // std::regex recurses once per character of the match, and a long enough
   // line would overflow the stack.
   auto const space = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
   for (auto at = line.find("Tarn="); at != std::string::npos; at = line.find("Tarn=", at + 1)) {
      std::size_t end = at + 5;
      while (end < line.size() && !space(line[end])) ++end;
      if (end > at + 5) return line.substr(at, end - at);
   }
   return std::nullopt;
}

void TarnFeatureSm::getRevisionFromFeaturesFile() {
   TRACE7("void Sentrel::TarnFeatureSm::getRevisionFromFeaturesFile()");
   int err = 0;
   auto const text = readInputFile(*tarnFeatureStatus_,
                                   {A::featureRev, A::sbOutdated, A::pcrMultibankSupported, A::measuredbootSupported},
                                   A::featuresFilePath, tarnFeatureStatus_->featuresFilePath(), err);
   if (!text) {
      TRACE2("Cannot open Tarn features file");
      return;
   }
   Loom::Pieces lines(*text, '\n');
   for (std::string_view line; lines.next(line);) {
      auto const colon = line.find(':');
      if (colon == std::string_view::npos || colon + 1 == line.size()) continue;
      int revision = 0;
      switch (parseRevision(String(line.substr(colon + 1)), revision)) {
      case RevisionParse::notAnInteger:
         TRACE2("Invalid value for version number, not an integer");
         break;
      case RevisionParse::outOfRange:
         TRACE2("Value for version number out of range");
         break;
      case RevisionParse::ok:
         // Negative revisions keep their two's complement on purpose.
         tarnFeatureStatus_->featureRevIs(String(line.substr(0, colon)), static_cast<std::uint32_t>(revision));
         break;
      }
   }
}

void TarnFeatureSm::populateSbOutdatedFromSbVersion() {
   TRACE7("void Sentrel::TarnFeatureSm::populateSbOutdatedFromSbVersion()");
   auto const &revs = tarnFeatureStatus_->featureRev();
   auto const sb = revs.find("secureboot");
   tarnFeatureStatus_->sbOutdatedIs(sb != revs.end() && sb->second < 27);
}

Loom::String TarnFeatureSm::getRunningTarnVersion() {
   TRACE7("Loom::String Sentrel::TarnFeatureSm::getRunningTarnVersion()");
   static char const fallback[] = "This version of Tarn";
   // Bounded: the kernel's command line is a few kilobytes at most.
   Loom::FileText const cmdline = Loom::readSystemFile("/proc/cmdline", 1 << 20);
   // A folder opens as a file does and reads as empty.
   if (cmdline.error != 0) {
      TRACE2("Cannot open /proc/cmdline");
      return fallback;
   }
   std::string const &text = cmdline.text;
   std::string const line = text.substr(0, text.find('\n'));
   if (auto entry = searchTarnEntry(line)) return *entry;
   TRACE2("Cannot find Tarn version in /proc/cmdline");
   return fallback;
}

void TarnFeatureSm::checkTarnDeprecation() {
   TRACE7("void Sentrel::TarnFeatureSm::checkTarnDeprecation()");
   if (!sbStatus_->supported()) {
      tarnFeatureStatus_->sbOutdatedIs(false);
      return;
   }
   populateSbOutdatedFromSbVersion();
   if (!tarnFeatureStatus_->sbOutdated()) return;
   TRACE2("Logging Tarn Deprecation Warning");
   Loom::String const version = getRunningTarnVersion();
   Loom::log(TARN_DEPRECATION_WARNING, version.c_str());
}

void TarnFeatureSm::checkPcrMultibankSupported() {
   TRACE7("void Sentrel::TarnFeatureSm::checkPcrMultibankSupported()");
   auto const &revs = tarnFeatureStatus_->featureRev();
   auto const sb = revs.find("secureboot");
   if (sb == revs.end()) {
      tarnFeatureStatus_->pcrMultibankSupportedIs(false);
      return;
   }
   // Published before the bootguard veto is looked at; subscribers may see
   // true and then false within one run.
   tarnFeatureStatus_->pcrMultibankSupportedIs(sb->second > 53);
   auto const bg = revs.find("bootguard");
   if (bg != revs.end() && bg->second <= 9) tarnFeatureStatus_->pcrMultibankSupportedIs(false);
}

void TarnFeatureSm::checkMeasuredbootSupported() {
   TRACE7("void Sentrel::TarnFeatureSm::checkMeasuredbootSupported()");
   if (!sbStatus_->supported()) {
      tarnFeatureStatus_->measuredbootSupportedIs(false);
      return;
   }
   auto const &revs = tarnFeatureStatus_->featureRev();
   auto const sb = revs.find("secureboot");
   tarnFeatureStatus_->measuredbootSupportedIs(sb != revs.end() && sb->second > 28);
}

}  // namespace Sentrel
