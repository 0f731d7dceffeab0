#pragma once

#include <optional>
#include <tuple>

#include "Sentrel/platform/Ledger.h"
#include "Sentrel/platform/StateMachine.h"
#include "Sentrel/types/FirstInstructionSecurity.h"

namespace Sentrel {

// Finds the CPU vendor and reads Intel Boot Guard or AMD Platform Secure
// Boot state.
class FirstInstructionSecuritySm : public Loom::StateMachine {
 public:
   static Loom::AllocationTracker memAllocationTracker_;
   static Loom::TypeInfo const &typeInfo();
   Loom::TypeInfo const &typeData() const override { return typeInfo(); }

   static Ptr<FirstInstructionSecuritySm> FirstInstructionSecuritySmIs(
      Ptr<Ledger::EntityManager> const &entityManager,
      Ptr<FirstInstructionSecurity> const &firstInstructionSecurity);
   FirstInstructionSecuritySm(Ptr<Ledger::EntityManager> const &entityManager,
                              Ptr<FirstInstructionSecurity> const &firstInstructionSecurity);

   Ptr<Ledger::EntityManager> const &entityManager() const { return entityManager_; }
   Ptr<FirstInstructionSecurity> const &firstInstructionSecurity() const {
      return firstInstructionSecurity_;
   }
   void getCpuVendorId();
   void getBootGuardStatus();
   void getPsbStatus();
   // What it was built on, compared by identity when the agent asks again.
   auto constructorArgs() const { return std::tie(entityManager_, firstInstructionSecurity_); }
   void handleInitialized();

 protected:
   ~FirstInstructionSecuritySm() override;

 private:
   Loom::TrackedBy tracked_{memAllocationTracker_};
   Ptr<Ledger::EntityManager> entityManager_;
   Ptr<FirstInstructionSecurity> firstInstructionSecurity_;
};

// The CPU vendor in the output of lscpu: what the ECMAScript search
// Vendor ID:\s*(.*) captures in its first match.
std::optional<Loom::String> searchVendorId(Loom::String const &output);

}  // namespace Sentrel
