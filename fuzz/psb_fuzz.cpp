// The PsbStatus UEFI variable on an AMD platform.
#include "FuzzSupport.h"
#include "Sentrel/FirstInstructionSecuritySm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   static bool const made = (command("lscpu", "echo 'Vendor ID: AuthenticAMD'\n"), true);
   (void)made;
   put("sys/firmware/efi/efivars/PsbStatus-f64c554f-d43b-4c82-9e1e-c261e17f7a01",
       String(reinterpret_cast<char const *>(data), size));
   auto em = freshLedger();
   auto fis = Loom::ptrCast<Sentrel::FirstInstructionSecurity>(em->lookup("sentrel/firstInstructionSecurity"));
   auto sm = Sentrel::FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(em, fis);
   return 0;
}
