// The output of lscpu, through a fake lscpu that prints the input.
#include "FuzzSupport.h"
#include "Sentrel/FirstInstructionSecuritySm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   // A pipe holds 64 KiB; longer outputs are not what lscpu prints.
   size = std::min<std::size_t>(size, 60000);
   static bool const made = (command("lscpu", "cat \"" + scratch() + "/lscpu.out\"\n"), true);
   (void)made;
   put("lscpu.out", String(reinterpret_cast<char const *>(data), size));
   auto em = freshLedger();
   auto fis = Loom::ptrCast<Sentrel::FirstInstructionSecurity>(em->lookup("sentrel/firstInstructionSecurity"));
   auto sm = Sentrel::FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(em, fis);
   return 0;
}
