#include "Sentrel/types/FirstInstructionSecurity.h"
#include "Sentrel/types/HardwareSentrelConfig.h"
#include "Sentrel/types/IntegrityKeyringColl.h"
#include "Sentrel/types/MeasuredBootEvidence.h"
#include "Sentrel/types/MeasuredBootVersion.h"
#include "Sentrel/types/TarnFeaturesStatus.h"
#include "Sentrel/types/TarnPcrConfigStatus.h"
#include "Sentrel/types/TarnSecurebootStatus.h"

LOOM_ENTITY_DEFINE(Sentrel, MeasuredBootVersion, SENTREL_MEASURED_BOOT_VERSION_ATTRS)
LOOM_ENTITY_DEFINE(Sentrel, FirstInstructionSecurity, SENTREL_FIRST_INSTRUCTION_SECURITY_ATTRS)
LOOM_ENTITY_DEFINE(Sentrel, IntegrityKeyringColl, SENTREL_INTEGRITY_KEYRING_COLL_ATTRS)
LOOM_ENTITY_DEFINE(Sentrel, MeasuredBootEvidence, SENTREL_MEASURED_BOOT_EVIDENCE_ATTRS)
LOOM_ENTITY_DEFINE(Tarn::Features, Status, TARN_FEATURES_STATUS_ATTRS)
LOOM_ENTITY_DEFINE(Tarn::PcrConfig, Status, TARN_PCR_CONFIG_STATUS_ATTRS)
LOOM_ENTITY_DEFINE(Tarn::Secureboot, Status, TARN_SECUREBOOT_STATUS_ATTRS)
LOOM_ENTITY_DEFINE(Hardware::Sentrel, Config, HARDWARE_SENTREL_CONFIG_ATTRS)

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

namespace {
// Makes the entity types known by name when the library is loaded.
bool const typesRegistered = [] {
   Loom::moduleLoaded("SentrelTypes",
                      {&Loom::Dir::typeInfo(), &Sentrel::MeasuredBootVersion::typeInfo(),
                       &Sentrel::FirstInstructionSecurity::typeInfo(), &Tarn::Features::Status::typeInfo(),
                       &Tarn::PcrConfig::Status::typeInfo(), &Tarn::Secureboot::Status::typeInfo(),
                       &Hardware::Sentrel::Config::typeInfo(), &Sentrel::IntegrityKeyringColl::typeInfo(),
                       &Sentrel::MeasuredBootEvidence::typeInfo()});
   return true;
}();
}  // namespace
