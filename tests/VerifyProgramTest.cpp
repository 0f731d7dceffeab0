// The built sentrel-verify against switches made up here: attestz services
// that quote with a software key, answer with garbage, sleep past the
// deadline, reset the connection or never listened; saved responses checked
// offline; the inventory; TLS; the reports.
#include <filesystem>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/Fleet.h"
#include "attest/ResponseJson.h"
#include "attest/TrustAnchors.h"
#include "evidence/Cel.h"
#include "tests/FakeAttestzServer.h"
#include "tests/SoftwareQuote.h"

using namespace SentrelTest;
using SentrelEvidence::kAlgSha256;

extern char **environ;

namespace {

struct VerifyRun {
   int exitCode;
   String out;
   String err;
};

String quoted(String const &s) {
   String q = "'";
   for (char c : s) q += c == '\'' ? String("'\\''") : String(1, c);
   return q + "'";
}

VerifyRun runVerify(std::vector<String> const &args) {
   TempDir io;
   String cmd = quoted(SENTREL_VERIFY_PATH);
   for (auto const &a : args) cmd += " " + quoted(a);
   cmd += " </dev/null >" + quoted(io.path() + "/out") + " 2>" + quoted(io.path() + "/err");
   int const status = std::system(cmd.c_str());
   return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(io.path() + "/out"),
           slurp(io.path() + "/err")};
}

std::vector<std::uint32_t> asked(AttestRequest const &request) {
   return {request.pcr_indices().begin(), request.pcr_indices().end()};
}

// A switch that quotes what it is asked for with a software key, over the
// boot of `plan`.
struct SoftwareSwitch {
   explicit SoftwareSwitch(LogPlan const &plan = smallBoot()) : boot(bootOf(plan, kAlgSha256)) {}
   SoftwareAttestationKey key;
   Boot boot;
   FakeAttestzServer server{[this](grpc::ServerContext &, AttestRequest const &request, AttestResponse &response) {
      response = key.respond(request.nonce(), boot, kAlgSha256, asked(request));
      return grpc::Status::OK;
   }};
};

// The switches' reports by name: verdict and reason.
std::map<String, std::pair<String, String>> verdicts(String const &json) {
   std::map<String, std::pair<String, String>> out;
   auto const doc = parseJson(json);
   if (!doc.IsObject() || !doc.HasMember("switches")) return out;
   for (auto const &s : doc["switches"].GetArray()) {
      out[s["name"].GetString()] = {s["verdict"].GetString(), s["reason"].GetString()};
   }
   return out;
}

}  // namespace

