// sentrel-attestd as a verifier meets it: the built program serving a real
// software TPM on loopback, called by an attestz client made from the proto,
// its quotes checked by tpm2-tools.
#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "EventLogWriter.h"
#include "Sentrel/platform/RunCommand.h"
#include "TestSupport.h"
#include "attest/AttestdOptions.h"
#include "attest/attestz.grpc.pb.h"
#include "evidence/Bytes.h"
#include "evidence/Cel.h"

extern char **environ;

using namespace SentrelTest;
using namespace openconfig::attestz;

namespace {

constexpr char const *kAttestd = SENTREL_ATTESTD_PATH;
constexpr char const *kVendor = "Example Networks";
constexpr char const *kProduct = "EX-4832";
constexpr char const *kSerial = "EXN2047A0193";
constexpr char const *kBiosLog = "/sys/kernel/security/tpm0/binary_bios_measurements";

// A shell command's exit status and its output, standard error included.
Loom::CommandResult sh(String const &command) { return Loom::runCommandForOutput("exec 2>&1; " + command); }

String randomBytes(std::size_t n) {
   String bytes(n, '\0');
   EXPECT_EQ(RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), static_cast<int>(n)), 1);
   return bytes;
}

String sha256(String const &data) {
   unsigned char out[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   EXPECT_EQ(EVP_Digest(data.data(), data.size(), out, &size, EVP_sha256(), nullptr), 1);
   return String(reinterpret_cast<char const *>(out), size);
}

bool contains(String const &text, String const &part) { return text.find(part) != String::npos; }

// sentrel-attestd started with `args`, its standard output and error in
// files of `dir`.
pid_t spawnAttestd(std::vector<String> const &args, TempDir const &dir, String const &name) {
   std::vector<char *> argv{const_cast<char *>(kAttestd)};
   for (auto const &a : args) argv.push_back(const_cast<char *>(a.c_str()));
   argv.push_back(nullptr);
   posix_spawn_file_actions_t files;
   posix_spawn_file_actions_init(&files);
   posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
   String const out = dir.path() + "/" + name + ".out", err = dir.path() + "/" + name + ".err";
   posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   pid_t pid = -1;
   int const rc = posix_spawn(&pid, kAttestd, &files, nullptr, argv.data(), environ);
   posix_spawn_file_actions_destroy(&files);
   EXPECT_EQ(rc, 0) << "cannot start " << kAttestd;
   return rc == 0 ? pid : -1;
}

// The exit status of `pid` as a shell reports it, once it ended within
// `patience`; killed, and 137, when it did not.
int waitFor(pid_t pid, std::chrono::milliseconds patience) {
   auto const until = std::chrono::steady_clock::now() + patience;
   int status = 0;
   while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= until) {
         kill(pid, SIGKILL);
         waitpid(pid, &status, 0);
         ADD_FAILURE() << "sentrel-attestd did not end within " << patience.count() << " ms";
         return 137;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// One run of sentrel-attestd to its end.
struct Run {
   int exitCode;
   String out, err;
};
Run runAttestd(std::vector<String> const &args) {
   TempDir dir;
   pid_t const pid = spawnAttestd(args, dir, "run");
   int const code = pid > 0 ? waitFor(pid, std::chrono::seconds(60)) : 127;
   return {code, slurp(dir.path() + "/run.out"), slurp(dir.path() + "/run.err")};
}

// sentrel-attestd serving on a free loopback port, with its log on standard
// error; stopped with SIGTERM, as systemd stops it, however the test ends.
class Daemon {
 public:
   explicit Daemon(std::vector<String> args, std::shared_ptr<grpc::ChannelCredentials> client = nullptr) {
      port_ = freeLoopbackPort();
      args.insert(args.end(), {"--no-syslog", "--listen", "127.0.0.1:" + std::to_string(port_)});
      pid_ = spawnAttestd(args, dir_, "attestd");
      channel_ = grpc::CreateChannel("127.0.0.1:" + std::to_string(port_),
                                     client ? client : grpc::InsecureChannelCredentials());
      stub_ = TpmAttestzService::NewStub(channel_);
   }
   Daemon(Daemon const &) = delete;
   ~Daemon() {
      if (pid_ > 0) stop();
   }
   // Whether it serves: its port takes a connection within a few seconds.
   bool serving() {
      auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (std::chrono::steady_clock::now() < until) {
         if (pid_ <= 0 || waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;
            return false;
         }
         int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
         sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(port_), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
         bool const connected = connect(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
         close(s);
         if (connected) return true;
         std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      return false;
   }
   grpc::Status attest(AttestRequest const &request, AttestResponse &response,
                       std::chrono::seconds deadline = std::chrono::seconds(30)) const {
      grpc::ClientContext context;
      context.set_deadline(std::chrono::system_clock::now() + deadline);
      return stub_->Attest(&context, request, &response);
   }
   // Stops it; its exit status, 0 when it ended cleanly (and, in the
   // sanitizer build, leaked nothing).
   int stop() {
      kill(pid_, SIGTERM);
      int const code = waitFor(pid_, std::chrono::seconds(30));
      pid_ = -1;
      return code;
   }
   String log() const { return slurp(dir_.path() + "/attestd.err"); }
   std::uint16_t port() const { return port_; }

 private:
   TempDir dir_;
   std::uint16_t port_ = 0;
   pid_t pid_ = -1;
   std::shared_ptr<grpc::Channel> channel_;
   std::unique_ptr<TpmAttestzService::Stub> stub_;
};

AttestRequest request(String const &nonce, Tpm20HashAlgo bank, std::vector<int> const &pcrs) {
   AttestRequest r;
   r.mutable_control_card_selection()->set_role(CONTROL_CARD_ROLE_ACTIVE);
   r.set_nonce(nonce);
   r.set_hash_algo(bank);
   for (int const i : pcrs) r.add_pcr_indices(i);
   return r;
}

String pcrList(std::vector<int> const &pcrs) {
   String list;
   for (int const i : pcrs) list += (list.empty() ? "" : ",") + std::to_string(i);
   return list;
}

// The values of `response` in ascending order of index, as one blob.
String valuesInOrder(AttestResponse const &response) {
   std::map<int, String> const sorted(response.pcr_values().begin(), response.pcr_values().end());
   String all;
   for (auto const &[index, value] : sorted) all += value;
   return all;
}

// A software TPM whose PCRs hold values of their own, a system root with
// the machine's DMI identity and its firmware's event log, and an
// attestation key made by `sentrel-attestd --create-ak`.
struct AttestdSwtpm : ::testing::Test {
   void SetUp() override {
      if (!tpm.running()) GTEST_SKIP() << tpm.failure();
      if (sh("command -v tpm2_checkquote").exitCode != 0) GTEST_SKIP() << "tpm2-tools is not installed";
      if (sh("command -v openssl").exitCode != 0) GTEST_SKIP() << "openssl is not installed";
      String extend = "tpm2_pcrextend";
      for (int const pcr : {0, 1, 2, 4, 7, 9, 14, 23}) {
         extend += " " + std::to_string(pcr) + ":sha1=" + hex(randomBytes(20)) + ",sha256=" + hex(randomBytes(32));
      }
      auto const extended = tpm2(extend);
      ASSERT_EQ(extended.exitCode, 0) << extended.output;
      root.file("sys/class/dmi/id/sys_vendor", String(kVendor) + "\n");
      root.file("sys/class/dmi/id/product_name", String(kProduct) + "\n");
      root.file("sys/class/dmi/id/product_serial", String(kSerial) + "\n");
      root.file(String(kBiosLog).substr(1), writeEventLog(LogPlan{.startupLocality = 3, .events = firmwareEvents(40, 7)}));
      akCert = dir.file("ak-cert.pem", selfSignedCertificate());
      auto const made = runAttestd({"--tcti", tpm.tcti(), "--create-ak"});
      ASSERT_EQ(made.exitCode, 0) << made.err;
      akPem = dir.file("ak.pem", made.out);
   }

   Loom::CommandResult tpm2(String const &command) const { return sh("TPM2TOOLS_TCTI=" + tpm.tcti() + " " + command); }

   std::vector<String> serving(std::vector<String> more = {}) const {
      std::vector<String> args{"--tcti", tpm.tcti(), "--sysroot", root.path(), "--ak-cert", akCert};
      args.insert(args.end(), more.begin(), more.end());
      return args;
   }

   // Any certificate stands for the one an owner's CA issues for the AK: the service only passes it on.
   String selfSignedCertificate() const {
      auto const r = sh("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + dir.path() +
                        "/ak-cert.key -subj /CN=ak -days 1 2>/dev/null");
      EXPECT_EQ(r.exitCode, 0) << "openssl: " << r.output;
      return r.output;
   }

   // tpm2_checkquote's verdict on `response` for `nonce`, with the AK in `pem`:
   // the signature, the nonce and, for fewer than 8 PCRs, their values (its
   // reader of a values file of 8 or more fails in tpm2-tools 5.4; the
   // tests check pcrDigest against the values themselves).
   Loom::CommandResult checkquote(AttestResponse const &response, String const &nonce, String const &bank,
                                  std::vector<int> const &pcrs, String const &pem) const {
      String const m = dir.file("quoted.bin", response.quoted()), s = dir.file("signature.bin", response.quote_signature()),
                   f = dir.file("pcrs.bin", valuesInOrder(response));
      String const values = pcrs.size() < 8 ? " -f " + f + " -l " + bank + ":" + pcrList(pcrs) : String();
      return sh("tpm2_checkquote -u " + pem + " -m " + m + " -s " + s + values + " -g sha256 -q " + hex(nonce));
   }

   // A field of the TPMS_ATTEST as tpm2_print decodes it.
   String attestField(AttestResponse const &response, String const &field) const {
      auto const r = sh("tpm2_print -t TPMS_ATTEST " + dir.file("attest.bin", response.quoted()));
      EXPECT_EQ(r.exitCode, 0) << r.output;
      auto const at = r.output.find(field + ": ");
      if (at == String::npos) return "(no " + field + " in: " + r.output + ")";
      auto const start = at + field.size() + 2;
      return r.output.substr(start, r.output.find('\n', start) - start);
   }

   SoftwareTpm tpm;
   TempDir root, dir;
   String akPem, akCert;
};

}  // namespace

TEST_F(AttestdSwtpm, AQuoteThatTpm2CheckquoteAcceptsForTheNonceOnly) {
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   std::vector<int> const pcrs{0, 1, 2, 3, 4, 5, 6, 7, 9, 14, 23};
   String const nonce = randomBytes(32);
   AttestResponse r;
   auto const status = d.attest(request(nonce, TPM_2_0_HASH_ALGO_SHA256, pcrs), r);
   ASSERT_TRUE(status.ok()) << status.error_message();

   auto const accepted = checkquote(r, nonce, "sha256", pcrs, akPem);
   EXPECT_EQ(accepted.exitCode, 0) << accepted.output;
   auto const otherNonce = checkquote(r, randomBytes(32), "sha256", pcrs, akPem);
   EXPECT_NE(otherNonce.exitCode, 0) << "a quote for one nonce passes for another";
   EXPECT_EQ(attestField(r, "extraData"), hex(nonce));
   // pcrDigest: the values in ascending order, hashed with the AK's SHA-256.
   EXPECT_EQ(attestField(r, "pcrDigest"), hex(sha256(valuesInOrder(r))));
   EXPECT_EQ(d.stop(), 0) << d.log();
}

TEST_F(AttestdSwtpm, PcrValuesAreWhatTpm2PcrreadReads) {
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   // The bank asked for, its TPM name, the PCRs; UNSPECIFIED is sha256.
   std::vector<std::tuple<Tpm20HashAlgo, String, std::vector<int>>> const cases{
      {TPM_2_0_HASH_ALGO_SHA256, "sha256", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}},
      {TPM_2_0_HASH_ALGO_SHA1, "sha1", {0, 7, 23}},
      {TPM_2_0_HASH_ALGO_UNSPECIFIED, "sha256", {4}},
   };
   for (auto const &[bank, name, pcrs] : cases) {
      SCOPED_TRACE(name + ":" + pcrList(pcrs));
      String const nonce = randomBytes(20);
      AttestResponse r;
      auto const status = d.attest(request(nonce, bank, pcrs), r);
      ASSERT_TRUE(status.ok()) << status.error_message();
      ASSERT_EQ(r.pcr_values_size(), static_cast<int>(pcrs.size()));
      String const file = dir.path() + "/pcrread.bin";
      auto const read = tpm2("tpm2_pcrread " + name + ":" + pcrList(pcrs) + " -o " + file);
      ASSERT_EQ(read.exitCode, 0) << read.output;
      EXPECT_EQ(hex(valuesInOrder(r)), hex(slurp(file)));
      auto const accepted = checkquote(r, nonce, name, pcrs, akPem);
      EXPECT_EQ(accepted.exitCode, 0) << accepted.output;
   }
}

TEST_F(AttestdSwtpm, TheAnswerNamesTheCardAndCarriesTheLogAndTheKeysCertificate) {
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   AttestResponse r;
   auto const status = d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0, 7}), r);
   ASSERT_TRUE(status.ok()) << status.error_message();

   auto const &card = r.control_card_id();
   EXPECT_EQ(card.control_card_role(), CONTROL_CARD_ROLE_ACTIVE);
   EXPECT_EQ(card.control_card_serial(), kSerial);
   EXPECT_EQ(card.chassis_manufacturer(), kVendor);
   EXPECT_EQ(card.chassis_part_number(), kProduct);
   EXPECT_EQ(card.chassis_serial_number(), kSerial);
   EXPECT_EQ(r.attestation_cert().oiak_cert(), slurp(akCert));

   // The log's records read back as the events of the firmware's log.
   auto const binary = SentrelEvidence::parseEventLog(slurp(root.path() + kBiosLog));
   auto const canonical = SentrelEvidence::parseCanonicalEventLog(r.eventlog_bytes());
   ASSERT_TRUE(std::holds_alternative<SentrelEvidence::EventLog>(canonical))
      << std::get<SentrelEvidence::EventLogProblem>(canonical).what;
   auto const &sent = std::get<SentrelEvidence::EventLog>(canonical);
   auto const &firmware = std::get<SentrelEvidence::EventLog>(binary);
   EXPECT_EQ(sent.startupLocality, firmware.startupLocality);
   ASSERT_EQ(sent.events.size(), firmware.events.size());
   for (std::size_t i = 0; i < sent.events.size(); ++i) {
      auto const &a = sent.events[i], &b = firmware.events[i];
      SCOPED_TRACE("event " + std::to_string(i));
      EXPECT_EQ(a.number, b.number);
      EXPECT_EQ(a.pcr, b.pcr);
      EXPECT_EQ(a.type, b.type);
      EXPECT_EQ(hex(a.data), hex(b.data));
      ASSERT_EQ(a.digests.size(), b.digests.size());
      for (std::size_t j = 0; j < a.digests.size(); ++j) {
         EXPECT_EQ(a.digests[j].algorithm, b.digests[j].algorithm);
         EXPECT_EQ(hex(a.digests[j].bytes), hex(b.digests[j].bytes));
      }
   }
}

