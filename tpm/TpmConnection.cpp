#include "tpm/TpmConnection.h"

#include <cstdio>
#include <cstdlib>
#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

namespace SentrelTpm {

namespace {
// How long one read of the TCTI waits before ESYS asks again: the deadline
// is checked between reads.
constexpr std::int32_t kReadTimeoutMs = 100;
}  // namespace

TpmConnection::TpmConnection(String const &tcti, std::chrono::milliseconds deadline, String name)
    : name_(name.empty() ? tcti : std::move(name)), deadline_(deadline) {
   // tpm2-tss prints its own errors on standard error; ours say each once,
   // naming the configuration. TSS2_LOG set by the user still wins.
   setenv("TSS2_LOG", "all+none", 0);
   failure_ = Tss2_TctiLdr_Initialize(tcti.c_str(), &tctiContext_);
   if (failure_ != TSS2_RC_SUCCESS) {
      tctiContext_ = nullptr;
      return;
   }
   failure_ = Esys_Initialize(&esys_, tctiContext_, nullptr);
   if (failure_ != TSS2_RC_SUCCESS) {
      esys_ = nullptr;
      return;
   }
   failure_ = Esys_SetTimeout(esys_, kReadTimeoutMs);
   if (failure_ != TSS2_RC_SUCCESS) Esys_Finalize(&esys_);
}

TpmConnection::~TpmConnection() {
   if (esys_) Esys_Finalize(&esys_);
   if (tctiContext_) Tss2_TctiLdr_Finalize(&tctiContext_);
}

TpmProblem TpmConnection::problem(String const &what, TSS2_RC rc) const {
   return {TpmProblem::Kind::Tpm, what + " through " + name_ + ": " + responseText(rc), rc};
}

String TpmConnection::responseText(TSS2_RC rc) const {
   char number[16];
   std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(rc));
   String const decoded = Tss2_RC_Decode(rc);
   if (tryAgain(rc)) {
      auto const ms = deadline_.count();
      String const within = ms % 1000 == 0 ? std::to_string(ms / 1000) + " seconds" : std::to_string(ms) + " ms";
      return "no response within " + within + " (" + decoded + ", " + number + ")";
   }
   return decoded + " (" + number + ")";
}

}  // namespace SentrelTpm
