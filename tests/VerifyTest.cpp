// sentrel-verify: the five checks on quotes that a software TPM made through
// tpm2-tools (tpm2_checkquote agreeing); the owner's inventory; the built
// program against switches made up here (attestz services that quote with a
// software key or answer with garbage, ports that never answer or reset) and
// against sentrel-attestd on a software TPM.
#include <filesystem>
#include <functional>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>

#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/Addresses.h"
#include "attest/Inventory.h"
#include "attest/ResponseJson.h"
#include "attest/TrustAnchors.h"
#include "attest/VerifyOptions.h"
#include "attest/attestz.grpc.pb.h"
#include "host/UsageError.h"
#include "tests/AttestdProcess.h"
#include "tests/SoftwareQuote.h"
#include "tests/ToolsExtend.h"

using namespace SentrelTest;
using namespace SentrelAttest;
using namespace SentrelEvidence;
using namespace openconfig::attestz;

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

// The built sentrel-verify with `args`, words for the shell.
HostRun verify(String const &args) {
   TempDir io;
   auto const r = Loom::runCommandForOutput(String(SENTREL_VERIFY_PATH) + " " + args + " 2>" + io.path() + "/err");
   return {r.exitCode, r.output, slurp(io.path() + "/err")};
}

// "VERDICT REASON" of each switch of a JSON report, by name.
std::map<String, String> verdicts(String const &json) {
   std::map<String, String> out;
   auto const doc = parseJson(json);
   if (!doc.IsObject()) return out;
   for (auto const &s : doc["switches"].GetArray()) {
      out[s["name"].GetString()] = String(s["verdict"].GetString()) + " " + s["reason"].GetString();
   }
   return out;
}

// A switch on loopback that quotes what it is asked for with a software key
// over the boot of `plan`; `garble` may change the response's bytes.
struct MadeUpSwitch : TpmAttestzService::WithRawCallbackMethod_Attest<TpmAttestzService::Service> {
   explicit MadeUpSwitch(LogPlan const &plan = smallBoot(), std::function<void(String &)> garble = {},
                         std::shared_ptr<grpc::ServerCredentials> credentials = grpc::InsecureServerCredentials())
       : boot(bootOf(plan, kAlgSha256)), garble(std::move(garble)) {
      int port = 0;
      server = grpc::ServerBuilder().AddListeningPort("127.0.0.1:0", credentials, &port).RegisterService(this)
                  .BuildAndStart();
      address = "127.0.0.1:" + std::to_string(port);
   }
   ~MadeUpSwitch() override { server->Shutdown(std::chrono::system_clock::now()); }
   grpc::ServerUnaryReactor *Attest(grpc::CallbackServerContext *context, grpc::ByteBuffer const *request,
                                    grpc::ByteBuffer *response) override {
      grpc::ByteBuffer copy(*request);
      AttestRequest q;
      grpc::SerializationTraits<AttestRequest>::Deserialize(&copy, &q);
      String bytes = key.respond(q.nonce(), boot, kAlgSha256, {q.pcr_indices().begin(), q.pcr_indices().end()})
                        .SerializeAsString();
      if (garble) garble(bytes);
      grpc::Slice slice(bytes);
      *response = grpc::ByteBuffer(&slice, 1);
      auto *reactor = context->DefaultReactor();
      reactor->Finish(grpc::Status::OK);
      return reactor;
   }
   SoftwareAttestationKey key;
   Boot boot;
   std::function<void(String &)> garble;
   String address;
   std::unique_ptr<grpc::Server> server;
};

}  // namespace