TEST_F(AttestdSwtpm, RefusedRequestsAndEachRequestALineOfTheLog) {
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   using Edit = std::function<void(AttestRequest &)>;
   struct Case {
      char const *name;
      Edit edit;
      grpc::StatusCode code;
      char const *message;
   };
   std::vector<Case> const cases{
      {"a nonce of 65 bytes", [](AttestRequest &r) { r.set_nonce(String(65, 'n')); }, grpc::StatusCode::INVALID_ARGUMENT,
       "the nonce has 65 bytes, more than the 64 a quote holds"},
      {"no nonce", [](AttestRequest &r) { r.clear_nonce(); }, grpc::StatusCode::INVALID_ARGUMENT, "the nonce is empty"},
      {"a bank that is none", [](AttestRequest &r) { r.set_hash_algo(static_cast<Tpm20HashAlgo>(5)); },
       grpc::StatusCode::INVALID_ARGUMENT, "hash_algo 5 names no PCR bank"},
      {"PCR 24", [](AttestRequest &r) { r.add_pcr_indices(24); }, grpc::StatusCode::INVALID_ARGUMENT,
       "PCR 24 is not one a TPM has: PCRs are 0 to 23"},
      {"PCR -1", [](AttestRequest &r) { r.add_pcr_indices(-1); }, grpc::StatusCode::INVALID_ARGUMENT,
       "PCR -1 is not one a TPM has"},
      {"no PCR", [](AttestRequest &r) { r.clear_pcr_indices(); }, grpc::StatusCode::INVALID_ARGUMENT,
       "pcr_indices is empty"},
      {"no card", [](AttestRequest &r) { r.clear_control_card_selection(); }, grpc::StatusCode::INVALID_ARGUMENT,
       "control_card_selection is empty"},
      {"the standby card", [](AttestRequest &r) { r.mutable_control_card_selection()->set_role(CONTROL_CARD_ROLE_STANDBY); },
       grpc::StatusCode::NOT_FOUND, "no standby control card"},
      {"another serial", [](AttestRequest &r) { r.mutable_control_card_selection()->set_serial("EXN0000"); },
       grpc::StatusCode::NOT_FOUND, "no control card has the serial \"EXN0000\""},
      {"a slot", [](AttestRequest &r) { r.mutable_control_card_selection()->set_slot("1"); },
       grpc::StatusCode::NOT_FOUND, "the control card has no slot"},
      {"a bank the TPM has not enabled", [](AttestRequest &r) { r.set_hash_algo(TPM_2_0_HASH_ALGO_SHA384); },
       grpc::StatusCode::FAILED_PRECONDITION, "has no sha384 PCR bank enabled"},
      // What is answered, at the edges of the refusals.
      {"a nonce of 64 bytes", [](AttestRequest &r) { r.set_nonce(String(64, 'n')); }, grpc::StatusCode::OK, ""},
      {"this card by its serial", [](AttestRequest &r) { r.mutable_control_card_selection()->set_serial(kSerial); },
       grpc::StatusCode::OK, ""},
      {"PCR 23 twice", [](AttestRequest &r) {
          r.add_pcr_indices(23);
          r.add_pcr_indices(23);
       }, grpc::StatusCode::OK, ""},
   };
   for (auto const &c : cases) {
      SCOPED_TRACE(c.name);
      AttestRequest req = request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0, 1});
      c.edit(req);
      AttestResponse r;
      auto const status = d.attest(req, r);
      EXPECT_EQ(status.error_code(), c.code) << status.error_message();
      EXPECT_TRUE(contains(status.error_message(), c.message)) << status.error_message();
   }
   EXPECT_EQ(d.stop(), 0);
   // One line a request: the peer, the nonce's length, the bank and PCRs, the result.
   auto const log = d.log();
   std::size_t lines = 0;
   for (std::size_t at = 0; (at = log.find("sentrel-attestd: Attest from ipv4:127.0.0.1:", at)) != String::npos; ++at) ++lines;
   EXPECT_EQ(lines, cases.size()) << log;
   EXPECT_TRUE(contains(log, ": role CONTROL_CARD_ROLE_ACTIVE, nonce 65 bytes, sha256 PCRs 0-1: INVALID_ARGUMENT: "
                             "the nonce has 65 bytes"))
      << log;
   EXPECT_TRUE(contains(log, ": role CONTROL_CARD_ROLE_ACTIVE, nonce 32 bytes, sha384 PCRs 0-1: FAILED_PRECONDITION"))
      << log;
   EXPECT_TRUE(contains(log, ": serial \"" + String(kSerial) + "\", nonce 32 bytes, sha256 PCRs 0-1: OK\n")) << log;
   EXPECT_TRUE(contains(log, ", nonce 32 bytes, sha256 PCRs 0-1,23: OK\n")) << log;
}

