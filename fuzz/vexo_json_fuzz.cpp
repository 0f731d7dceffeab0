// The operating system's measured boot version file (JSON).
#include "FuzzSupport.h"
#include "Sentrel/MeasuredBootVersionSm.h"
#include "Sentrel/platform/Json.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   String const text(reinterpret_cast<char const *>(data), size);
   // Documents of the wrong shape end the process by design; malformed ones
   // would leave their file open by design: both are left to the unit tests.
   rapidjson::Document doc;
   doc.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
   if (doc.HasParseError() || !doc.IsObject()) return 0;
   auto it = doc.FindMember("measuredBootVersion");
   if (it != doc.MemberEnd() && !it->value.IsString()) return 0;

   String const path = put("vexo.json", text);
   auto em = freshLedger();
   auto mbv = Loom::ptrCast<Sentrel::MeasuredBootVersion>(em->lookup("sentrel/measuredBootVersion"));
   mbv->tarnVersionFilePathIs(scratch() + "/absent");
   mbv->vexoVersionFilePathIs(path);
   auto sm = Sentrel::MeasuredBootVersionSm::MeasuredBootVersionSmIs(em, mbv);
   return 0;
}
