// The required-bank file and the bootloader configuration with PCRBANK=:
// the input up to its first NUL is one, the rest the other.
#include "FuzzSupport.h"
#include "Sentrel/TarnPcrConfigStatusSm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   String const text(reinterpret_cast<char const *>(data), size);
   std::size_t const cut = std::min(text.find('\0'), text.size());
   String const required = put("required-pcr-banks", text.substr(0, cut));
   String const configured = put("boot-config", cut < text.size() ? text.substr(cut + 1) : String());
   static String const errors = put("pcr-errors.log", "REQUIRED_PCR_NOT_CONFIGURED\nREQUIRED_PCR_NOT_ENABLED\n");
   auto em = freshLedger();
   auto status = Loom::ptrCast<Tarn::PcrConfig::Status>(em->lookup("tarn/pcrConfig/status"));
   auto sb = Loom::ptrCast<Tarn::Secureboot::Status>(em->lookup("tarn/sb/status"));
   status->requiredPcrBankFilePathIs(required);
   status->configuredPcrBankFilePathIs(configured);
   status->errorLogFilePathIs(errors);
   sb->enabledPcrBankIs("sha256");
   auto sm = Sentrel::TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs(em, status, sb);
   return 0;
}