TEST(VerifyProgram, UsageErrorsNameTheOptionAndTheProblem) {
   TempDir d;
   String const ak = d.file("ak.pem", SoftwareAttestationKey().publicKeyPem());
   String const notKey = d.file("not-a-key.pem", "hello\n");
   String const inventory = d.file("inventory.json", R"({"switches": [{"name": "leaf1", "address": "10.0.0.1"}]})");
   std::vector<std::pair<std::vector<String>, String>> const cases{
      {{}, "name the switches: --target NAME=HOST:PORT or --inventory FILE"},
      {{"--target", "leaf1"}, "--target takes NAME=HOST:PORT"},
      {{"--target", "le/af=127.0.0.1:9339"}, "--target takes NAME=HOST:PORT"},
      {{"--target", "leaf1=127.0.0.1:99999"}, "--target takes NAME=HOST:PORT"},
      {{"--target", "leaf1=127.0.0.1:9339"}, "switch leaf1: no attestation key is trusted for it"},
      {{"--target", "leaf1=10.0.0.1:9339", "--ak", ak}, "switch leaf1 at 10.0.0.1:9339: plaintext only to a loopback address"},
      {{"--target", "a=127.0.0.1:1", "--target", "a=127.0.0.1:2", "--ak", ak}, "--target a is given twice"},
      {{"--target", "a=127.0.0.1:1", "--ak", d.path() + "/none.pem"}, "--ak " + d.path() + "/none.pem: No such file"},
      {{"--target", "a=127.0.0.1:1", "--ak", notKey}, "--ak " + notKey + ": no PEM PUBLIC KEY (BEGIN PUBLIC KEY) in it"},
      {{"--target", "a=127.0.0.1:1", "--owner-ca", ak}, "PEM block 1 is a PUBLIC KEY, not a CERTIFICATE"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--pcrs", "0-24"}, "--pcrs takes PCRs 0-23"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--pcrs", "7-3"}, "--pcrs takes PCRs 0-23"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--bank", "md5"}, "--bank takes sha1, sha256, sha384 or sha512"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--jobs", "1001"}, "--jobs takes a number from 1 to 1000"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--timeout", "-1"}, "--timeout takes seconds"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--format", "xml"}, "--format takes text, json or openmetrics"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--tls-cert", ak}, "--tls-cert and --tls-key go together"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--tls-ca", ak}, "--tls-ca " + ak + ": PEM block 1 is a PUBLIC KEY"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--save", ak}, "--save " + ak + ": not a folder"},
      {{"--target", "a=127.0.0.1:1", "--ak", ak, "--baseline", notKey}, "--baseline " + notKey + ": "},
      {{"--inventory", inventory, "--ak", ak}, inventory + ": byte 43: address \"10.0.0.1\" is not HOST:PORT"},
      {{"--response", ak}, "--response needs the --nonce it was asked with"},
      {{"--response", ak, "--nonce", "00", "--target", "a=127.0.0.1:1"}, "does not go with --target"},
      {{"--response", ak, "--nonce", "0g"}, "--nonce takes 1 to 64 bytes in hex"},
      {{"--response", ak, "--nonce", "00"}, "--response needs what its attestation key is trusted by"},
      {{"--response", ak, "--nonce", "00", "--ak", ak}, "--response " + ak + ": not an AttestResponse"},
      {{"--nonce", "00", "--target", "a=127.0.0.1:1", "--ak", ak}, "--nonce goes with --response"},
      {{"--frobnicate"}, "unknown argument '--frobnicate'"},
   };
   for (auto const &[args, message] : cases) {
      SCOPED_TRACE(args.empty() ? "" : args.front() + " " + (args.size() > 1 ? args[1] : ""));
      VerifyRun const r = runVerify(args);
      EXPECT_EQ(r.exitCode, 2);
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(r.err.rfind("sentrel-verify: ", 0), 0u) << r.err;
      EXPECT_NE(r.err.find(message), String::npos) << r.err;
   }
}

TEST(VerifyProgram, SavedResponseCheckedOffline) {
   TempDir d;
   SoftwareAttestationKey const key;
   String const nonce = "0123456789abcdef";
   auto const response = key.respond(nonce, bootOf(smallBoot(), kAlgSha256), kAlgSha256, defaultPcrs());
   String const ak = d.file("ak.pem", key.publicKeyPem());
   String const json = *SentrelAttest::responseToJson(response);
   // Either field-name style of protobuf's JSON mapping.
   String camel;
   ASSERT_TRUE(google::protobuf::util::MessageToJsonString(response, &camel).ok());
   ASSERT_NE(camel.find("\"quoteSignature\""), String::npos);
   for (String const &text : {json, camel}) {
      String const file = d.file("leaf1.json", text);
      VerifyRun const r = runVerify({"--response", file, "--nonce", SentrelEvidence::hexOf(nonce), "--ak", ak});
      EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
      EXPECT_EQ(r.out, file + "\n  verdict               trusted\n"
                              "  event log             crypto-agile, 15 events, banks sha256; replayed sha256\n\n"
                              "1 trusted, 0 untrusted, 0 unreachable\n");
      EXPECT_EQ(r.err, "");
   }
   // The PCRs asked for, given offline; another nonce.
   String const file = d.file("leaf1.json", json);
   VerifyRun const pcrs = runVerify({"--response", file, "--nonce", SentrelEvidence::hexOf(nonce), "--ak", ak, "--pcrs", "0-7"});
   EXPECT_EQ(pcrs.exitCode, 1);
   EXPECT_NE(pcrs.out.find("  reason                check 3 (quote): the quote selects PCRs 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, "
                           "12, 13, 14, not the 0, 1, 2, 3, 4, 5, 6, 7 asked for\n"),
             String::npos)
      << pcrs.out;
   VerifyRun const other = runVerify({"--response", file, "--nonce", "00", "--ak", ak, "--format", "json"});
   EXPECT_EQ(other.exitCode, 1);
   std::pair<String, String> const expected{
      "untrusted", "check 3 (quote): the quote is not of this nonce: its extraData is " + SentrelEvidence::hexOf(nonce)};
   EXPECT_EQ(verdicts(other.out)[file], expected);
}

