#include "Sentrel/types/FirstInstructionSecurity.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/IntegrityKeyringColl.h"
#include "Sentrel/types/MeasuredBootVersion.h"
#include "Sentrel/types/StateTree.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

namespace {
template <class E>
std::function<Ptr<Loom::Object>()> creator() {
   return [] { return Ptr<Loom::Object>(Loom::make<E>()); };
}
}  // namespace

namespace Sentrel {

Loom::AllocationTracker MeasuredBootVersion::memAllocationTracker_{"Sentrel::MeasuredBootVersion"};
MeasuredBootVersion::~MeasuredBootVersion() = default;

Loom::TypeInfo const &MeasuredBootVersion::typeInfo() {
   using E = MeasuredBootVersion;
   static Loom::TypeInfo const t{
      "Sentrel::MeasuredBootVersion",
      {Loom::attr("tarnVersionFilePath", &E::tarnVersionFilePath, &E::tarnVersionFilePathIs),
       Loom::attr("vexoVersionFilePath", &E::vexoVersionFilePath, &E::vexoVersionFilePathIs),
       Loom::attr("tarn", &E::tarn, &E::tarnIs), Loom::attr("vexo", &E::vexo, &E::vexoIs)},
      {},
      creator<E>()};
   return t;
}

Loom::AllocationTracker FirstInstructionSecurity::memAllocationTracker_{
   "Sentrel::FirstInstructionSecurity"};
FirstInstructionSecurity::~FirstInstructionSecurity() = default;

Loom::TypeInfo const &FirstInstructionSecurity::typeInfo() {
   using E = FirstInstructionSecurity;
   static Loom::TypeInfo const t{
      "Sentrel::FirstInstructionSecurity",
      {Loom::attr("cpuVendor", &E::cpuVendor, &E::cpuVendorIs),
       Loom::attr("supported", &E::supported, &E::supportedIs),
       Loom::attr("systemFused", &E::systemFused, &E::systemFusedIs),
       Loom::attr("verifiedbootEnabled", &E::verifiedbootEnabled, &E::verifiedbootEnabledIs),
       Loom::attr("measuredbootEnabled", &E::measuredbootEnabled, &E::measuredbootEnabledIs),
       Loom::attr("devConfig", &E::devConfig, &E::devConfigIs),
       Loom::attr("vendorSpecific", &E::vendorSpecific, &E::vendorSpecificIs)},
      {},
      creator<E>()};
   return t;
}

Loom::AllocationTracker IntegrityKeyringColl::memAllocationTracker_{"Sentrel::IntegrityKeyringColl"};
IntegrityKeyringColl::~IntegrityKeyringColl() = default;

Loom::TypeInfo const &IntegrityKeyringColl::typeInfo() {
   static Loom::TypeInfo const t{"Sentrel::IntegrityKeyringColl", {}, {}, creator<IntegrityKeyringColl>()};
   return t;
}

}  // namespace Sentrel

Loom::Value Loom::ValueTraits<Sentrel::VendorSpecific>::to(Sentrel::VendorSpecific const &v) {
   if (auto const *s = std::get_if<String>(&v)) return VariantValue{"string", *s, {}};
   auto const &m = std::get<Sentrel::ModelRevisionId>(v);
   return VariantValue{"modelRevisionId", {}, {{"upperNibble", m.upperNibble}, {"lowerNibble", m.lowerNibble}}};
}

Loom::Error Loom::ValueTraits<Sentrel::VendorSpecific>::from(Value const &v, Sentrel::VendorSpecific &out) {
   auto const *vv = std::get_if<VariantValue>(&v);
   if (vv && vv->alternative == "string" && vv->fields.empty()) {
      out = vv->text;
      return std::nullopt;
   }
   if (vv && vv->alternative == "modelRevisionId" && vv->fields.size() == 2 &&
       vv->fields[0].first == "upperNibble" && vv->fields[1].first == "lowerNibble" &&
       vv->fields[0].second <= 15 && vv->fields[1].second <= 15) {
      out = Sentrel::ModelRevisionId{static_cast<std::uint8_t>(vv->fields[0].second),
                                     static_cast<std::uint8_t>(vv->fields[1].second)};
      return std::nullopt;
   }
   return "expected {\"string\": TEXT} or {\"modelRevisionId\": {\"upperNibble\": 0-15, "
          "\"lowerNibble\": 0-15}}";
}

namespace Tarn::Features {

Loom::AllocationTracker Status::memAllocationTracker_{"Tarn::Features::Status"};
Status::~Status() = default;

Loom::TypeInfo const &Status::typeInfo() {
   static Loom::TypeInfo const t{
      "Tarn::Features::Status",
      {Loom::attr("featuresFilePath", &Status::featuresFilePath, &Status::featuresFilePathIs),
       Loom::mapAttr("featureRev", &Status::featureRev, &Status::featureRevIs),
       Loom::attr("sbOutdated", &Status::sbOutdated, &Status::sbOutdatedIs),
       Loom::attr("pcrMultibankSupported", &Status::pcrMultibankSupported, &Status::pcrMultibankSupportedIs),
       Loom::attr("measuredbootSupported", &Status::measuredbootSupported, &Status::measuredbootSupportedIs)},
      {},
      creator<Status>()};
   return t;
}

}  // namespace Tarn::Features