TEST(Inventory, EachFaultNamedWithItsByte) {
   std::vector<std::pair<String, String>> const cases{
      {"[]", "byte 0: expected an object with \"switches\" and \"models\", not array"},
      {"{}", "byte 0: no \"switches\""},
      {R"({"switches": [{"address": "a:1"}]})", "byte 14: a switch without a \"name\""},
      {R"({"switches": [{"name": "a"}]})", "byte 14: switch \"a\" has no \"address\""},
      {R"({"switches": [{"name": "a b", "address": "a:1"}]})", "byte 23: name \"a b\" is not letters"},
      {R"({"switches": [{"name": "a", "address": "a"}]})", "byte 39: address \"a\" is not HOST:PORT"},
      {R"({"switches": [{"name": "a", "address": "a:1", "port": 1}]})", "byte 46: unknown member \"port\" of a switch"},
      {R"({"switches": [{"name": "a", "address": "a:1", "ak": "k", "akPem": "p"}]})", "byte 14: switch \"a\" has both"},
      {R"({"switches": [{"name": "a", "address": "a:1"}, {"name": "a", "address": "b:1"}]})", "byte 47: switch"},
      {R"({"switches": [{"name": "a", "address": "a:1", "model": "m"}]})", "byte 14: switch \"a\" is of model \"m\""},
      {R"({"models": {"m": {"firmware": "1"}}, "switches": []})", "byte 18: unknown member \"firmware\" of a model"},
   };
   for (auto const &[text, message] : cases) {
      try {
         parseInventory("inv.json", text);
         ADD_FAILURE() << text << ": no error";
      } catch (SentrelHost::UsageError const &e) {
         EXPECT_EQ(String(e.what()).rfind("inv.json: " + message, 0), 0u) << e.what();
      }
   }
}

TEST(VerifyOptions, AddressesLoopbackAndPcrLists) {
   EXPECT_EQ(splitAddress("[::1]:9339"), std::pair(String("[::1]"), 9339u));
   auto const loopback = [](char const *address) { return isLoopback(splitAddress(address).value().first); };
   for (char const *a : {"127.0.0.1:1", "127.1.2.3:1", "localhost:1", "[::1]:9339"}) EXPECT_TRUE(loopback(a)) << a;
   for (char const *a : {"[::ffff:127.0.0.1]:1", "10.0.0.1:1", "128.0.0.1:1", "localhost.example.net:1"}) {
      EXPECT_FALSE(loopback(a)) << a;
   }
   for (char const *a : {"leaf1:0", "leaf1:65536", "leaf1:", ":9339", "[::1:9339", "::1:9339", "leaf 1:9339"}) {
      EXPECT_EQ(splitAddress(a), std::nullopt) << a;
   }
   EXPECT_EQ(parsePcrList("0-9,12-14,23").to_ulong(), 0x8073ffu);
   for (char const *bad : {"", ",", "0-", "-3", "3-1", "24", "0,,1", "a", "0-9 ", "1.5"}) {
      EXPECT_THROW(parsePcrList(bad), SentrelHost::UsageError) << bad;
   }
}

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

TEST(VerifyProgram, UsageErrorsNameTheOptionAndTheProblem) {
   TempDir d;
   String const ak = d.file("ak.pem", SoftwareAttestationKey().publicKeyPem());
   String const inventory = d.file("inventory.json", R"({"switches": [{"name": "leaf1", "address": "10.0.0.1"}]})");
   String const one = "--target a=127.0.0.1:1 --ak " + ak + " ";
   std::vector<std::pair<String, String>> const cases{
      {"", "name the switches: --target NAME=HOST:PORT or --inventory FILE"},
      {"--target leaf1", "--target takes NAME=HOST:PORT"},
      {"--target a=127.0.0.1:1", "switch a: no attestation key is trusted for it"},
      {"--target a=10.0.0.1:9339 --ak " + ak, "switch a at 10.0.0.1:9339: plaintext only to a loopback address"},
      {one + "--target a=127.0.0.1:2", "--target a is given twice"},
      {"--target a=127.0.0.1:1 --ak /none.pem", "--ak /none.pem: No such file"},
      {"--target a=127.0.0.1:1 --owner-ca " + ak, "--owner-ca " + ak + ": PEM block 1 is a PUBLIC KEY, not a"},
      {one + "--jobs 0", "--jobs takes a number from 1 to 1000"},
      {one + "--save " + ak, "--save " + ak + ": not a folder"},
      {one + "--output /none/a.prom", "--output /none/a.prom: No such file or directory"},
      {"--inventory " + inventory, inventory + ": byte 43: address \"10.0.0.1\" is not HOST:PORT"},
      {"--response " + ak + " --nonce 00", "--response needs what its attestation key is trusted by"},
      {one + "--nonce 00", "--nonce goes with --response"},
      {"--frobnicate", "unknown argument '--frobnicate'"},
   };
   for (auto const &[args, message] : cases) {
      HostRun const r = verify(args);
      EXPECT_EQ(r.exitCode, 2) << args;
      EXPECT_EQ(r.out, "") << args;
      EXPECT_EQ(r.err.rfind("sentrel-verify: ", 0), 0u) << r.err;
      EXPECT_NE(r.err.find(message), String::npos) << args << "\n" << r.err;
   }
}

