// sentrel-attestd as a verifier meets it: the built program serving a real
// software TPM on loopback, called by an attestz client made from the proto,
// its quotes checked by tpm2-tools.
#include <arpa/inet.h>
#include <future>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <set>
#include <unistd.h>

#include "EventLogWriter.h"
#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/attestz.grpc.pb.h"
#include "evidence/Cel.h"
#include "tests/AttestdProcess.h"

using namespace SentrelTest;
using namespace openconfig::attestz;
using grpc::StatusCode;
using enum grpc::StatusCode;

namespace {

String const kAttestd = SENTREL_ATTESTD_PATH;
constexpr char const *kSerial = "EXN2047A0193";
constexpr char const *kBiosLog = "/sys/kernel/security/tpm0/binary_bios_measurements";

// A shell command's exit status and its output, standard error included.
Loom::CommandResult sh(String const &command) { return Loom::runCommandForOutput("exec 2>&1; " + command); }

// sentrel-attestd run to its end with `args`, shell words: its exit status
// and standard output (standard error too when `args` says 2>&1).
Loom::CommandResult attestd(String const &args) { return Loom::runCommandForOutput(kAttestd + " " + args); }

bool contains(String const &text, String const &part) { return text.find(part) != String::npos; }

// The values of `response` in ascending order of index, as one blob.
String valuesInOrder(AttestResponse const &response) {
   std::map<int, String> const sorted(response.pcr_values().begin(), response.pcr_values().end());
   String all;
   for (auto const &[index, value] : sorted) all += value;
   return all;
}

AttestRequest request(String const &nonce, std::vector<int> pcrs, Tpm20HashAlgo bank = TPM_2_0_HASH_ALGO_SHA256) {
   AttestRequest r;
   r.mutable_control_card_selection()->set_role(CONTROL_CARD_ROLE_ACTIVE);
   r.set_nonce(nonce);
   r.set_hash_algo(bank);
   r.mutable_pcr_indices()->Add(pcrs.begin(), pcrs.end());
   return r;
}

// Attest of the service at `address`, given up after `seconds`.
grpc::Status call(String const &address, AttestRequest const &request, AttestResponse &response, int seconds = 30,
                  std::shared_ptr<grpc::ChannelCredentials> client = grpc::InsecureChannelCredentials()) {
   grpc::ClientContext context;
   context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(seconds));
   return TpmAttestzService::NewStub(grpc::CreateChannel(address, client))->Attest(&context, request, &response);
}

// A software TPM whose PCRs hold values of their own, a system root with
// the machine's DMI identity and its firmware's event log, an attestation
// key made by `sentrel-attestd --create-ak`, and self-signed certificates
// of the switch (127.0.0.1) and of a verifier.
struct AttestdSwtpm : ::testing::Test {
   void SetUp() override {
      if (!tpm.running()) GTEST_SKIP() << tpm.failure();
      if (sh("command -v tpm2_checkquote openssl").exitCode != 0) GTEST_SKIP() << "needs tpm2-tools and openssl";
      auto const extended = tpm2("for p in 0 1 2 4 7 9 14 23; do tpm2_pcrextend $p:sha1=$(printf %040x $p)," +
                                 String("sha256=$(printf %064x $p) || exit 1; done"));
      ASSERT_EQ(extended.exitCode, 0) << extended.output;
      root.file("sys/class/dmi/id/sys_vendor", "Example Networks\n");
      root.file("sys/class/dmi/id/product_name", "EX-4832\n");
      root.file("sys/class/dmi/id/product_serial", String(kSerial) + "\n");
      root.file(String(kBiosLog).substr(1),
                writeEventLog(LogPlan{.startupLocality = 3, .events = firmwareEvents(40, 7)}));
      auto const pki = sh("cd " + dir.path() + " && for who in server client; do openssl req -x509 -newkey ec " +
                          "-pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $who.key -out $who.pem -subj /CN=$who " +
                          "-addext subjectAltName=IP:127.0.0.1 || exit 1; done");
      ASSERT_EQ(pki.exitCode, 0) << pki.output;
      auto const made = attestd("--tcti " + tpm.tcti() + " --create-ak");
      ASSERT_EQ(made.exitCode, 0);
      akPem = dir.file("ak.pem", made.output);
   }