TEST_F(AttestdSwtpm, AMissingOrUnusableLogOrKeyIsUnavailableWithTheReason) {
   // An RSA storage key persisted where an attestation key is looked for.
   auto const other = tpm2("tpm2_createprimary -C o -G rsa2048 -c " + dir.path() + "/rsa.ctx >/dev/null && " +
                           "TPM2TOOLS_TCTI=" + tpm.tcti() + " tpm2_evictcontrol -C o -c " + dir.path() +
                           "/rsa.ctx 0x81000102");
   ASSERT_EQ(other.exitCode, 0) << other.output;
   int held = -1;
   String const closed = "swtpm:host=127.0.0.1,port=" + std::to_string(freeLoopbackPort(&held));
   std::vector<std::tuple<char const *, std::vector<String>, String>> const cases{
      {"no log", {"--event-log", dir.path() + "/none"},
       "the firmware's event log: cannot open " + dir.path() + "/none: No such file or directory"},
      {"a log that is none", {"--event-log", dir.file("garbage", String(40, 'x'))},
       "the firmware's event log " + dir.path() + "/garbage cannot be read: event 0 at byte 0 ends past the end"},
      {"no log below the system root", {"--sysroot", dir.path()},
       String("the firmware's event log: cannot open ") + kBiosLog + ": No such file or directory"},
      {"no key at the handle", {"--ak-handle", "0x81000101"},
       "no attestation key is persisted at 0x81000101 of the TPM at " + tpm.tcti() +
          ": make it with sentrel-attestd --create-ak"},
      {"a key that is no AK", {"--ak-handle", "0x81000102"},
       "the object at 0x81000102 is not an attestation key: it is not an ECC key"},
      {"no TPM", {"--tcti", closed}, "cannot reach the TPM through " + closed + ": tcti:IO failure (0x000a000a)"},
   };
   for (auto const &[name, more, message] : cases) {
      SCOPED_TRACE(name);
      Daemon d(serving(more));
      ASSERT_TRUE(d.serving()) << d.log();
      AttestResponse r;
      auto const status = d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), r);
      EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
      EXPECT_TRUE(status.error_message().starts_with(message)) << status.error_message();
      EXPECT_EQ(d.stop(), 0) << d.log();
   }
   close(held);
}

