#pragma once

#include <optional>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/FirstInstructionSecurity.h"

namespace Sentrel {

#define SENTREL_FIRST_INSTRUCTION_SECURITY_SM_ARGS(X) \
   X(Ledger::EntityManager, entityManager)             \
   X(FirstInstructionSecurity, firstInstructionSecurity)

// Finds the CPU vendor and reads Intel Boot Guard or AMD Platform Secure
// Boot state.
class FirstInstructionSecuritySm : public Loom::StateMachine {
   LOOM_STATE_MACHINE(FirstInstructionSecuritySm, SENTREL_FIRST_INSTRUCTION_SECURITY_SM_ARGS)

 public:
   void getCpuVendorId();
   void getBootGuardStatus();
   void getPsbStatus();
   void handleInitialized();
};

// The CPU vendor in the output of lscpu: what the ECMAScript search
// Vendor ID:\s*(.*) captures in its first match.
std::optional<Loom::String> searchVendorId(Loom::String const &output);

}  // namespace Sentrel