TEST(VerifyProgram, HostileSavedResponsesAreRefusedCleanly) {
   TempDir d;
   SoftwareAttestationKey const key;
   String const nonce = "0123456789abcdef";
   auto const good = key.respond(nonce, bootOf(smallBoot(), kAlgSha256), kAlgSha256, defaultPcrs());
   String const ak = d.file("ak.pem", key.publicKeyPem());
   String const json = *SentrelAttest::responseToJson(good);
   auto changed = [&](auto change) {
      auto r = good;
      change(r);
      return *SentrelAttest::responseToJson(r);
   };
   // The saved file's text, the exit status, and what is said about it.
   std::vector<std::tuple<char const *, String, int, String>> const cases{
      {"cut short", json.substr(0, json.size() / 2), 2, "not an AttestResponse in protobuf's JSON mapping"},
      {"not JSON", "\x7f" "ELF\x02\x01\x01", 2, "not an AttestResponse in protobuf's JSON mapping"},
      {"an unknown field", R"({"quoted": "", "pcrDigest": "AA=="})", 2, "not an AttestResponse"},
      {"bytes that are not base64", R"({"quoted": "!!!!"})", 2, "not an AttestResponse"},
      {"a signature of the wrong size",
       changed([](AttestResponse &r) { r.set_quote_signature(r.quote_signature() + "\x01\x02"); }), 1,
       "check 2 (signature): quote_signature holds 2 bytes past its TPMT_SIGNATURE"},
      {"a signature cut short",
       changed([](AttestResponse &r) { r.set_quote_signature(r.quote_signature().substr(0, 40)); }), 1,
       "check 2 (signature): quote_signature is not a TPMT_SIGNATURE (40 bytes)"},
      {"a signature of another algorithm",
       changed([](AttestResponse &r) {
          String s = r.quote_signature();
          s[1] = 0x1a;  // TPM_ALG_ECSCHNORR
          r.set_quote_signature(s);
       }),
       1, "check 2 (signature): the quote is signed with 0x001a, not ECDSA or RSA"},
      {"a signature of no algorithm",
       changed([](AttestResponse &r) {
          String s = r.quote_signature();
          s[1] = 0x7f;
          r.set_quote_signature(s);
       }),
       1, "check 2 (signature): quote_signature is not a TPMT_SIGNATURE"},
      {"quoted cut short", changed([](AttestResponse &r) { r.set_quoted(r.quoted().substr(0, 30)); }), 1,
       "check 2 (signature): the signature does not verify"},
      {"an empty response", "{}", 1, "check 2 (signature): quote_signature is not a TPMT_SIGNATURE (0 bytes)"},
      {"a log of garbage", changed([](AttestResponse &r) { r.set_eventlog_bytes(String(3000, '\xff')); }), 1,
       "check 5 (event log): eventlog_bytes: "},
      {"a log of JSON garbage", changed([](AttestResponse &r) { r.set_eventlog_bytes("[[[[[[[[[[[[[[[[[[[["); }), 1,
       "check 5 (event log): eventlog_bytes: "},
   };
   for (auto const &[name, text, exitCode, message] : cases) {
      SCOPED_TRACE(name);
      String const file = d.file("saved.json", text);
      VerifyRun const r = runVerify({"--response", file, "--nonce", SentrelEvidence::hexOf(nonce), "--ak", ak});
      EXPECT_EQ(r.exitCode, exitCode) << r.out << r.err;
      EXPECT_NE((exitCode == 2 ? r.err : r.out).find(message), String::npos) << r.out << r.err;
      // Said once, in the verdict: no library adds its own lines.
      if (exitCode != 2) {
         EXPECT_EQ(r.err, "");
      }
   }
}