TEST_F(AttestdSwtpm, AKeyRemovedWhileServingIsMissedAndOneMadeAfterIsUsed) {
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   AttestResponse r;
   ASSERT_TRUE(d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), r).ok());
   auto const evicted = tpm2("tpm2_evictcontrol -C o -c 0x81000100");
   ASSERT_EQ(evicted.exitCode, 0) << evicted.output;
   auto const missing = d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), r);
   EXPECT_EQ(missing.error_code(), grpc::StatusCode::UNAVAILABLE);
   EXPECT_TRUE(contains(missing.error_message(), "no attestation key is persisted at 0x81000100")) << missing.error_message();

   auto const made = runAttestd({"--tcti", tpm.tcti(), "--create-ak"});
   ASSERT_EQ(made.exitCode, 0) << made.err;
   String const nonce = randomBytes(32);
   AttestResponse again;
   auto const status = d.attest(request(nonce, TPM_2_0_HASH_ALGO_SHA256, {0, 7}), again);
   ASSERT_TRUE(status.ok()) << status.error_message();
   auto const accepted = checkquote(again, nonce, "sha256", {0, 7}, dir.file("new-ak.pem", made.out));
   EXPECT_EQ(accepted.exitCode, 0) << accepted.output;
}

TEST_F(AttestdSwtpm, TheKeyIsMadeOnceAndReplacedOnlyWithForce) {
   // --print-ak: the PEM of --create-ak and the TPM name that tpm2-tools reads.
   auto const printed = runAttestd({"--tcti", tpm.tcti(), "--print-ak"});
   ASSERT_EQ(printed.exitCode, 0) << printed.err;
   EXPECT_EQ(printed.out, slurp(akPem));
   auto const name = tpm2("tpm2_readpublic -c 0x81000100 | sed -n 's/^name: //p'");
   EXPECT_TRUE(contains(printed.out, "-----END PUBLIC KEY-----\nTPM name: " + name.output)) << printed.out;
   auto const attributes = tpm2("tpm2_readpublic -c 0x81000100 | sed -n '/^attributes:/{n;p}'");
   EXPECT_EQ(attributes.output, "  value: fixedtpm|fixedparent|sensitivedataorigin|userwithauth|restricted|sign\n");

   auto const again = runAttestd({"--tcti", tpm.tcti(), "--create-ak"});
   EXPECT_EQ(again.exitCode, 1);
   EXPECT_EQ(again.err, "sentrel-attestd: the TPM at " + tpm.tcti() +
                           " holds an object at 0x81000100 already: --force replaces it, which voids every record "
                           "and certificate of the key it holds\n");
   EXPECT_EQ(runAttestd({"--tcti", tpm.tcti(), "--print-ak"}).out, printed.out);

   auto const replaced = runAttestd({"--tcti", tpm.tcti(), "--create-ak", "--force"});
   ASSERT_EQ(replaced.exitCode, 0) << replaced.err;
   EXPECT_NE(replaced.out, printed.out);
   EXPECT_EQ(runAttestd({"--tcti", tpm.tcti(), "--print-ak"}).out, replaced.out);

   auto const none = runAttestd({"--tcti", tpm.tcti(), "--print-ak", "--ak-handle", "0x81000200"});
   EXPECT_EQ(none.exitCode, 1);
   EXPECT_EQ(none.err, "sentrel-attestd: no attestation key is persisted at 0x81000200 of the TPM at " + tpm.tcti() +
                          ": make it with --create-ak\n");
}