// --save keeps each response and its nonce for --response to check again,
// good for that nonce only; a hostile saved response is refused cleanly.
TEST(VerifyProgram, SavedResponsesCheckedAgainOffline) {
   TempDir d;
   MadeUpSwitch live;
   String const ak = " --ak " + d.file("ak.pem", live.key.publicKeyPem()), saved = d.path() + "/saved/leaf1";
   std::filesystem::create_directory(d.path() + "/saved");
   EXPECT_EQ(verify("--target leaf1=" + live.address + " --save " + d.path() + "/saved" + ak).exitCode, 0);
   EXPECT_EQ(verify("--response " + saved + ".json --nonce $(cat " + saved + ".nonce)" + ak).exitCode, 0);
   HostRun const replayed = verify("--response " + saved + ".json --nonce 00 --format json" + ak);
   EXPECT_EQ(replayed.exitCode, 1);
   EXPECT_NE(replayed.out.find("check 3 (quote): the quote is not of this nonce"), String::npos) << replayed.out;
   AttestResponse longer = live.key.respond("nonce", live.boot, kAlgSha256, defaultPcrs());
   longer.mutable_quote_signature()->append("\x01\x02");
   String const json = *responseToJson(longer);
   std::vector<std::tuple<String, int, String>> const cases{
      {json.substr(0, json.size() / 2), 2, "not an AttestResponse in protobuf's JSON mapping"},
      {"\x7f" "ELF\x02\x01\x01", 2, "not an AttestResponse in protobuf's JSON mapping"},
      {json, 1, "check 2 (signature): quote_signature holds 2 bytes past its TPMT_SIGNATURE"},
   };
   for (auto const &[text, exitCode, message] : cases) {
      HostRun const r = verify("--response " + d.file("hostile.json", text) + " --nonce " + hexOf("nonce") + ak);
      EXPECT_EQ(r.exitCode, exitCode) << r.out << r.err;
      EXPECT_NE((exitCode == 2 ? r.err : r.out).find(message), String::npos) << r.out << r.err;
      // Said once, as a usage error or in the verdict: no library adds its own lines.
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), exitCode == 2) << r.err;
   }
}

// Each switch its verdict whatever the others do: one that never answers,
// resets the connection, or answers with too much or with garbage holds up
// nothing and crashes nothing.
TEST(VerifyProgram, EachSwitchItsVerdictWhateverTheOthersDo) {
   TempDir d;
   MadeUpSwitch live, huge, garbage(smallBoot(), [](String &bytes) { bytes = "\xff\xff\xff\xff\x0f"; });
   huge.boot.eventLog = String(std::size_t{33} << 20, ' ');  // past the 32 MiB a response may take
   // Ports that take connections: one never says a word, one resets each at
   // once (no linger: no orderly end); both left to the end of the process.
   int mute = -1, resetting = -1;
   String const muteAt = std::to_string(freeLoopbackPort(&mute));
   String const resetAt = std::to_string(freeLoopbackPort(&resetting));
   listen(mute, 16);
   listen(resetting, 16);
   std::thread([resetting] {
      linger const none{1, 0};
      for (int c; (c = accept(resetting, nullptr, nullptr)) >= 0; close(c)) {
         setsockopt(c, SOL_SOCKET, SO_LINGER, &none, sizeof none);
      }
   }).detach();
   std::vector<std::tuple<String, String, String>> const switches{
      {"live", live.address, "trusted "},
      {"mute", "127.0.0.1:" + muteAt, "unreachable DEADLINE_EXCEEDED"},
      {"resetting", "127.0.0.1:" + resetAt, "unreachable UNAVAILABLE"},
      {"huge", huge.address, "unreachable RESOURCE_EXHAUSTED"},
      {"garbage", garbage.address, "untrusted the switch's answer is not an AttestResponse"},
   };
   String args = "--ak " + d.file("ak.pem", live.key.publicKeyPem()) + " --timeout 2 --jobs 4 --format json";
   for (auto const &[name, address, verdict] : switches) args += " --target " + name + "=" + address;
   HostRun const r = verify(args);
   EXPECT_EQ(r.exitCode, 1) << r.err;
   EXPECT_EQ(r.err, "");  // not a terminal: no progress
   auto got = verdicts(r.out);
   for (auto const &[name, address, verdict] : switches) EXPECT_EQ(got[name].rfind(verdict, 0), 0u) << got[name];
}

