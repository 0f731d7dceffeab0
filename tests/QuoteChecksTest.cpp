// The five checks on quotes that a software TPM made through tpm2-tools, a
// peer independent of the code under test, and tpm2_checkquote's own word on
// every quote the table makes of them.
#include <functional>
#include <gtest/gtest.h>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/TrustAnchors.h"
#include "attest/VerifyOptions.h"
#include "tests/SoftwareQuote.h"
#include "tests/ToolsExtend.h"

using namespace SentrelTest;
using namespace SentrelAttest;
using namespace SentrelEvidence;

namespace {

String const kNonce = "a nonce of thirty-two bytes, ok!";

// Checks 2 to 4 alone, with one key: what tpm2_checkquote checks.
bool checks2to4(AttestResponse const &r, PublicKey const &key, String const &nonce) {
   auto const signer = checkSignature(r.quoted(), r.quote_signature(), {key});
   if (!std::holds_alternative<Signer>(signer)) return false;
   auto const quote = checkQuote(r.quoted(), Expectation{nonce, kAlgSha256, std::nullopt, {}}, r.pcr_values());
   if (!std::holds_alternative<QuoteInfo>(quote)) return false;
   return !checkPcrDigest(std::get<QuoteInfo>(quote), r.pcr_values(), kAlgSha256, std::get<Signer>(signer).hash);
}

}  // namespace

