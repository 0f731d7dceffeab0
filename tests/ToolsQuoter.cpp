#include "tests/ToolsQuoter.h"

#include "Sentrel/platform/RunCommand.h"
#include "evidence/EventLog.h"

namespace SentrelTest {

using namespace SentrelEvidence;

namespace {

String list(std::vector<std::uint32_t> const &pcrs) {
   String out;
   for (auto const pcr : pcrs) out += (out.empty() ? "" : ",") + std::to_string(pcr);
   return out;
}

}  // namespace

ToolsQuoter::ToolsQuoter(String const &banks) : tpm_(banks) {
   if (!tpm_.running()) {
      failure_ = tpm_.failure();
      return;
   }
   for (char const *tool : {"tpm2_createek", "tpm2_createak", "tpm2_quote", "tpm2_pcrextend", "tpm2_checkquote"}) {
      if (Loom::runCommandForOutput(String("command -v ") + tool).exitCode != 0) {
         failure_ = String(tool) + " is not installed (tpm2-tools)";
         return;
      }
   }
   // The endorsement key, the attestation keys' parent; the TPM holds few
   // transient objects, so each tool's are flushed after it.
   if (!run("tpm2_createek -c ek.ctx -G ecc -u ek.pub && tpm2_flushcontext -t")) failure_ = "tpm2_createek: " + last_;
}

bool ToolsQuoter::run(String const &command) {
   auto const r = Loom::runCommandForOutput("cd " + dir_.path() + " && export TPM2TOOLS_TCTI='" + tpm_.tcti() +
                                            "' && exec 2>&1 && " + command);
   last_ = r.output;
   return r.exitCode == 0;
}

std::optional<String> ToolsQuoter::createAk(String const &handle, String const &type) {
   String const scheme = type == "rsa" ? "rsassa" : "ecdsa";
   String const pem = "ak-" + handle + ".pem";
   if (!run("tpm2_createak -C ek.ctx -c ak.ctx -G " + type + " -g sha256 -s " + scheme + " -u " + pem +
            " -f pem -n ak.name >/dev/null && tpm2_flushcontext -t && tpm2_evictcontrol -C o -c ak.ctx " + handle +
            " >/dev/null && tpm2_flushcontext -t")) {
      return std::nullopt;
   }
   return dir_.path() + "/" + pem;
}

bool ToolsQuoter::extend(LogPlan const &plan) { return extendWithTools(tpm_.tcti(), plan, last_); }

std::optional<ToolsQuote> ToolsQuoter::quote(String const &handle, String const &nonce, String const &bank,
                                             std::vector<std::uint32_t> const &pcrs) {
   String const n = std::to_string(++files_);
   String const selection = bank + ":" + list(pcrs);
   if (!run("tpm2_quote -c " + handle + " -l " + selection + " -q " + hexOf(nonce) + " -g sha256 -m q" + n +
            ".msg -s q" + n + ".sig -o q" + n + ".pcrs >/dev/null && tpm2_pcrread " + selection + " -o q" + n +
            ".values >/dev/null")) {
      return std::nullopt;
   }
   ToolsQuote q{slurp(dir_.path() + "/q" + n + ".msg"), slurp(dir_.path() + "/q" + n + ".sig"), {},
                dir_.path() + "/q" + n + ".pcrs"};
   // tpm2_pcrread -o writes the values end to end, in ascending order.
   String const values = slurp(dir_.path() + "/q" + n + ".values");
   std::size_t const size = values.size() / pcrs.size();
   auto sorted = pcrs;
   std::sort(sorted.begin(), sorted.end());
   for (std::size_t i = 0; i < sorted.size(); ++i) q.values[sorted[i]] = values.substr(i * size, size);
   return q;
}

bool ToolsQuoter::checkquote(String const &akPem, String const &quoted, String const &signature,
                             String const &pcrsFile, String const &nonce) {
   String const n = std::to_string(++files_);
   String const msg = dir_.file("check" + n + ".msg", quoted), sig = dir_.file("check" + n + ".sig", signature);
   return run("tpm2_checkquote -u " + akPem + " -m " + msg + " -s " + sig + " -f " + pcrsFile + " -g sha256 -q " +
              hexOf(nonce) + " >/dev/null");
}

}  // namespace SentrelTest