   Loom::CommandResult tpm2(String const &c) const { return sh("export TPM2TOOLS_TCTI=" + tpm.tcti() + ";" + c); }

   // The service on this TPM and root, with any certificate standing for the
   // AK's (the service only passes it on); its log in `log`.
   std::unique_ptr<AttestdProcess> serve(std::vector<String> more = {}) const {
      more.insert(more.begin(),
                  {"--tcti", tpm.tcti(), "--sysroot", root.path(), "--ak-cert", dir.path() + "/client.pem"});
      auto d = std::make_unique<AttestdProcess>(kAttestd, more, log);
      EXPECT_TRUE(d->serving()) << slurp(log);
      return d;
   }

   // Whether tpm2_checkquote accepts the quote of `r` for `nonce` with the
   // AK in `pem`, and its pcrDigest is the SHA-256 of the values in
   // ascending order (tpm2_checkquote's own check of a values file fails for
   // 8 PCRs or more in tpm2-tools 5.4).
   bool checkquote(AttestResponse const &r, String const &nonce, String const &pem) const {
      String const quoted = dir.file("quoted.bin", r.quoted()), values = dir.file("values.bin", valuesInOrder(r));
      return sh("tpm2_checkquote -u " + pem + " -m " + quoted + " -s " + dir.file("sig.bin", r.quote_signature()) +
                " -g sha256 -q " + hex(nonce) + " && [ \"$(tpm2_print -t TPMS_ATTEST " + quoted +
                " | sed -n 's/^ *pcrDigest: //p')\" = \"$(sha256sum <" + values + " | cut -c1-64)\" ]")
                .exitCode == 0;
   }

   SoftwareTpm tpm;
   TempDir root, dir;
   String akPem, log = dir.path() + "/attestd.log";
};

}  // namespace

TEST_F(AttestdSwtpm, QuotesOfEachBankThatTpm2ToolsAcceptWithTheCardTheLogAndTheKeysCertificate) {
   auto const d = serve();
   // The bank asked for, its TPM name, the PCRs; UNSPECIFIED is sha256.
   std::vector<std::tuple<Tpm20HashAlgo, String, std::vector<int>>> const cases{
      {TPM_2_0_HASH_ALGO_SHA256, "sha256",
       {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}},
      {TPM_2_0_HASH_ALGO_SHA1, "sha1", {0, 7, 23}},
      {TPM_2_0_HASH_ALGO_UNSPECIFIED, "sha256", {4, 9, 14}},
   };
   AttestResponse r;
   for (auto const &[bank, name, pcrs] : cases) {
      String const nonce = name + " nonce of " + std::to_string(pcrs.size()), read = dir.path() + "/pcrread.bin";
      SCOPED_TRACE(nonce);
      auto const status = call(d->address(), request(nonce, pcrs, bank), r);
      ASSERT_TRUE(status.ok()) << status.error_message();
      String list;
      for (int const i : pcrs) list += (list.empty() ? "" : ",") + std::to_string(i);
      ASSERT_EQ(tpm2("tpm2_pcrread " + name + ":" + list + " -o " + read).exitCode, 0);
      EXPECT_EQ(hex(valuesInOrder(r)), hex(slurp(read)));
      EXPECT_TRUE(checkquote(r, nonce, akPem));
      EXPECT_FALSE(checkquote(r, "another nonce", akPem)) << "a quote for one nonce passes for another";
   }

   // The card's identity from DMI: vendor, product, serial, the serial again as the card's.
   auto const &c = r.control_card_id();
   EXPECT_EQ(c.chassis_manufacturer() + c.chassis_part_number() + c.chassis_serial_number() + c.control_card_serial(),
             "Example NetworksEX-4832EXN2047A0193EXN2047A0193");
   EXPECT_EQ(r.attestation_cert().oiak_cert(), slurp(dir.path() + "/client.pem"));
   // The log's records read back as the events of the firmware's log.
   using SentrelEvidence::EventLog;
   EXPECT_EQ(canonicalEventLogJson(std::get<EventLog>(SentrelEvidence::parseCanonicalEventLog(r.eventlog_bytes()))),
             canonicalEventLogJson(std::get<EventLog>(SentrelEvidence::parseEventLog(slurp(root.path() + kBiosLog)))));
}