namespace Tarn::PcrConfig {

Loom::AllocationTracker Status::memAllocationTracker_{"Tarn::PcrConfig::Status"};
Status::~Status() = default;

Loom::TypeInfo const &Status::typeInfo() {
   static Loom::TypeInfo const t{
      "Tarn::PcrConfig::Status",
      {Loom::setAttr("requiredPcrBank", &Status::requiredPcrBank, &Status::requiredPcrBankIs),
       Loom::setAttr("configuredPcrBank", &Status::configuredPcrBank, &Status::configuredPcrBankIs),
       Loom::attr("errorLogFilePath", &Status::errorLogFilePath, &Status::errorLogFilePathIs),
       Loom::attr("requiredPcrBankFilePath", &Status::requiredPcrBankFilePath,
                  &Status::requiredPcrBankFilePathIs),
       Loom::attr("configuredPcrBankFilePath", &Status::configuredPcrBankFilePath,
                  &Status::configuredPcrBankFilePathIs),
       Loom::attr("requiredPcrNotConfigured", &Status::requiredPcrNotConfigured,
                  &Status::requiredPcrNotConfiguredIs),
       Loom::attr("requiredPcrNotEnabled", &Status::requiredPcrNotEnabled, &Status::requiredPcrNotEnabledIs),
       Loom::attr("pcrConfigFoundOnTpm12", &Status::pcrConfigFoundOnTpm12, &Status::pcrConfigFoundOnTpm12Is)},
      {},
      creator<Status>()};
   return t;
}

}  // namespace Tarn::PcrConfig

namespace Tarn::Secureboot {

Loom::AllocationTracker Status::memAllocationTracker_{"Tarn::Secureboot::Status"};
Status::~Status() = default;

Loom::TypeInfo const &Status::typeInfo() {
   static Loom::TypeInfo const t{"Tarn::Secureboot::Status",
                                 {Loom::attr("supported", &Status::supported, &Status::supportedIs),
                                  Loom::attr("ready", &Status::ready, &Status::readyIs),
                                  Loom::attr("statusFlags", &Status::statusFlags, &Status::statusFlagsIs),
                                  Loom::setAttr("enabledPcrBank", &Status::enabledPcrBank, &Status::enabledPcrBankIs)},
                                 {},
                                 creator<Status>()};
   return t;
}

}  // namespace Tarn::Secureboot

namespace Hardware::Sentrel {

Loom::AllocationTracker Config::memAllocationTracker_{"Hardware::Sentrel::Config"};
Config::~Config() = default;

Loom::TypeInfo const &Config::typeInfo() {
   static Loom::TypeInfo const t{
      "Hardware::Sentrel::Config",
      {Loom::attr("secureBootEnabled", &Config::secureBootEnabled, &Config::secureBootEnabledIs),
       Loom::attr("measuredBootEnabled", &Config::measuredBootEnabled, &Config::measuredBootEnabledIs),
       Loom::attr("configReady", &Config::configReady, &Config::configReadyIs)},
      {},
      creator<Config>()};
   return t;
}

}  // namespace Hardware::Sentrel

namespace Sentrel {

std::vector<StateTreeEntry> const &stateTree() {
   static std::vector<StateTreeEntry> const tree{
      {"sentrel/measuredBootVersion", "Sentrel::MeasuredBootVersion", true},
      {"sentrel/firstInstructionSecurity", "Sentrel::FirstInstructionSecurity", true},
      {"tarn/features/status", "Tarn::Features::Status", true},
      {"tarn/pcrConfig/status", "Tarn::PcrConfig::Status", true},
      {"tarn/sb/status", "Tarn::Secureboot::Status", false},
      {"hardware/sentrel/config/sentrel", "Hardware::Sentrel::Config", false},
      {"sentrel/integrity/key/keyringColl", "Sentrel::IntegrityKeyringColl", false},
   };
   return tree;
}

StateTreeEntry const *stateTreeEntry(Loom::String const &path) {
   for (auto const &e : stateTree()) {
      if (path == e.path) return &e;
   }
   return nullptr;
}

void stateTreeSeed(Ledger::EntityManager &em) {
   for (auto const &e : stateTree()) {
      em.entityIs(e.path, Loom::ptrCast<Loom::Entity>(Loom::findType(e.typeName)->create()));
   }
}

namespace {
// Makes the entity types known by name when the library is loaded.
bool const typesRegistered = [] {
   Loom::moduleLoaded("SentrelTypes",
                      {&Loom::Dir::typeInfo(), &MeasuredBootVersion::typeInfo(),
                       &FirstInstructionSecurity::typeInfo(), &Tarn::Features::Status::typeInfo(),
                       &Tarn::PcrConfig::Status::typeInfo(), &Tarn::Secureboot::Status::typeInfo(),
                       &Hardware::Sentrel::Config::typeInfo(), &IntegrityKeyringColl::typeInfo()});
   return true;
}();
}  // namespace

}  // namespace Sentrel