TEST(QuoteChecks, TrustedAndEachFaultNamedByItsCheck) {
   SoftwareTpm tpm{"sha256"};
   if (!tpm.running()) GTEST_SKIP() << tpm.failure();
   TempDir dir;
   String said;
   // Runs `command` in the test's folder, tpm2-tools reaching the TPM.
   auto const shell = [&](String const &command) {
      auto const r = Loom::runCommandForOutput("cd " + dir.path() + " && export TPM2TOOLS_TCTI='" + tpm.tcti() +
                                               "' && exec 2>&1 && " + command);
      said = r.output;
      return r.exitCode == 0;
   };
   if (!shell("command -v tpm2_checkquote")) GTEST_SKIP() << "tpm2-tools is not installed";
   Loom::commandTimeoutIs(std::chrono::seconds(60));
   LogPlan const plan = smallBoot();
   ASSERT_TRUE(extendWithTools(tpm.tcti(), plan, said)) << said;
   // An ECDSA and an RSA attestation key under the endorsement key, each
   // tool's transient objects flushed (the TPM holds few); the owner's root
   // and intermediate CA, and a CA the owner never heard of, certifying the
   // ECDSA key.
   ASSERT_TRUE(shell("ak() { tpm2_createak -C ek.ctx -c ak.ctx -G $1 -g sha256 -s $2 -u $1.pem -f pem && "
                     "tpm2_flushcontext -t && tpm2_evictcontrol -C o -c ak.ctx $3 && tpm2_flushcontext -t; } && "
                     "tpm2_createek -c ek.ctx -G ecc && tpm2_flushcontext -t && ak ecc ecdsa 0x81010002 && "
                     "ak rsa rsassa 0x81010003 && for n in root other; do openssl req -x509 -newkey ec -pkeyopt "
                     "ec_paramgen_curve:P-256 -nodes -keyout $n.key -out $n.pem -subj /CN=$n; done && openssl req "
                     "-x509 -CA root.pem -CAkey root.key -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "
                     "int.key -out int.pem -subj /CN=int && cert() { openssl x509 -new -force_pubkey ecc.pem -subj "
                     "/CN=ak -CA $1.pem -CAkey $1.key; } && cert int | cat - int.pem >chain.pem && "
                     "cert other >stray.pem"))
      << said;
   // A switch's response: tpm2_quote of `pcrs` of sha256 by the key at
   // `handle`, with the values it quoted; and for tpm2_checkquote, by the
   // values, the file of them that tpm2_quote wrote (one of each).
   Boot const boot = bootOf(plan, kAlgSha256);
   std::map<String, String> pcrsFiles;
   auto const quote = [&](String const &handle, String const &pcrs) {
      AttestResponse r;
      String const file = dir.path() + "/q" + std::to_string(pcrsFiles.size() + 1) + ".pcrs";
      EXPECT_TRUE(shell("tpm2_quote -c " + handle + " -l sha256:" + pcrs + " -q " + hexOf(kNonce) +
                        " -g sha256 -m q.msg -s q.sig -o " + file + " >/dev/null && tpm2_pcrread -o q.values sha256:" +
                        pcrs + " >/dev/null"))
         << said;
      String const values = slurp(dir.path() + "/q.values");  // in ascending order, end to end
      pcrsFiles.emplace(values, file);
      for (std::int32_t pcr = 0, i = 0; pcr < 24; ++pcr) {
         if (parsePcrList(pcrs)[pcr]) (*r.mutable_pcr_values())[pcr] = values.substr(32 * i++, 32);
      }
      r.set_quoted(slurp(dir.path() + "/q.msg"));
      r.set_quote_signature(slurp(dir.path() + "/q.sig"));
      r.set_eventlog_bytes(boot.eventLog);
      return r;
   };
   String const asked = "0,1,2,3,4,5,6,7,8,9,12,13,14";
   AttestResponse const byEcc = quote("0x81010002", asked), byRsa = quote("0x81010003", asked),
                        eight = quote("0x81010002", "0,1,2,3,4,5,6,7");
   // The same PCRs after PCR 4 moved on: their values are not those byEcc quoted, nor borne out by the log.
   ASSERT_TRUE(extendWithTools(tpm.tcti(), {.banks = {kAlgSha256}, .events = {{4, EV_EFI_ACTION, "Exit", {}}}}, said));
   AttestResponse const moved = quote("0x81010002", asked);
   auto const baseline =
      std::get<EventLog>(parseCanonicalEventLog(bootOf(smallBoot("\\EFI\\BOOT\\grub2.efi"), kAlgSha256).eventLog));
   String problem;
   CaStore const root = readCaStore(slurp(dir.path() + "/root.pem"), problem);
   ASSERT_TRUE(root) << problem;

   // What a case changes: the ECDSA quote with its log and values, the key
   // trusted (and given to tpm2_checkquote), what is expected.
   struct Setting {
      AttestResponse r;
      String ak;
      Expectation e;
      PublicKey key;
   };
   auto const trust = [&](Setting &s, String const &pem) {
      s.key = readPublicKeys(slurp(s.ak = pem), problem).at(0);
      s.e.trust.keys = {s.key};
   };
   String const stranger = dir.file("stranger.pem", SoftwareAttestationKey().publicKeyPem());
   auto const certified = [&](Setting &s, char const *chain) {
      s.r.mutable_attestation_cert()->set_oiak_cert(slurp(dir.path() + chain));
      s.e.trust = {{}, root.get()};
   };
   std::vector<std::tuple<char const *, std::function<void(Setting &)>, std::optional<Check>, String>> const cases{
      {"canonical log", [](Setting &) {}, std::nullopt, ""},
      {"binary log", [&](Setting &s) { s.r.set_eventlog_bytes(writeEventLog(plan)); }, std::nullopt, ""},
      {"RSA", [&](Setting &s) { s.r = byRsa; trust(s, dir.path() + "/rsa.pem"); }, std::nullopt, ""},
      {"chain", [&](Setting &s) { certified(s, "/chain.pem"); }, std::nullopt, ""},
      {"no key", [](Setting &s) { s.e.trust.keys.clear(); }, Check::Key, "no attestation key is trusted for this"},
      {"no chain", [&](Setting &s) { certified(s, "/stray.pem"); }, Check::Key,
       "does not chain to --owner-ca: unable to get local issuer certificate"},
      {"byte", [](Setting &s) { (*s.r.mutable_quoted())[s.r.quoted().size() - 40] ^= 1; }, Check::Signature,
       "the signature does not verify with the attestation key"},
      {"untrusted key", [&](Setting &s) { trust(s, stranger); }, Check::Signature,
       "the signature does not verify with the attestation key"},
      {"nonce", [](Setting &s) { s.e.nonce = "another nonce"; }, Check::Quote,
       "the quote is not of this nonce: its extraData is " + hexOf(kNonce)},
      {"PCRs", [](Setting &s) { s.e.pcrs = parsePcrList("0-7"); }, Check::Quote,
       "the quote selects PCRs 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14, not the 0, 1, 2, 3, 4, 5, 6, 7 asked for"},
      {"values", [&](Setting &s) { *s.r.mutable_pcr_values() = moved.pcr_values(); }, Check::PcrDigest,
       "the quote's pcrDigest is not the digest of pcr_values"},
      {"unborne log", [&](Setting &s) { s.r = moved; }, Check::EventLog, "PCR sha256:4 does not bear out the log"},
      {"no log", [](Setting &s) { s.r.clear_eventlog_bytes(); }, Check::EventLog, "the response carries no event log"},
      {"baseline", [&](Setting &s) { s.e.baseline = &baseline; }, Check::EventLog,
       "differs from the baseline at 4: event 12 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\grubx64.efi"},
      {"unquoted PCRs", [&](Setting &s) { s.r = eight; }, Check::EventLog,
       "sha256 PCR 9, 14 were not quoted, and the log extends it"},
   };
   std::map<bool, int> toolsSaid;  // how often tpm2_checkquote accepted and refused
   for (auto const &[name, change, failed, reason] : cases) {
      Setting s{byEcc, "", {kNonce, kAlgSha256, std::nullopt, {}}, nullptr};
      trust(s, dir.path() + "/ecc.pem");
      change(s);
      Judgement const j = judge(s.r, s.e);
      EXPECT_EQ(j.verdict, failed ? Verdict::Untrusted : Verdict::Trusted) << name << ": " << j.reason;
      EXPECT_EQ(j.failed, failed) << name << ": " << j.reason;
      EXPECT_NE(j.reason.find(reason), String::npos) << name << ": " << j.reason;
      // tpm2_checkquote, given the same key, nonce, quote and values, agrees with checks 2 to 4.
      String values;
      for (auto const &[pcr, value] : std::map<int, String>(s.r.pcr_values().begin(), s.r.pcr_values().end())) {
         values += value;
      }
      bool const accepted = shell("tpm2_checkquote -u " + s.ak + " -m " + dir.file("m", s.r.quoted()) + " -s " +
                                  dir.file("s", s.r.quote_signature()) + " -f " + pcrsFiles.at(values) +
                                  " -g sha256 -q " + hexOf(s.e.nonce));
      EXPECT_EQ(checks2to4(s.r, s.key, s.e.nonce), accepted) << name << ": " << said;
      ++toolsSaid[accepted];
   }
   EXPECT_EQ(toolsSaid, (std::map<bool, int>{{false, 4}, {true, 11}}));
}
