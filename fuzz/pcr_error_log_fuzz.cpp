// The bootloader's PCR configuration error log.
#include "FuzzSupport.h"
#include "Sentrel/TarnPcrConfigStatusSm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   String const log = put("pcr-errors.log", String(reinterpret_cast<char const *>(data), size));
   static String const required = put("required-pcr-banks", "sha1 sha256 sha384\n");
   static String const configured = put("boot-config", "PCRBANK=sha1+sha256\n");
   auto em = freshLedger();
   auto status = Loom::ptrCast<Tarn::PcrConfig::Status>(em->lookup("tarn/pcrConfig/status"));
   auto sb = Loom::ptrCast<Tarn::Secureboot::Status>(em->lookup("tarn/sb/status"));
   status->requiredPcrBankFilePathIs(required);
   status->configuredPcrBankFilePathIs(configured);
   status->errorLogFilePathIs(log);
   sb->enabledPcrBankIs("sha1");
   auto sm = Sentrel::TarnPcrConfigStatusSm::TarnPcrConfigStatusSmIs(em, status, sb);
   return 0;
}
