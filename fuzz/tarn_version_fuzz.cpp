// The bootloader's measured boot version file.
#include "FuzzSupport.h"
#include "Sentrel/MeasuredBootVersionSm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   String const path = put("tarn-version", String(reinterpret_cast<char const *>(data), size));
   auto em = freshLedger();
   auto mbv = Loom::ptrCast<Sentrel::MeasuredBootVersion>(em->lookup("sentrel/measuredBootVersion"));
   mbv->tarnVersionFilePathIs(path);
   mbv->vexoVersionFilePathIs(scratch() + "/absent.json");
   auto sm = Sentrel::MeasuredBootVersionSm::MeasuredBootVersionSmIs(em, mbv);
   return 0;
}
