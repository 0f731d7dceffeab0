// The kernel command line, read when an outdated bootloader is warned about.
#include "FuzzSupport.h"
#include "Sentrel/TarnFeatureSm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   put("proc/cmdline", String(reinterpret_cast<char const *>(data), size));
   static String const features = put("outdated-features", "secureboot:26\n");
   auto em = freshLedger();
   auto status = Loom::ptrCast<Tarn::Features::Status>(em->lookup("tarn/features/status"));
   auto sb = Loom::ptrCast<Tarn::Secureboot::Status>(em->lookup("tarn/sb/status"));
   status->featuresFilePathIs(features);
   sb->supportedIs(true);
   auto sm = Sentrel::TarnFeatureSm::TarnFeatureSmIs(em, status, sb);
   return 0;
}