TEST_F(AttestdSwtpm, ThePersistedKeyStillQuotesAfterTheTpmRestarts) {
   ASSERT_TRUE(tpm.restart()) << tpm.failure();
   Daemon d(serving());
   ASSERT_TRUE(d.serving()) << d.log();
   String const nonce = randomBytes(32);
   AttestResponse r;
   auto const status = d.attest(request(nonce, TPM_2_0_HASH_ALGO_SHA256, {0, 1, 2}), r);
   ASSERT_TRUE(status.ok()) << status.error_message();
   auto const accepted = checkquote(r, nonce, "sha256", {0, 1, 2}, akPem);
   EXPECT_EQ(accepted.exitCode, 0) << accepted.output;
   // The PCRs started anew.
   EXPECT_EQ(hex(r.pcr_values().at(1)), String(64, '0'));
}

TEST_F(AttestdSwtpm, TlsAndClientCertificates) {
   // A CA, and from it the switch's certificate for 127.0.0.1 and a verifier's.
   String const d = dir.path();
   auto const made = sh(
      "cd " + d + " && printf 'subjectAltName=IP:127.0.0.1\\n' >server.ext && " +
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem -subj /CN=ca -days 1 && " +
      "for who in server client; do openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $who.key " +
      "-out $who.csr -subj /CN=$who && openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key -CAcreateserial " +
      "-out $who.pem -days 1 $( [ $who = server ] && echo -extfile server.ext ) || exit 1; done");
   ASSERT_EQ(made.exitCode, 0) << made.output;
   grpc::SslCredentialsOptions anonymous{slurp(d + "/ca.pem"), "", ""};
   grpc::SslCredentialsOptions verifier{slurp(d + "/ca.pem"), slurp(d + "/client.key"), slurp(d + "/client.pem")};
   std::vector<String> const tls{"--tls-cert", d + "/server.pem", "--tls-key", d + "/server.key"};
   std::vector<String> mutual = tls;
   mutual.insert(mutual.end(), {"--tls-client-ca", d + "/ca.pem"});
   // The service's options, the client's credentials, whether it is answered.
   std::vector<std::tuple<char const *, std::vector<String>, std::shared_ptr<grpc::ChannelCredentials>, bool>> const cases{
      {"TLS", tls, grpc::SslCredentials(anonymous), true},
      {"TLS, a plaintext client", tls, grpc::InsecureChannelCredentials(), false},
      {"mutual TLS", mutual, grpc::SslCredentials(verifier), true},
      {"mutual TLS, a client without a certificate", mutual, grpc::SslCredentials(anonymous), false},
   };
   for (auto const &[name, options, client, answered] : cases) {
      SCOPED_TRACE(name);
      Daemon daemon(serving(options), client);
      ASSERT_TRUE(daemon.serving()) << daemon.log();
      AttestResponse r;
      auto const status = daemon.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), r,
                                        std::chrono::seconds(5));
      EXPECT_EQ(status.ok(), answered) << status.error_message() << "\n" << daemon.log();
      EXPECT_EQ(daemon.stop(), 0) << daemon.log();
   }
}