TEST(VerifyProgram, EachSwitchItsVerdictWhateverTheOthersDo) {
   TempDir d;
   SoftwareSwitch live, stranger;
   LogPlan changed = smallBoot();
   changed.events.push_back({4, SentrelEvidence::EV_EFI_BOOT_SERVICES_APPLICATION, imageLoadData("\\EFI\\evil.efi"), {}});
   // A switch whose log says more than its PCRs hold.
   SoftwareSwitch lying;
   lying.boot.eventLog = bootOf(changed, kAlgSha256).eventLog;
   FakeAttestzServer sleepy([](grpc::ServerContext &c, AttestRequest const &, AttestResponse &) {
      sleepUntilCancelled(c, std::chrono::seconds(30));
      return grpc::Status::OK;
   });
   FakeAttestzServer refusing([](grpc::ServerContext &, AttestRequest const &, AttestResponse &) {
      return grpc::Status(grpc::StatusCode::UNAVAILABLE, "TPM2_Quote: TPM_RC_RETRY");
   });
   FakeAttestzServer garbage(String("\xff\xff\xff\xff\x0f garbage", 10));
   // oiak_cert (field 2), a string, holding a byte that is not UTF-8.
   FakeAttestzServer notUtf8(String("\x12\x01\xff", 3));
   MuteSwitch mute, resetting(true);
   int held = -1;
   std::uint16_t const deadPort = freeLoopbackPort(&held);
   String const ak = d.file("ak.pem", live.key.publicKeyPem() + lying.key.publicKeyPem());

   // Each switch, its verdict and the start of its reason.
   std::vector<std::tuple<char const *, String, char const *, String>> const switches{
      {"live", live.server.address(), "trusted", ""},
      {"stranger", stranger.server.address(), "untrusted",
       "check 2 (signature): the signature verifies with none of the 2 trusted attestation keys"},
      {"lying", lying.server.address(), "untrusted", "check 5 (event log): PCR sha256:4 does not bear out the log"},
      {"sleepy", sleepy.address(), "unreachable", "DEADLINE_EXCEEDED"},
      {"mute", mute.address(), "unreachable", "DEADLINE_EXCEEDED"},
      {"resetting", resetting.address(), "unreachable", "UNAVAILABLE"},
      {"dead", "127.0.0.1:" + std::to_string(deadPort), "unreachable", "UNAVAILABLE"},
      {"refusing", refusing.address(), "unreachable", "UNAVAILABLE: TPM2_Quote: TPM_RC_RETRY"},
      {"garbage", garbage.address(), "untrusted", "the switch's answer is not an AttestResponse"},
      {"notUtf8", notUtf8.address(), "untrusted", "the switch's answer is not an AttestResponse"},
   };
   std::vector<String> args{"--ak", ak, "--timeout", "2", "--format", "json", "--jobs", "4"};
   for (auto const &[name, address, verdict, reason] : switches) {
      args.insert(args.end(), {"--target", String(name) + "=" + address});
   }
   VerifyRun const r = runVerify(args);
   EXPECT_EQ(r.exitCode, 1) << r.err;
   EXPECT_EQ(r.err, "");  // not a terminal: no progress
   auto const got = verdicts(r.out);
   for (auto const &[name, address, verdict, reason] : switches) {
      SCOPED_TRACE(name);
      ASSERT_TRUE(got.count(name)) << r.out;
      EXPECT_EQ(got.at(name).first, verdict) << got.at(name).second;
      EXPECT_EQ(got.at(name).second.rfind(reason, 0), 0u) << got.at(name).second;
   }
   EXPECT_EQ(live.server.requests(), 1);
   close(held);
}