// Switches of a model with a baseline, their keys in files (by a path
// relative to the inventory or not) or inline; on a terminal, the progress.
TEST(VerifyProgram, InventoryOfSwitchesModelsKeysAndBaselines) {
   TempDir d;
   MadeUpSwitch leaf1, leaf2(smallBoot("\\EFI\\BOOT\\shimx64.efi"));
   d.file("baselines/model-a.json", leaf1.boot.eventLog);
   String const key1 = d.file("keys/leaf1.pem", leaf1.key.publicKeyPem());
   String pem;  // leaf2's key inline, its newlines as JSON writes them
   for (char c : leaf2.key.publicKeyPem()) pem += c == '\n' ? String("\\n") : String(1, c);
   String const inventory = d.file("inventory.json", R"({"models": {"model-a": {"baseline": "baselines/model-a.json"}},
  "switches": [{"name": "leaf1", "address": ")" + leaf1.address + R"(", "model": "model-a", "ak": "keys/leaf1.pem"},
    {"name": "leaf2", "address": ")" + leaf2.address + R"(", "model": "model-a", "akPem": ")" + pem + R"("},
    {"name": "leaf3", "address": ")" + leaf2.address + R"(", "ak": ")" + key1 + R"("}]})");
   // script(1) gives the program a terminal for standard error, which turns \n into \r\n.
   auto const r = Loom::runCommandForOutput("script -qec '" + String(SENTREL_VERIFY_PATH) + " --format json " +
                                            "--inventory " + inventory + " >" + d.path() + "/out' /dev/null");
   EXPECT_EQ(r.exitCode, 1);
   EXPECT_EQ(r.output, "\rattested 1/3\rattested 2/3\rattested 3/3\r\n");
   // A key of one switch does not vouch for another.
   EXPECT_EQ(verdicts(slurp(d.path() + "/out")),
             (std::map<String, String>{{"leaf1", "trusted "},
                                       {"leaf2", "untrusted check 5 (event log): differs from the baseline at 4: event "
                                                 "12 EV_EFI_BOOT_SERVICES_APPLICATION \\EFI\\BOOT\\shimx64.efi"},
                                       {"leaf3", "untrusted check 2 (signature): the signature does not verify with "
                                                 "the attestation key"}}));
}