// The software TPM reached as the resource manager is, through a device
// (the device TCTI): a pseudo-terminal whose other end passes commands to
// the TPM and its responses back, unless it is told to hold them back, as
// a TPM that hangs does.
class TpmBehindDevice {
 public:
   explicit TpmBehindDevice(String const &swtpmTcti) {
      int const port = std::stoi(swtpmTcti.substr(swtpmTcti.rfind('=') + 1));
      sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(static_cast<std::uint16_t>(port)),
                    .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
      tpm_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      char name[64] = {};
      if (connect(tpm_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
          openpty(&master_, &device_, name, nullptr, nullptr) != 0) {
         return;
      }
      // Bytes as they are: no line discipline between ESYS and the TPM.
      termios raw{};
      tcgetattr(device_, &raw);
      cfmakeraw(&raw);
      tcsetattr(device_, TCSANOW, &raw);
      tcti_ = String("device:") + name;
      pump_ = std::thread([this] { pump(); });
   }
   ~TpmBehindDevice() {
      stop_ = true;
      if (pump_.joinable()) pump_.join();
      for (int const fd : {tpm_, master_, device_}) {
         if (fd >= 0) close(fd);
      }
   }
   String const &tcti() const { return tcti_; }
   void hang(bool hung) { hung_ = hung; }

 private:
   void pump() {
      char buffer[4096];
      while (!stop_) {
         pollfd fds[] = {{master_, POLLIN, 0}, {tpm_, POLLIN, 0}};
         if (poll(fds, 2, 50) <= 0) continue;
         if (fds[0].revents & POLLIN) {
            ssize_t const n = read(master_, buffer, sizeof buffer);
            if (n > 0 && write(tpm_, buffer, static_cast<std::size_t>(n)) != n) return;
         }
         if (fds[1].revents & POLLIN) {
            ssize_t const n = read(tpm_, buffer, sizeof buffer);
            if (n <= 0) return;
            if (!hung_ && write(master_, buffer, static_cast<std::size_t>(n)) != n) return;
         }
      }
   }
   int tpm_ = -1, master_ = -1, device_ = -1;
   String tcti_;
   std::atomic<bool> hung_{false}, stop_{false};
   std::thread pump_;
};

// A TPM that hangs: each command waits no longer than --command-timeout;
// meanwhile one request waits, the next is refused at once, and one whose
// caller gave up while it waited is not sent to the TPM. Once the TPM
// answers again, so does the service, on a new connection.
TEST_F(AttestdSwtpm, RequestsBeyondTheQueueAreRefusedAndATpmThatHangsFailsAtTheDeadline) {
   TpmBehindDevice device(tpm.tcti());
   ASSERT_FALSE(device.tcti().empty());
   Daemon d(serving({"--tcti", device.tcti(), "--command-timeout", "2", "--max-queued", "1"}));
   ASSERT_TRUE(d.serving()) << d.log();
   AttestResponse r;
   auto const first = d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), r);
   ASSERT_TRUE(first.ok()) << first.error_message();
   device.hang(true);
   // Three at once, each giving up after a second: one with the TPM, one waiting, one refused.
   std::vector<grpc::Status> statuses(3);
   std::vector<std::thread> callers;
   for (auto &status : statuses) {
      callers.emplace_back([&] {
         AttestResponse response;
         status = d.attest(request(randomBytes(32), TPM_2_0_HASH_ALGO_SHA256, {0}), response, std::chrono::seconds(1));
      });
   }
   for (auto &c : callers) c.join();
   std::map<grpc::StatusCode, int> codes;
   for (auto const &s : statuses) ++codes[s.error_code()];
   EXPECT_EQ(codes, (std::map<grpc::StatusCode, int>{{grpc::StatusCode::DEADLINE_EXCEEDED, 2},
                                                     {grpc::StatusCode::RESOURCE_EXHAUSTED, 1}}));
   // The service's own account, once the TPM's deadline has passed.
   String const cancelled = ": CANCELLED: the caller cancelled the request, or its deadline passed, while it waited "
                            "for the TPM\n";
   for (int i = 0; i < 200 && !contains(d.log(), cancelled); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
   auto const log = d.log();
   EXPECT_TRUE(contains(log, cancelled)) << log;
   EXPECT_TRUE(contains(log, ": RESOURCE_EXHAUSTED: the TPM is busy and 1 request waits for it already: ask again later\n"))
      << log;
   EXPECT_TRUE(contains(log, ": UNAVAILABLE: cannot read the sha256 PCRs through " + device.tcti() +
                                ": no response within 2 seconds ("))
      << log;

   device.hang(false);
   String const nonce = randomBytes(32);
   auto const status = d.attest(request(nonce, TPM_2_0_HASH_ALGO_SHA256, {0, 7}), r);
   ASSERT_TRUE(status.ok()) << status.error_message() << "\n" << d.log();
   auto const accepted = checkquote(r, nonce, "sha256", {0, 7}, akPem);
   EXPECT_EQ(accepted.exitCode, 0) << accepted.output;
   EXPECT_EQ(d.stop(), 0);
}

