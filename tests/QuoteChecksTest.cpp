// The five checks on quotes that a software TPM made through tpm2-tools,
// and tpm2_checkquote's own word on every quote the table makes of them.
#include <functional>
#include <gtest/gtest.h>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/TrustAnchors.h"
#include "attest/VerifyOptions.h"
#include "evidence/Cel.h"
#include "tests/SoftwareQuote.h"
#include "tests/ToolsQuoter.h"

using namespace SentrelTest;
using namespace SentrelAttest;
using SentrelEvidence::kAlgSha256;

namespace {

String const kNonce = "a nonce of thirty-two bytes, ok!";
String const kEcc = "0x81010002", kRsa = "0x81010003";

std::vector<PublicKey> keysIn(String const &file) {
   String problem;
   auto keys = readPublicKeys(slurp(file), problem);
   EXPECT_FALSE(keys.empty()) << file << ": " << problem;
   return keys;
}

AttestResponse responseOf(ToolsQuote const &q, String const &eventLog) {
   AttestResponse r;
   for (auto const &[pcr, value] : q.values) (*r.mutable_pcr_values())[static_cast<std::int32_t>(pcr)] = value;
   r.set_quoted(q.quoted);
   r.set_quote_signature(q.signature);
   r.set_eventlog_bytes(eventLog);
   return r;
}

// Checks 2 to 4 alone, with one key: what tpm2_checkquote checks.
bool checks2to4(AttestResponse const &r, PublicKey const &key, String const &nonce) {
   auto const signer = checkSignature(r.quoted(), r.quote_signature(), {key});
   if (!std::holds_alternative<Signer>(signer)) return false;
   auto const quote = checkQuote(r.quoted(), Expectation{nonce, kAlgSha256, std::nullopt, {}}, r.pcr_values());
   if (!std::holds_alternative<QuoteInfo>(quote)) return false;
   return !checkPcrDigest(std::get<QuoteInfo>(quote), r.pcr_values(), kAlgSha256, std::get<Signer>(signer).hash);
}

String openssl(String const &dir, String const &command) {
   auto const r = Loom::runCommandForOutput("cd " + dir + " && exec 2>&1 && " + command);
   EXPECT_EQ(r.exitCode, 0) << command << "\n" << r.output;
   return r.output;
}

struct Quotes : ::testing::Test {
   void SetUp() override {
      if (!tpm.failure().empty()) GTEST_SKIP() << tpm.failure();
      ecc = tpm.createAk(kEcc, "ecc").value_or("");
      rsa = tpm.createAk(kRsa, "rsa").value_or("");
      ASSERT_FALSE(ecc.empty() || rsa.empty()) << tpm.lastOutput();
      ASSERT_TRUE(tpm.extend(plan)) << tpm.lastOutput();
   }
   ToolsQuote quote(String const &handle) {
      auto q = tpm.quote(handle, kNonce, "sha256", defaultPcrs());
      EXPECT_TRUE(q) << tpm.lastOutput();
      return q.value_or(ToolsQuote{});
   }
   ToolsQuoter tpm;
   String ecc, rsa;
   LogPlan const plan = smallBoot();
   Boot const boot = bootOf(plan, kAlgSha256);
};

}  // namespace

