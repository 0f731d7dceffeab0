// The bootloader features file, through the features state machine.
#include "FuzzSupport.h"
#include "Sentrel/TarnFeatureSm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   String const path = put("features", String(reinterpret_cast<char const *>(data), size));
   auto em = freshLedger();
   auto status = Loom::ptrCast<Tarn::Features::Status>(em->lookup("tarn/features/status"));
   auto sb = Loom::ptrCast<Tarn::Secureboot::Status>(em->lookup("tarn/sb/status"));
   status->featuresFilePathIs(path);
   sb->supportedIs(true);
   auto sm = Sentrel::TarnFeatureSm::TarnFeatureSmIs(em, status, sb);
   sb->supportedIs(false);
   return 0;
}