TEST(Attestd, UsageErrors) {
   TempDir dir;
   String const notPem = dir.file("not.pem", "text\n");
   std::vector<std::pair<std::vector<String>, String>> const cases{
      {{}, "without --tls-cert and --tls-key, quotes are served on a loopback address only, not on [::]:9339: "
           "give the service a certificate, or --listen 127.0.0.1"},
      {{"--listen", "192.0.2.1"}, "without --tls-cert and --tls-key, quotes are served on a loopback address only, "
                                  "not on 192.0.2.1:9339"},
      {{"--listen", "127.0.0.1:65536"}, "--listen takes ADDRESS[:PORT], such as 127.0.0.1:9339 or [::1], not '127.0.0.1:65536'"},
      {{"--listen", "[::1"}, "--listen takes ADDRESS[:PORT]"},
      {{"--tls-cert", notPem}, "--tls-cert and --tls-key go together"},
      {{"--listen", "127.0.0.1", "--tls-client-ca", notPem}, "--tls-client-ca needs --tls-cert and --tls-key"},
      {{"--tls-cert", notPem, "--tls-key", dir.path() + "/none"}, "--tls-key cannot open " + dir.path() + "/none: No such file"},
      {{"--tls-cert", notPem, "--tls-key", notPem}, "--tls-key " + notPem + ": no PEM private key in it"},
      {{"--listen", "127.0.0.1", "--ak-cert", notPem}, "--ak-cert " + notPem + ": no PEM certificate in it"},
      {{"--ak-handle", "0x81800000"}, "--ak-handle takes a persistent handle of the owner, 0x81000000 to 0x817fffff, not '0x81800000'"},
      {{"--command-timeout", "0"}, "--command-timeout takes seconds above 0 and at most 86400, such as 10 or 2.5, not '0'"},
      {{"--max-queued", "-1"}, "--max-queued takes a number from 0 to 4096, not '-1'"},
      {{"--force"}, "--force replaces a key only with --create-ak"},
      {{"--create-ak", "--print-ak"}, "--create-ak prints the key it makes: give it without --print-ak"},
      {{"--sysroot", dir.path() + "/none"}, "--sysroot " + dir.path() + "/none: not a folder"},
      {{"--tcti"}, "--tcti needs a value"},
      {{"--verbose"}, "unknown argument '--verbose'"},
   };
   for (auto const &[args, message] : cases) {
      SCOPED_TRACE(args.empty() ? "no options" : args.front());
      auto const r = runAttestd(args);
      EXPECT_EQ(r.exitCode, 2) << r.err;
      EXPECT_TRUE(contains(r.err, "sentrel-attestd: " + message)) << r.err;
      EXPECT_TRUE(contains(r.err, "Try 'sentrel-attestd --help'.")) << r.err;
      EXPECT_EQ(r.out, "");
   }
}

