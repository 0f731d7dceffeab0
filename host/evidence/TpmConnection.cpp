#include "host/evidence/TpmConnection.h"

#include <cstdio>
#include <cstdlib>
#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

namespace SentrelEvidence {

namespace {
// How long one read of the TCTI waits before ESYS asks again: the deadline
// is checked between reads.
constexpr std::int32_t kReadTimeoutMs = 100;
}  // namespace

TpmConnection::TpmConnection(String const &tcti) {
   // tpm2-tss prints its own errors on standard error; ours say each once,
   // naming the configuration. TSS2_LOG set by the user still wins.
   setenv("TSS2_LOG", "all+none", 0);
   failure_ = Tss2_TctiLdr_Initialize(tcti.c_str(), &tcti_);
   if (failure_ != TSS2_RC_SUCCESS) {
      tcti_ = nullptr;
      return;
   }
   failure_ = Esys_Initialize(&esys_, tcti_, nullptr);
   if (failure_ != TSS2_RC_SUCCESS) {
      esys_ = nullptr;
      return;
   }
   failure_ = Esys_SetTimeout(esys_, kReadTimeoutMs);
   if (failure_ != TSS2_RC_SUCCESS) Esys_Finalize(&esys_);
}

TpmConnection::~TpmConnection() {
   if (esys_) Esys_Finalize(&esys_);
   if (tcti_) Tss2_TctiLdr_Finalize(&tcti_);
}

String responseText(TSS2_RC rc) {
   char number[16];
   std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(rc));
   String const decoded = Tss2_RC_Decode(rc);
   if (TpmConnection::tryAgain(rc)) {
      return "no response within " + std::to_string(TpmConnection::kResponseDeadline.count()) + " seconds (" +
             decoded + ", " + number + ")";
   }
   return decoded + " (" + number + ")";
}

}  // namespace SentrelEvidence