TEST_F(AttestdSwtpm, RefusedRequestsAndEachRequestALineOfTheLog) {
   auto const d = serve();
   // The change to a request for sha256 PCRs 0 and 1; the answer's code and message.
   std::vector<std::tuple<std::function<void(AttestRequest &)>, StatusCode, char const *>> const cases{
      {[](auto &q) { q.set_nonce(String(65, 'n')); }, INVALID_ARGUMENT, "the nonce has 65 bytes, more"},
      {[](auto &q) { q.set_nonce(String(64, 'n')); }, OK, ""},
      {[](auto &q) { q.set_hash_algo(Tpm20HashAlgo(5)); }, INVALID_ARGUMENT, "hash_algo 5 names no PCR"},
      {[](auto &q) { q.set_hash_algo(TPM_2_0_HASH_ALGO_SHA384); }, FAILED_PRECONDITION, "no sha384 PCR"},
      {[](auto &q) { q.add_pcr_indices(24); }, INVALID_ARGUMENT, "PCR 24 is not one a TPM has"},
      {[](auto &q) { q.add_pcr_indices(23), q.add_pcr_indices(23); }, OK, ""},
      {[](auto &q) { q.mutable_control_card_selection()->set_serial("EXN0"); }, NOT_FOUND, "\"EXN0\""},
   };
   for (auto const &[edit, code, message] : cases) {
      AttestRequest q = request(String(32, 'n'), {0, 1});
      edit(q);
      AttestResponse r;
      auto const status = call(d->address(), q, r);
      EXPECT_TRUE(status.error_code() == code && contains(status.error_message(), message))
         << message << ": " << status.error_code() << " " << status.error_message();
   }
   // One line a request: the peer, the nonce's length, the bank and PCRs, the result.
   EXPECT_EQ(sh("grep -c '^sentrel-attestd: Attest from ipv4:127.0.0.1:' " + log).output,
             std::to_string(cases.size()) + "\n");
   EXPECT_TRUE(contains(slurp(log), ", nonce 65 bytes, sha256 PCRs 0-1: INVALID_ARGUMENT: the nonce has 65 bytes"))
      << slurp(log);
}

// The service as it is started: a missing or unusable log or key, or an
// unreachable TPM, is UNAVAILABLE with the reason; with TLS a client that
// trusts the switch's certificate is answered; with mutual TLS only one
// with a certificate the service trusts (a plaintext client fails against
// TLS as surely as one without a certificate does).
TEST_F(AttestdSwtpm, AsStartedUnavailableWithTheReasonOrAnsweredOverTls) {
   ASSERT_EQ(tpm2("tpm2_createek -G rsa -c 0x81000102").exitCode, 0);  // an RSA key where an AK is looked for
   int held = -1;
   String const closed = "swtpm:host=127.0.0.1,port=" + std::to_string(freeLoopbackPort(&held)), p = dir.path() + "/";
   auto const plain = grpc::InsecureChannelCredentials();
   auto const anonymous = grpc::SslCredentials({slurp(p + "server.pem"), "", ""});
   auto const verifier =
      grpc::SslCredentials({slurp(p + "server.pem"), slurp(p + "client.key"), slurp(p + "client.pem")});
   std::vector<String> const tls{"--tls-cert", p + "server.pem", "--tls-key", p + "server.key"};
   std::vector<String> const mutual{"--tls-cert", p + "server.pem", "--tls-key", p + "server.key",
                                    "--tls-client-ca", p + "client.pem"};
   // The service's options, the client's credentials, the answer's code and the start of its message.
   std::vector<std::tuple<std::vector<String>, std::shared_ptr<grpc::ChannelCredentials>, StatusCode, String>> cases{
      {{"--event-log", p + "none"}, plain, UNAVAILABLE, "the firmware's event log: cannot open " + p + "none: No such"},
      {{"--event-log", dir.file("garbage", String(40, 'x'))}, plain, UNAVAILABLE,
       "the firmware's event log " + p + "garbage cannot be read: event 0 at byte 0 ends past the end"},
      {{"--ak-handle", "0x81000102"}, plain, UNAVAILABLE, "the object at 0x81000102 is not an attestation key: it is"},
      {{"--tcti", closed}, plain, UNAVAILABLE,
       "cannot reach the TPM through " + closed + ": tcti:IO failure (0x000a000a)"},
      {tls, anonymous, OK, ""},
      {mutual, verifier, OK, ""},
      {mutual, anonymous, UNAVAILABLE, ""},
   };
   for (auto const &[options, client, code, message] : cases) {
      auto const d = serve(options);
      AttestResponse r;
      auto const status = call(d->address(), request("nonce", {0}), r, 5, client);
      EXPECT_TRUE(status.error_code() == code && status.error_message().starts_with(message))
         << options[1] << ": " << status.error_code() << " " << status.error_message();
      EXPECT_EQ(d->stop(), 0) << slurp(log);
   }
   close(held);
}