TEST(Attestd, ListenAddressesAndWhichAreLoopback) {
   using SentrelAttestd::parseListenAddress;
   // The text, the host and port it names (empty when none), whether only this machine reaches it.
   std::vector<std::tuple<String, String, bool>> const cases{
      {"127.0.0.1", "127.0.0.1:9339", true},
      {"127.1.2.3:50051", "127.1.2.3:50051", true},
      {"localhost:0", "localhost:0", true},
      {"[::1]:9339", "[::1]:9339", true},
      {"::1", "[::1]:9339", true},
      {"[::]", "[::]:9339", false},
      {"0.0.0.0:9339", "0.0.0.0:9339", false},
      {"10.0.0.1", "10.0.0.1:9339", false},
      {"switch.example.net:9339", "switch.example.net:9339", false},
      {"[::ffff:127.0.0.1]", "[::ffff:127.0.0.1]:9339", false},
      {"127.0.0.1:", "", false},
      {":9339", "", false},
      {"[::1]9339", "", false},
      {"[nothing]:1", "", false},
      {"host:port", "", false},
      {"a b:1", "", false},
   };
   for (auto const &[text, address, loopback] : cases) {
      SCOPED_TRACE(text);
      auto const a = parseListenAddress(text);
      EXPECT_EQ(a ? a->text() : "", address);
      if (a) {
         EXPECT_EQ(SentrelAttestd::isLoopback(*a), loopback);
      }
   }
}