TEST(VerifyProgram, TrustedAndUnreachableTogetherExitFour) {
   TempDir d;
   SoftwareSwitch live;
   int held = -1;
   std::uint16_t const deadPort = freeLoopbackPort(&held);
   VerifyRun const r = runVerify({"--ak", d.file("ak.pem", live.key.publicKeyPem()), "--target",
                            "leaf1=" + live.server.address(), "--target", "leaf2=127.0.0.1:" + std::to_string(deadPort)});
   EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
   EXPECT_NE(r.out.find("leaf1  " + live.server.address() + "\n  verdict               trusted\n"), String::npos) << r.out;
   EXPECT_NE(r.out.find("leaf2  127.0.0.1:" + std::to_string(deadPort) +
                        "\n  verdict               unreachable\n  reason                UNAVAILABLE: "),
             String::npos)
      << r.out;
   EXPECT_TRUE(r.out.ends_with("\n\n1 trusted, 0 untrusted, 1 unreachable\n")) << r.out;
   close(held);
}

TEST(VerifyProgram, SavedResponsesCheckAgainOffline) {
   TempDir d;
   SoftwareSwitch live;
   String const ak = d.file("ak.pem", live.key.publicKeyPem());
   String const saved = d.path() + "/saved";
   std::filesystem::create_directory(saved);
   VerifyRun const r = runVerify({"--ak", ak, "--target", "leaf1=" + live.server.address(), "--save", saved});
   EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
   String const nonce = slurp(saved + "/leaf1.nonce");
   ASSERT_EQ(nonce.size(), 65u) << nonce;
   VerifyRun const again = runVerify({"--response", saved + "/leaf1.json", "--nonce", nonce.substr(0, 64), "--ak", ak});
   EXPECT_EQ(again.exitCode, 0) << again.out << again.err;
   // The response of a run is good for that run's nonce only.
   VerifyRun const replayed = runVerify({"--response", saved + "/leaf1.json", "--nonce", String(64, '0'), "--ak", ak});
   EXPECT_EQ(replayed.exitCode, 1);
}

TEST(VerifyProgram, InventoryOfSwitchesModelsKeysAndBaselines) {
   TempDir d;
   SoftwareSwitch leaf1, leaf2(smallBoot("\\EFI\\BOOT\\shimx64.efi"));
   d.file("baselines/model-a.json", leaf1.boot.eventLog);
   d.file("keys/leaf1.pem", leaf1.key.publicKeyPem());
   String pem;
   for (char c : leaf2.key.publicKeyPem()) pem += c == '\n' ? String("\\n") : String(1, c);
   String const inventory = d.file("inventory.json", R"({
  "models": {"model-a": {"baseline": "baselines/model-a.json"}, "model-b": {}},
  "switches": [
    {"name": "leaf1", "address": ")" + leaf1.server.address() + R"(", "model": "model-a", "ak": "keys/leaf1.pem"},
    {"name": "leaf2", "address": ")" + leaf2.server.address() + R"(", "model": "model-a", "akPem": ")" + pem + R"("}
  ]
})");
   VerifyRun const r = runVerify({"--inventory", inventory});
   EXPECT_EQ(r.exitCode, 1) << r.err;
   EXPECT_NE(r.out.find("leaf2  " + leaf2.server.address() +
                        "\n  verdict               untrusted\n"
                        "  reason                check 5 (event log): differs from the baseline at 4: event 12 "
                        "EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\shimx64.efi\n"),
             String::npos)
      << r.out;
   EXPECT_NE(r.out.find("  baseline difference   4: event 12 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\shimx64.efi\n"),
             String::npos)
      << r.out;
   EXPECT_TRUE(r.out.ends_with("1 trusted, 1 untrusted, 0 unreachable\n")) << r.out;
   // A key of one switch does not vouch for another.
   String const swapped = d.file("swapped.json", R"({"switches": [
    {"name": "leaf2", "address": ")" + leaf2.server.address() + R"(", "ak": "keys/leaf1.pem"}]})");
   VerifyRun const s = runVerify({"--inventory", swapped, "--format", "json"});
   EXPECT_EQ(verdicts(s.out)["leaf2"].second, "check 2 (signature): the signature does not verify with the attestation key");
}