TEST_F(Quotes, TrustedAndEachFaultNamedByItsCheck) {
   ToolsQuote const byEcc = quote(kEcc), byRsa = quote(kRsa);
   // The same quote after PCR 4 moved on: its values are not those of byEcc.
   LogPlan later{.banks = {kAlgSha256}};
   later.events.push_back({4, SentrelEvidence::EV_EFI_ACTION, "Exit Boot Services Invocation", {}});
   ASSERT_TRUE(tpm.extend(later));
   ToolsQuote const moved = quote(kEcc);
   String const binaryLog = writeEventLog(plan);
   auto const otherBaseline = std::get<SentrelEvidence::EventLog>(
      SentrelEvidence::parseCanonicalEventLog(bootOf(smallBoot("\\EFI\\BOOT\\grub2.efi"), kAlgSha256).eventLog));
   auto const ownBaseline =
      std::get<SentrelEvidence::EventLog>(SentrelEvidence::parseCanonicalEventLog(boot.eventLog));
   SoftwareAttestationKey const stranger;
   String const strangerPem = tpm.file("stranger.pem", stranger.publicKeyPem());
   LogPlan unborne = plan;
   unborne.events.push_back({4, SentrelEvidence::EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\BOOT\\evil.efi"), {}});

   // What a case starts from: the ECDSA quote, its log, its key and values.
   struct Setting {
      AttestResponse response;
      Expectation expected;
      String keyPem;    // the key tpm2_checkquote is given, and checks 2-4 here
      String pcrsFile;  // tpm2_quote's file of pcr_values; empty where the values are made up here
   };
   struct Case {
      char const *name;
      std::function<void(Setting &)> change;
      std::optional<Check> failed;  // none: trusted
      String reason;                // a part of it
   };
   std::vector<Case> const cases{
      {"a canonical event log", [](Setting &) {}, std::nullopt, ""},
      {"the binary log", [&](Setting &s) { s.response.set_eventlog_bytes(binaryLog); }, std::nullopt, ""},
      {"the baseline it was made from", [&](Setting &s) { s.expected.baseline = &ownBaseline; }, std::nullopt, ""},
      {"an RSA attestation key",
       [&](Setting &s) {
          s.response = responseOf(byRsa, boot.eventLog);
          s.expected.trust.keys = keysIn(rsa);
          s.keyPem = rsa;
          s.pcrsFile = byRsa.pcrsFile;
       },
       std::nullopt, ""},
      {"the PCRs asked for, given offline", [&](Setting &s) { s.expected.pcrs = parsePcrList("0-9,12-14"); },
       std::nullopt, ""},
      {"another nonce", [](Setting &s) { s.expected.nonce = "another nonce, thirty-two bytes!"; }, Check::Quote,
       "the quote is not of this nonce: its extraData is " + SentrelEvidence::hexOf(kNonce)},
      {"a changed byte of quoted",
       [](Setting &s) {
          String q = s.response.quoted();
          q[q.size() - 40] ^= 1;
          s.response.set_quoted(q);
       },
       Check::Signature, "the signature does not verify with the attestation key"},
      {"a signature made by an untrusted key",
       [&](Setting &s) {
          s.expected.trust.keys = keysIn(strangerPem);
          s.keyPem = strangerPem;
       },
       Check::Signature, "the signature does not verify with the attestation key"},
      {"no key trusted", [](Setting &s) { s.expected.trust.keys.clear(); }, Check::Key,
       "no attestation key is trusted for this switch"},
      {"PCR values other than those quoted",
       [&](Setting &s) {
          s.response = responseOf(moved, boot.eventLog);
          s.response.set_quoted(byEcc.quoted);
          s.response.set_quote_signature(byEcc.signature);
          s.pcrsFile = moved.pcrsFile;
       },
       Check::PcrDigest, "the quote's pcrDigest is not the digest of pcr_values"},
      {"a PCR left out of pcr_values",
       [](Setting &s) {
          s.response.mutable_pcr_values()->erase(14);
          s.pcrsFile.clear();
       },
       Check::Quote, "pcr_values holds PCRs 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, the quote selects 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14"},
      {"a PCR value of the wrong size",
       [](Setting &s) {
          (*s.response.mutable_pcr_values())[9] = String(20, '\0');
          s.pcrsFile.clear();
       },
       Check::PcrDigest, "pcr_values holds 20 bytes for PCR 9, not the 32 of sha256"},
      {"other PCRs than asked for", [](Setting &s) { s.expected.pcrs = parsePcrList("0-7"); }, Check::Quote,
       "the quote selects PCRs 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14, not the 0, 1, 2, 3, 4, 5, 6, 7 asked for"},
      {"another bank asked for", [](Setting &s) { s.expected.bank = SentrelEvidence::kAlgSha384; }, Check::Quote,
       "the quote selects PCRs of sha256, not only of sha384"},
      {"a log the quoted PCRs do not bear out",
       [&](Setting &s) { s.response.set_eventlog_bytes(bootOf(unborne, kAlgSha256).eventLog); }, Check::EventLog,
       "PCR sha256:4 does not bear out the log"},
      {"a log cut short",
       [&](Setting &s) { s.response.set_eventlog_bytes(binaryLog.substr(0, binaryLog.size() - 9)); }, Check::EventLog,
       "eventlog_bytes: event "},
      {"no log", [](Setting &s) { s.response.clear_eventlog_bytes(); }, Check::EventLog,
       "the response carries no event log"},
      {"a boot application other than the baseline's",
       [&](Setting &s) { s.expected.baseline = &otherBaseline; }, Check::EventLog,
       "differs from the baseline at 4: event 12 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\grubx64.efi"},
      {"a log extending a PCR not asked for",
       [&](Setting &s) {
          auto const q = tpm.quote(kEcc, kNonce, "sha256", {0, 1, 2, 3, 4, 5, 6, 7});
          ASSERT_TRUE(q);
          s.response = responseOf(*q, boot.eventLog);
          s.pcrsFile = q->pcrsFile;
       },
       Check::EventLog, "sha256 PCR 9, 14 were not quoted, and the log extends it"},
   };
   std::map<bool, int> toolsSaid;  // how often tpm2_checkquote accepted and refused
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      Setting s{responseOf(byEcc, boot.eventLog), Expectation{kNonce, kAlgSha256, std::nullopt, {keysIn(ecc), nullptr}},
                ecc, byEcc.pcrsFile};
      c.change(s);
      Judgement const j = judge(s.response, s.expected);
      EXPECT_EQ(j.verdict, c.failed ? Verdict::Untrusted : Verdict::Trusted) << j.reason;
      EXPECT_EQ(j.failed, c.failed) << j.reason;
      EXPECT_NE(j.reason.find(c.reason), String::npos) << j.reason;
      if (!c.failed) {
         EXPECT_TRUE(j.reason.empty()) << j.reason;
      }
      // tpm2_checkquote, given the same key, nonce, quote and values, agrees with checks 2-4.
      if (!s.pcrsFile.empty()) {
         bool const tools = tpm.checkquote(s.keyPem, s.response.quoted(), s.response.quote_signature(), s.pcrsFile,
                                           s.expected.nonce);
         EXPECT_EQ(checks2to4(s.response, keysIn(s.keyPem)[0], s.expected.nonce), tools) << tpm.lastOutput();
         ++toolsSaid[tools];
      }
   }
   EXPECT_EQ(toolsSaid, (std::map<bool, int>{{false, 4}, {true, 13}}));
}

TEST_F(Quotes, CertificatesChainToTheOwnerCaAndCertifyTheKey) {
   ToolsQuote const q = quote(kEcc);
   TempDir ca;
   // The owner's root, an intermediate CA, and the attestation key's
   // certificate; and a CA the owner never heard of.
   openssl(ca.path(),
           "for n in root other; do openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
           "-keyout $n.key -out $n.pem -subj /CN=$n -days 2; done && "
           "printf 'basicConstraints=critical,CA:TRUE\\nkeyUsage=critical,keyCertSign\\n' >ca.ext && "
           "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout int.key -subj /CN=int "
           "-out int.csr && openssl x509 -req -in int.csr -CA root.pem -CAkey root.key -days 1 -extfile ca.ext "
           "-out int.pem && "
           "openssl x509 -new -force_pubkey " + ecc + " -subj /CN=leaf1-ak -CA int.pem -CAkey int.key -days 1 "
           "-out ak.pem && cat ak.pem int.pem >chain.pem && "
           "openssl x509 -new -force_pubkey " + ecc + " -subj /CN=leaf1-ak -CA other.pem -CAkey other.key -days 1 "
           "-out stray.pem && "
           "openssl x509 -new -force_pubkey " + rsa + " -subj /CN=leaf2-ak -CA int.pem -CAkey int.key -days 1 "
           "-out rsa.pem && cat rsa.pem int.pem >rsa-chain.pem");
   String problem;
   CaStore const root = readCaStore(slurp(ca.path() + "/root.pem"), problem);
   ASSERT_TRUE(root) << problem;

   struct Case {
      char const *name;
      String certificate;  // attestation_cert.oiak_cert
      bool withOwnerCa;
      String akFile;  // --ak, or none
      std::optional<Check> failed;
      String reason;
   };
   std::vector<Case> const cases{
      {"a chain through an intermediate", slurp(ca.path() + "/chain.pem"), true, "", std::nullopt, ""},
      {"a chain that stops short of the intermediate", slurp(ca.path() + "/ak.pem"), true, "", Check::Key,
       "does not chain to --owner-ca: unable to get local issuer certificate"},
      {"a certificate of another CA", slurp(ca.path() + "/stray.pem"), true, "", Check::Key,
       "does not chain to --owner-ca: unable to get local issuer certificate"},
      {"a chained certificate of another key", slurp(ca.path() + "/rsa-chain.pem"), true, "", Check::Signature,
       "the signature does not verify with the attestation key"},
      {"a certificate of the key given by --ak, no CA", slurp(ca.path() + "/stray.pem"), false, ecc, std::nullopt, ""},
      {"a certificate of another key than --ak's", slurp(ca.path() + "/rsa.pem"), false, ecc, Check::Key,
       "the attestation certificate's key is not the attestation key trusted for this switch"},
      {"no certificate, only the owner's CA", "", true, "", Check::Key,
       "the response carries no attestation certificate for --owner-ca to check"},
      {"a certificate that is not PEM", "MIIBkTCB+wIJAK", true, "", Check::Key,
       "the attestation certificate cannot be read: no PEM CERTIFICATE"},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      AttestResponse r = responseOf(q, boot.eventLog);
      if (!c.certificate.empty()) r.mutable_attestation_cert()->set_oiak_cert(c.certificate);
      Expectation const e{kNonce, kAlgSha256, std::nullopt,
                          Trust{c.akFile.empty() ? std::vector<PublicKey>{} : keysIn(c.akFile),
                                c.withOwnerCa ? root.get() : nullptr}};
      Judgement const j = judge(r, e);
      EXPECT_EQ(j.failed, c.failed) << j.reason;
      EXPECT_NE(j.reason.find(c.reason), String::npos) << j.reason;
   }
}
