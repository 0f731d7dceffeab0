#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "TestSupport.h"
#include "tests/EventLogWriter.h"
#include "tests/ToolsExtend.h"

// A switch's TPM driven by tpm2-tools, a peer independent of the code under
// test: a software TPM, attestation keys made by tpm2_createak under the
// endorsement key and persisted, PCRs extended as a log says
// (tpm2_pcrextend), quotes made by tpm2_quote and checked by tpm2_checkquote.
namespace SentrelTest {

struct ToolsQuote {
   String quoted;     // TPMS_ATTEST, as tpm2_quote -m writes it
   String signature;  // TPMT_SIGNATURE, as tpm2_quote -s writes it
   std::map<std::uint32_t, String> values;  // the quoted PCRs, read by tpm2_pcrread
   String pcrsFile;   // the same values as tpm2_quote -o writes them, for tpm2_checkquote
};

class ToolsQuoter {
 public:
   // A software TPM with the banks `banks` ("sha256").
   explicit ToolsQuoter(String const &banks = "sha256");
   // Empty when the TPM runs and the tools are there; else why not.
   String const &failure() const { return failure_; }

   // Makes an attestation key ("ecc": ECDSA P-256, "rsa": RSASSA 2048, both
   // SHA-256) persisted at `handle` (0x81010002); its PEM public key's file.
   std::optional<String> createAk(String const &handle, String const &type);
   // Extends every event of the log into the TPM, in order.
   bool extend(LogPlan const &plan);
   // tpm2_quote of `pcrs` of `bank` by the key at `handle`, with `nonce`.
   std::optional<ToolsQuote> quote(String const &handle, String const &nonce, String const &bank,
                                   std::vector<std::uint32_t> const &pcrs);
   // Whether tpm2_checkquote accepts `quoted` and `signature` with the key
   // in `akPem`, the PCR values of `pcrsFile` and `nonce`.
   bool checkquote(String const &akPem, String const &quoted, String const &signature, String const &pcrsFile,
                   String const &nonce);
   // What the last tool that failed said.
   String const &lastOutput() const { return last_; }
   String file(String const &name, String const &content) const { return dir_.file(name, content); }

 private:
   bool run(String const &command);
   SoftwareTpm tpm_;
   TempDir dir_;
   String failure_, last_;
   unsigned files_ = 0;
};

}  // namespace SentrelTest