TEST(VerifyProgram, TlsToTheSwitchesAndMutualTls) {
   TempDir d;
   auto const made = Loom::runCommandForOutput(
      "cd " + d.path() +
      " && exec 2>&1 && for n in ca client-ca; do openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 "
      "-nodes -keyout $n.key -out $n.pem -subj /CN=$n -days 2; done && "
      "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout switch.key -subj /CN=leaf1 "
      "-out switch.csr && printf 'subjectAltName=IP:127.0.0.1\\n' >san.ext && "
      "openssl x509 -req -in switch.csr -CA ca.pem -CAkey ca.key -days 1 -extfile san.ext -out switch.pem && "
      "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout verifier.key -subj /CN=verifier "
      "-out verifier.csr && openssl x509 -req -in verifier.csr -CA client-ca.pem -CAkey client-ca.key -days 1 "
      "-out verifier.pem");
   ASSERT_EQ(made.exitCode, 0) << made.output;
   SoftwareAttestationKey const key;
   Boot const boot = bootOf(smallBoot(), kAlgSha256);
   auto answer = [&](grpc::ServerContext &, AttestRequest const &request, AttestResponse &response) {
      response = key.respond(request.nonce(), boot, kAlgSha256, asked(request));
      return grpc::Status::OK;
   };
   auto credentials = [&](bool mutual) {
      grpc::SslServerCredentialsOptions o(mutual ? GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY
                                                 : GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE);
      o.pem_key_cert_pairs.push_back({slurp(d.path() + "/switch.key"), slurp(d.path() + "/switch.pem")});
      if (mutual) o.pem_root_certs = slurp(d.path() + "/client-ca.pem");
      return grpc::SslServerCredentials(o);
   };
   FakeAttestzServer tls(answer, credentials(false)), mutual(answer, credentials(true));
   String const ak = d.file("ak.pem", key.publicKeyPem());
   std::vector<String> const base{"--ak", ak, "--timeout", "5", "--format", "json", "--tls-ca", d.path() + "/ca.pem"};
   auto run = [&](std::vector<String> extra) {
      extra.insert(extra.begin(), base.begin(), base.end());
      VerifyRun const r = runVerify(extra);
      EXPECT_EQ(r.err, "");  // each failed handshake is said in its switch's reason, once
      return verdicts(r.out);
   };
   EXPECT_EQ(run({"--target", "leaf1=" + tls.address()})["leaf1"].first, "trusted");
   EXPECT_EQ(run({"--target", "leaf1=" + mutual.address()})["leaf1"].first, "unreachable");
   EXPECT_EQ(run({"--target", "leaf1=" + mutual.address(), "--tls-cert", d.path() + "/verifier.pem", "--tls-key",
                  d.path() + "/verifier.key"})["leaf1"]
                .first,
             "trusted");
   // A switch whose certificate the verifier's CA did not sign.
   auto const other = run({"--target", "leaf1=" + tls.address(), "--tls-ca", d.path() + "/client-ca.pem"});
   EXPECT_EQ(other.at("leaf1").first, "unreachable");
   EXPECT_EQ(other.at("leaf1").second.rfind("UNAVAILABLE", 0), 0u) << other.at("leaf1").second;
}

TEST(VerifyProgram, MetricsWrittenAtomicallyPassPromtool) {
   TempDir d;
   SoftwareSwitch live;
   MuteSwitch resetting(true);
   String const prom = d.path() + "/attestation.prom";
   VerifyRun const r = runVerify({"--ak", d.file("ak.pem", live.key.publicKeyPem()), "--target", "leaf1=" + live.server.address(),
                            "--target", "leaf-2=" + resetting.address(), "--format", "openmetrics", "--output", prom});
   EXPECT_EQ(r.exitCode, 4) << r.err;
   EXPECT_EQ(r.out, "");
   String const metrics = slurp(prom);
   for (char const *line : {"sentrel_attestation{switch=\"leaf1\",verdict=\"trusted\"} 1\n",
                            "sentrel_attestation{switch=\"leaf1\",verdict=\"untrusted\"} 0\n",
                            "sentrel_attestation{switch=\"leaf-2\",verdict=\"unreachable\"} 1\n",
                            "# TYPE sentrel_attestation_run_timestamp_seconds gauge\n"}) {
      EXPECT_NE(metrics.find(line), String::npos) << line << metrics;
   }
   // Nothing but the file is left in its folder.
   EXPECT_EQ(std::distance(std::filesystem::directory_iterator(d.path()), std::filesystem::directory_iterator()), 2);
   if (Loom::runCommandForOutput("command -v promtool").exitCode != 0) GTEST_SKIP() << "promtool is not installed";
   auto const check = Loom::runCommandForOutput("promtool check metrics <" + prom + " 2>&1");
   EXPECT_EQ(check.exitCode, 0) << check.output;
   // An output that cannot be written: exit 2, naming it.
   VerifyRun const bad = runVerify({"--ak", d.path() + "/ak.pem", "--target", "leaf1=" + live.server.address(), "--output",
                              d.path() + "/none/attestation.prom"});
   EXPECT_EQ(bad.exitCode, 2);
   EXPECT_NE(bad.err.find("--output " + d.path() + "/none/attestation.prom: No such file or directory"), String::npos)
      << bad.err;
}

