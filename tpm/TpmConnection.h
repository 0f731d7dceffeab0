#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <tss2/tss2_esys.h>

namespace SentrelTpm {

using String = std::string;

// A failed TPM operation: what was being done, with the response code as
// tpm2-tss decodes it.
struct TpmProblem {
   enum class Kind {
      NoKey,           // nothing persisted at the handle
      NotAnAk,         // something persisted there that is not an attestation key
      KeyExists,       // creating was refused: the handle holds a key
      BankNotEnabled,  // the TPM has no such PCR bank enabled
      PcrsChanging,    // the PCRs were extended again at every attempt to quote them
      Tpm,             // the TPM or the way to it failed
   };
   Kind kind;
   String why;
   // Of the command that failed, success when none did.
   TSS2_RC rc = TSS2_RC_SUCCESS;
};

// A TPM reached through ESYS over a TCTI named by the loader's configuration
// ("device:/dev/tpmrm0", "swtpm:host=127.0.0.1,port=2321"). Both contexts are
// finalized with it, on every path. The TPM is not started: the firmware or
// the resource manager did that.
class TpmConnection {
 public:
   static constexpr std::chrono::milliseconds kDefaultDeadline{10000};

   // `deadline`: how long the response to one command is awaited; `name`:
   // how messages name the TPM, when not by `tcti` (which may hold a path
   // below a system root).
   explicit TpmConnection(String const &tcti, std::chrono::milliseconds deadline = kDefaultDeadline,
                          String name = {});
   TpmConnection(TpmConnection const &) = delete;
   TpmConnection &operator=(TpmConnection const &) = delete;
   ~TpmConnection();

   // Null when the connection failed; failure() then says why.
   ESYS_CONTEXT *esys() const { return esys_; }
   TSS2_RC failure() const { return failure_; }
   // The TCTI as messages name it.
   String const &tcti() const { return name_; }

   // Calls `finish`, an ESYS _Finish step of a command sent with its _Async
   // step, until the response is in or the deadline has passed: a TPM that
   // never answers must not hang its caller.
   template <class Finish>
   TSS2_RC await(Finish &&finish) const {
      auto const deadline = std::chrono::steady_clock::now() + deadline_;
      for (;;) {
         TSS2_RC const rc = finish();
         if (!tryAgain(rc) || std::chrono::steady_clock::now() >= deadline) return rc;
      }
   }

   // What failed doing `what`, through this TCTI, with the response code.
   TpmProblem problem(String const &what, TSS2_RC rc) const;

   // A response code as tpm2-tss decodes it, with its number:
   // "tcti:IO failure (0x000a000a)"; a response still awaited at the
   // deadline says so.
   String responseText(TSS2_RC rc) const;

   // The response is not in yet.
   static bool tryAgain(TSS2_RC rc) { return (rc & ~TSS2_RC_LAYER_MASK) == TSS2_BASE_RC_TRY_AGAIN; }
   // The TPM answered, with success or an error of its own. After any other
   // failure ESYS sends no further command.
   static bool answered(TSS2_RC rc) { return (rc & TSS2_RC_LAYER_MASK) == TSS2_TPM_RC_LAYER; }

 private:
   String name_;
   std::chrono::milliseconds deadline_;
   TSS2_TCTI_CONTEXT *tctiContext_ = nullptr;
   ESYS_CONTEXT *esys_ = nullptr;
   TSS2_RC failure_ = TSS2_RC_SUCCESS;
};

// What ESYS allocated for a response, freed with Esys_Free.
struct EsysFree {
   void operator()(void *p) const { Esys_Free(p); }
};
template <class T>
using EsysBuffer = std::unique_ptr<T, EsysFree>;

}  // namespace SentrelTpm
