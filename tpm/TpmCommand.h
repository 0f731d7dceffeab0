#pragma once

#include "tpm/TpmConnection.h"

namespace SentrelTpm {

// One TPM command through its ESYS _Async and _Finish steps, the response
// awaited within the connection's deadline.
template <class Start, class Finish>
TSS2_RC command(TpmConnection const &tpm, Start &&start, Finish &&finish) {
   TSS2_RC const rc = start();
   return rc == TSS2_RC_SUCCESS ? tpm.await(finish) : rc;
}

}  // namespace SentrelTpm