TEST_F(AttestdSwtpm, TheKeyIsMadeOnceReplacedOnlyWithForceLookedUpAnewAndKeptOverARestart) {
   // --print-ak: the PEM of --create-ak and the TPM name that tpm2-tools reads, of a restricted signing key.
   auto const printed = attestd("--tcti " + tpm.tcti() + " --print-ak");
   EXPECT_EQ(printed.output, slurp(akPem));
   auto const name = tpm2("tpm2_readpublic -c 0x81000100 | sed -n 's/^name: //p'");
   EXPECT_TRUE(contains(printed.output, "-----END PUBLIC KEY-----\nTPM name: " + name.output)) << printed.output;
   auto const attributes = tpm2("tpm2_readpublic -c 0x81000100 | sed -n '/^attributes:/{n;p}'");
   EXPECT_EQ(attributes.output, "  value: fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|sign\n");
   auto const again = attestd("--tcti " + tpm.tcti() + " --create-ak 2>&1");
   EXPECT_TRUE(again.exitCode == 1 && contains(again.output, "holds an object at 0x81000100 already: --force replaces"))
      << again.output;

   // The key refused a replacement still quotes; removed, it is missed; made anew, it is used.
   auto const d = serve();
   AttestResponse r;
   ASSERT_TRUE(call(d->address(), request("kept", {0}), r).ok());
   EXPECT_TRUE(checkquote(r, "kept", akPem));
   ASSERT_EQ(tpm2("tpm2_evictcontrol -C o -c 0x81000100").exitCode, 0);
   auto const missing = call(d->address(), request("missed", {0}), r);
   EXPECT_TRUE(missing.error_code() == UNAVAILABLE &&
               contains(missing.error_message(), "no attestation key is persisted at 0x81000100 of the TPM at"))
      << missing.error_code() << " " << missing.error_message();
   ASSERT_EQ(attestd("--tcti " + tpm.tcti() + " --create-ak >" + akPem).exitCode, 0);
   ASSERT_TRUE(call(d->address(), request("made", {0, 7}), r).ok());
   EXPECT_TRUE(checkquote(r, "made", akPem));
   auto const replaced = attestd("--tcti " + tpm.tcti() + " --create-ak --force");
   ASSERT_EQ(replaced.exitCode, 0);
   EXPECT_NE(replaced.output, slurp(akPem));
   EXPECT_EQ(attestd("--tcti " + tpm.tcti() + " --print-ak").output, replaced.output);

   // The TPM restarted (its PCRs anew), the persisted key still quotes.
   ASSERT_TRUE(tpm.restart()) << tpm.failure();
   ASSERT_TRUE(call(serve()->address(), request("restarted", {0, 1}), r).ok());
   EXPECT_TRUE(checkquote(r, "restarted", dir.file("replaced.pem", replaced.output)));
   EXPECT_EQ(hex(r.pcr_values().at(1)), String(64, '0'));
}