// TLS to a switch that asks for the verifier's certificate; the verdicts as
// metrics that promtool passes, written whole to --output, nothing beside.
TEST(VerifyProgram, TlsToTheSwitchesAndTheMetrics) {
   TempDir d;
   auto const made = Loom::runCommandForOutput(
      "cd " + d.path() + " && exec 2>&1 && for n in ca other; do openssl req -x509 -newkey ec -pkeyopt "
      "ec_paramgen_curve:P-256 -nodes -keyout $n.key -out $n.pem -subj /CN=$n; done && for n in switch verifier; do "
      "openssl req -x509 -CA ca.pem -CAkey ca.key -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $n.key "
      "-out $n.pem -subj /CN=$n -addext subjectAltName=IP:127.0.0.1; done");
   ASSERT_EQ(made.exitCode, 0) << made.output;
   grpc::SslServerCredentialsOptions tls(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
   tls.pem_key_cert_pairs.push_back({slurp(d.path() + "/switch.key"), slurp(d.path() + "/switch.pem")});
   tls.pem_root_certs = slurp(d.path() + "/ca.pem");
   MadeUpSwitch leaf1(smallBoot(), {}, grpc::SslServerCredentials(tls));
   String const metrics = d.path() + "/metrics/attestation.prom";
   std::filesystem::create_directory(d.path() + "/metrics");
   for (auto const &[ca, exitCode, verdict] : {std::tuple{"ca", 0, "trusted"}, {"other", 4, "unreachable"}}) {
      HostRun const r = verify("--ak " + d.file("ak.pem", leaf1.key.publicKeyPem()) + " --target leaf1=" +
                                 leaf1.address + " --format openmetrics --output " + metrics + " --tls-ca " + d.path() +
                                 "/" + ca + ".pem --tls-cert " + d.path() + "/verifier.pem --tls-key " + d.path() +
                                 "/verifier.key");
      EXPECT_EQ(r.exitCode, exitCode) << ca;
      EXPECT_EQ(r.out + r.err, "") << ca;  // a failed handshake is said in its switch's verdict only
      EXPECT_NE(slurp(metrics).find(String("sentrel_attestation{switch=\"leaf1\",verdict=\"") + verdict + "\"} 1\n"),
                String::npos)
         << slurp(metrics);
      EXPECT_EQ(std::distance(std::filesystem::directory_iterator(d.path() + "/metrics"), {}), 1);
   }
   if (Loom::runCommandForOutput("command -v promtool").exitCode != 0) GTEST_SKIP() << "promtool is not installed";
   auto const check = Loom::runCommandForOutput("promtool check metrics <" + metrics + " 2>&1");
   EXPECT_EQ(check.exitCode, 0) << check.output;
}

// sentrel-attestd serving a software TPM that a firmware's log extended (the
// log where the kernel shows it), with an attestation key of its own making.
TEST(VerifyProgram, AttestdTrustedBesideADeadSwitchThenUntrustedOnceAPcrMovesOn) {
   SoftwareTpm tpm{"sha256"};
   if (!tpm.running()) GTEST_SKIP() << tpm.failure();
   TempDir root;
   LogPlan const plan = smallBoot();
   String said, log = root.path() + "/attestd.log";
   ASSERT_TRUE(extendWithTools(tpm.tcti(), plan, said)) << said;
   root.file("sys/kernel/security/tpm0/binary_bios_measurements", writeEventLog(plan));
   auto const made = Loom::runCommandForOutput(String(SENTREL_ATTESTD_PATH) + " --tcti " + tpm.tcti() + " --create-ak");
   ASSERT_EQ(made.exitCode, 0);
   String const flags = " --ak " + root.file("ak.pem", made.output) +
                        " --baseline " + root.file("baseline.json", bootOf(plan, kAlgSha256).eventLog);
   {
      AttestdProcess attestd(SENTREL_ATTESTD_PATH, {"--tcti", tpm.tcti(), "--sysroot", root.path()}, log);
      ASSERT_TRUE(attestd.serving()) << slurp(log);
      HostRun const r = verify("--target leaf1=" + attestd.address() + " --target leaf2=127.0.0.1:1 --format json" +
                                 flags);
      EXPECT_EQ(r.exitCode, 4) << r.out << r.err << slurp(log);
      EXPECT_EQ(verdicts(r.out)["leaf2"].rfind("unreachable UNAVAILABLE: ", 0), 0u) << r.out;
      auto const report = parseJson(r.out);
      ASSERT_TRUE(report.IsObject()) << r.out;
      EXPECT_STREQ(report["switches"][0]["verdict"].GetString(), "trusted");
      EXPECT_EQ(report["switches"][0]["evidence"]["eventCount"].GetUint(), 15u);
      EXPECT_EQ(report["switches"][0]["evidence"]["baselineDifference"].Size(), 0u);
   }
   // Something the log does not tell of is measured into PCR 4 (the service
   // stopped: the TPM serves one client at a time).
   ASSERT_TRUE(extendWithTools(tpm.tcti(), {.banks = {kAlgSha256}, .events = {{4, EV_EFI_ACTION, "Exit", {}}}}, said));
   AttestdProcess attestd(SENTREL_ATTESTD_PATH, {"--tcti", tpm.tcti(), "--sysroot", root.path()}, log);
   ASSERT_TRUE(attestd.serving()) << slurp(log);
   HostRun const r = verify("--target leaf1=" + attestd.address() + flags);
   EXPECT_EQ(r.exitCode, 1) << r.err;
   EXPECT_EQ(r.out, "leaf1  " + attestd.address() + "\n  verdict               untrusted\n"
                    "  reason                check 5 (event log): PCR sha256:4 does not bear out the log\n"
                    "  event log             crypto-agile, 15 events, banks sha256; replayed sha256\n"
                    "  mismatched PCR        sha256:4\n\n0 trusted, 1 untrusted, 0 unreachable\n");
}
