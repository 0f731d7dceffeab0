// The register value and the output of BootGuardUtil on an Intel platform:
// the first 8 bytes are MSR 0x13A, the rest up to a NUL the fuse status,
// and what follows the key hash.
#include <cstring>

#include "FuzzSupport.h"
#include "Sentrel/FirstInstructionSecuritySm.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
   using namespace SentrelFuzz;
   static bool const made = (command("lscpu", "echo 'Vendor ID: GenuineIntel'\n"),
                             command("BootGuardUtil", "if [ \"$2\" = --status ]; then cat \"" + scratch() +
                                                         "/status.out\"; else cat \"" + scratch() +
                                                         "/hash.out\"; fi\n"),
                             true);
   (void)made;
   size = std::min<std::size_t>(size, 60000);
   String const text(reinterpret_cast<char const *>(data), size);
   String msr(0x13A, '\0');
   msr += text.substr(0, 8);
   put("dev/cpu/0/msr", msr);
   String const rest = text.size() > 8 ? text.substr(8) : String();
   std::size_t const cut = std::min(rest.find('\0'), rest.size());
   put("status.out", rest.substr(0, cut));
   put("hash.out", cut < rest.size() ? rest.substr(cut + 1) : String());
   auto em = freshLedger();
   auto fis = Loom::ptrCast<Sentrel::FirstInstructionSecurity>(em->lookup("sentrel/firstInstructionSecurity"));
   auto sm = Sentrel::FirstInstructionSecuritySm::FirstInstructionSecuritySmIs(em, fis);
   return 0;
}