// A TPM that hangs, reached as the resource manager is, through a device:
// a pseudo-terminal that answers the device TCTI's probe as it opens, and
// nothing after. Each command waits no longer than --command-timeout;
// meanwhile one request waits, the next is refused at once, and one whose
// caller gave up while it waited is not sent to the TPM. The request after
// the deadline connects anew.
TEST_F(AttestdSwtpm, RequestsBeyondTheQueueAreRefusedAndATpmThatHangsFailsAtTheDeadline) {
   int master = -1, device = -1;
   char name[64] = {};
   termios raw{};
   cfmakeraw(&raw);  // bytes as they are: no line discipline between ESYS and the TPM
   ASSERT_EQ(openpty(&master, &device, name, &raw, nullptr), 0);
   // The probe's answer from a TPM not started yet (TPM_RC_INITIALIZE): the TCTI asks no more.
   ASSERT_EQ(write(master, "\x80\x01\0\0\0\x0a\0\0\x01\0", 10), 10);
   auto const d = serve({"--tcti", String("device:") + name, "--command-timeout", "2", "--max-queued", "1"});
   // Three at once, each giving up after a second: one with the TPM, one waiting, one refused.
   auto const caller = [&] {
      AttestResponse r;
      return call(d->address(), request("hung", {0}), r, 1).error_code();
   };
   auto first = std::async(std::launch::async, caller), second = std::async(std::launch::async, caller),
        third = std::async(std::launch::async, caller);
   EXPECT_EQ((std::multiset{first.get(), second.get(), third.get()}),
             (std::multiset{RESOURCE_EXHAUSTED, DEADLINE_EXCEEDED, DEADLINE_EXCEEDED}));
   // The service's own account, once the TPM's deadline has passed: the response code named.
   String const cancelled = ": CANCELLED: the caller cancelled the request, or its deadline passed, while it waited";
   for (int i = 0; i < 200 && !contains(slurp(log), cancelled); ++i) usleep(50000);
   String const timedOut = "UNAVAILABLE: cannot read the object at 0x81000100 through device:" + String(name) +
                           ": no response within 2 seconds (tcti:Operation timed out; function must be called "
                           "again to be completed, 0x000a0009)\n";
   for (String const &line : {cancelled, timedOut})
      EXPECT_TRUE(contains(slurp(log), line)) << slurp(log);
   AttestResponse r;
   auto const next = call(d->address(), request("next", {0}), r);
   EXPECT_TRUE(contains(next.error_message(), "cannot reach the TPM through device:")) << next.error_message();
   close(master), close(device);
}

TEST(Attestd, UsageErrors) {
   TempDir dir;
   String const notPem = dir.file("not.pem", "text\n");
   std::vector<std::pair<String, String>> const cases{
      {"", "without --tls-cert and --tls-key, quotes are served on a loopback address only, not on [::]:9339"},
      {"--listen 0.0.0.0", "without --tls-cert and --tls-key, quotes are served on a loopback address only"},
      {"--tls-cert " + notPem, "--tls-cert and --tls-key go together"},
      {"--listen 127.0.0.1 --tls-client-ca " + notPem, "--tls-client-ca needs --tls-cert and --tls-key"},
      {"--tls-cert " + notPem + " --tls-key " + notPem, "--tls-key " + notPem + ": no PEM private key in it"},
      {"--listen 127.0.0.1 --ak-cert " + notPem, "--ak-cert " + notPem + ": no PEM certificate in it"},
      {"--verbose", "unknown argument '--verbose'\nTry 'sentrel-attestd --help'."},
   };
   for (auto const &[args, message] : cases) {
      auto const r = attestd(args + " 2>&1");
      EXPECT_TRUE(r.exitCode == 2 && contains(r.output, "sentrel-attestd: " + message)) << r.exitCode << r.output;
   }
}