// In the process, with a small limit: a response past the limit is refused
// by its size, however well-formed, and the switch is unreachable.
TEST(VerifyFleet, AResponseLargerThanTheLimitIsRefused) {
   SoftwareSwitch live;
   String problem;
   SentrelAttest::Target const target{"leaf1", live.server.address(),
                                      {SentrelAttest::readPublicKeys(live.key.publicKeyPem(), problem), nullptr}};
   SentrelAttest::FleetOptions options{.bank = kAlgSha256,
                                       .pcrs = SentrelAttest::parsePcrList("0-9,12-14"),
                                       .credentials = grpc::InsecureChannelCredentials()};
   auto const fits = SentrelAttest::attestFleet({target}, options);
   EXPECT_EQ(fits.at(0).verdict, SentrelAttest::Verdict::Trusted) << fits.at(0).reason;
   options.maxResponseBytes = live.boot.eventLog.size() / 2;
   auto const refused = SentrelAttest::attestFleet({target}, options);
   EXPECT_EQ(refused.at(0).verdict, SentrelAttest::Verdict::Unreachable);
   EXPECT_EQ(refused.at(0).reason.rfind("RESOURCE_EXHAUSTED: ", 0), 0u) << refused.at(0).reason;
}

// On a terminal, standard error shows how many switches are done, on one
// line rewritten in place; the report stays on standard output.
TEST(VerifyProgram, ProgressOnATerminal) {
   TempDir d;
   SoftwareSwitch a, b;
   String const ak = d.file("ak.pem", a.key.publicKeyPem() + b.key.publicKeyPem());
   int master = -1, terminal = -1;
   ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
   std::vector<String> args{SENTREL_VERIFY_PATH, "--ak", ak, "--target", "a=" + a.server.address(),
                            "--target", "b=" + b.server.address(), "--jobs", "1"};
   std::vector<char *> argv;
   for (auto &arg : args) argv.push_back(arg.data());
   argv.push_back(nullptr);
   String const out = d.path() + "/out";
   posix_spawn_file_actions_t files;
   posix_spawn_file_actions_init(&files);
   posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   posix_spawn_file_actions_adddup2(&files, terminal, 2);
   pid_t pid = -1;
   ASSERT_EQ(posix_spawn(&pid, SENTREL_VERIFY_PATH, &files, nullptr, argv.data(), environ), 0);
   posix_spawn_file_actions_destroy(&files);
   close(terminal);
   String progress;
   char buffer[256];
   pollfd p{master, POLLIN, 0};
   // Until the program has ended and closed its side (EIO), or 30 seconds.
   for (int i = 0; i < 300 && poll(&p, 1, 100) >= 0;) {
      if (!(p.revents & POLLIN)) {
         ++i;
         continue;
      }
      ssize_t const n = read(master, buffer, sizeof buffer);
      if (n <= 0) break;
      progress.append(buffer, static_cast<std::size_t>(n));
   }
   int status = 0;
   waitpid(pid, &status, 0);
   close(master);
   EXPECT_EQ(WEXITSTATUS(status), 0) << slurp(out);
   // The terminal turns \n into \r\n.
   EXPECT_EQ(progress, "\rattested 1/2\rattested 2/2\r\n");
   EXPECT_TRUE(slurp(out).ends_with("2 trusted, 0 untrusted, 0 unreachable\n")) << slurp(out);
}
