// sentrel-attestd against the TPM work it asks for. Two software TPMs, made
// alike, each with an attestation key: the built service serves one, and
// the floor talks to the other directly through ESYS, sending the commands
// that one request costs (the PCR reads and the TPM2_Quote) and nothing
// else. An attestz client calls Attest for the verifier's default PCRs
// (sha256 0-9, 12-14) with a fresh nonce; the answer carries a firmware
// event log of 200 events (100 KB of JSON). Then it calls Attest without a
// nonce, refused before the TPM is asked: a gRPC round trip and nothing
// else. The three take turns within each iteration, so that a slower spell
// of the machine weighs on all alike. The counters are medians:
// `attestd_ms` (a request, as the client sees it), `tpm_ms` (the floor),
// `roundtrip_ms` (the refused request), `attestd/tpm`, the service's own
// time (a request less the round trip that any call costs) over the
// floor's, `total/tpm`, a request over the floor, and `attestd_cpu_ms`,
// the service's CPU time per request (from /proc), TPM client included.
// The items per second are the service's requests, one at a time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grpcpp/create_channel.h>
#include <malloc.h>
#include <netinet/in.h>
#include <openssl/rand.h>
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "BenchSupport.h"
#include "attest/attestz.grpc.pb.h"
#include "tests/EventLogWriter.h"
#include "tpm/PcrRead.h"
#include "tpm/Quote.h"

extern char **environ;

namespace {

using namespace openconfig::attestz;
using SentrelBench::String;

bool bindable(std::uint16_t port) {
   sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
   int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   bool const ok = bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
   close(s);
   return ok;
}

// A port of loopback that nothing uses, and when `pair`, the next one too:
// swtpm's control port. Every TPM command of the swtpm TCTI opens a control
// connection, so thousands of ports linger in TIME_WAIT after a run.
std::uint16_t freePort(bool pair = false) {
   for (int attempt = 0; attempt < 100; ++attempt) {
      sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
      socklen_t size = sizeof a;
      int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      bind(s, reinterpret_cast<sockaddr *>(&a), size);
      getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
      close(s);
      std::uint16_t const port = ntohs(a.sin_port);
      if (!pair || (port < 65535 && bindable(port + 1))) return port;
   }
   return 0;
}

// Runs `args`, output to /dev/null unless `out` names a file; its pid.
pid_t spawn(std::vector<String> const &args, String const &out = "/dev/null") {
   std::vector<char *> argv;
   for (auto const &a : args) argv.push_back(const_cast<char *>(a.c_str()));
   argv.push_back(nullptr);
   posix_spawn_file_actions_t files;
   posix_spawn_file_actions_init(&files);
   posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
   posix_spawn_file_actions_adddup2(&files, 1, 2);
   pid_t pid = -1;
   if (posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ) != 0) pid = -1;
   posix_spawn_file_actions_destroy(&files);
   return pid;
}

bool succeeds(std::vector<String> const &args, String const &out = "/dev/null") {
   int status = 0;
   pid_t const pid = spawn(args, out);
   return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A software TPM with the sha256 bank, in a folder of its own, and an
// attestation key made by sentrel-attestd.
class BenchTpm {
 public:
   BenchTpm() {
      String const dir = scratch_.path();
      if (!succeeds({"swtpm_setup", "--tpm2", "--pcr-banks", "sha256", "--tpmstate", dir, "--overwrite"})) {
         failure_ = "swtpm_setup failed";
         return;
      }
      // Another process may take a port between the probe and swtpm's bind: others are tried.
      for (int attempt = 0; attempt < 5 && tcti_.empty(); ++attempt) {
         std::uint16_t const port = freePort(true);
         if (succeeds(
                std::vector<String>{"swtpm", "socket", "--tpm2", "--daemon", "--pid", "file=" + dir + "/pid",
                                    "--tpmstate", "dir=" + dir, "--server", "type=tcp,port=" + std::to_string(port),
                                    "--ctrl", "type=tcp,port=" + std::to_string(port + 1), "--flags",
                                    "not-need-init,startup-clear"},
                dir + "/swtpm.out")) {
            tcti_ = "swtpm:host=127.0.0.1,port=" + std::to_string(port);
         }
      }
      if (tcti_.empty()) {
         std::ifstream out(dir + "/swtpm.out");
         failure_ = "swtpm did not start: " + String(std::istreambuf_iterator<char>(out), {});
      } else if (!succeeds({SENTREL_ATTESTD_PATH, "--tcti", tcti_, "--create-ak"})) {
         failure_ = "sentrel-attestd --create-ak failed on " + tcti_;
      }
   }
   ~BenchTpm() {
      std::ifstream pid(scratch_.path() + "/pid");
      pid_t p = 0;
      if (pid >> p && p > 0) kill(p, SIGKILL);
   }
   String const &tcti() const { return tcti_; }
   // Why it cannot be used; empty when it can.
   String const &failure() const { return failure_; }

 private:
   SentrelBench::ScratchDir scratch_;
   String tcti_, failure_;
};

double median(std::vector<double> v) {
   std::sort(v.begin(), v.end());
   return v.empty() ? 0 : v[v.size() / 2];
}

// The CPU time a process has used, in ms.
double cpuMs(pid_t pid) {
   std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
   String line;
   std::getline(stat, line);
   std::istringstream fields(line.substr(line.rfind(')') + 2));
   String skip;
   for (int i = 3; i < 14; ++i) fields >> skip;
   double user = 0, system = 0;
   fields >> user >> system;
   return (user + system) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

String randomNonce() {
   String nonce(32, '\0');
   RAND_bytes(reinterpret_cast<unsigned char *>(nonce.data()), static_cast<int>(nonce.size()));
   return nonce;
}

void BM_Attest(benchmark::State &state) {
   // The client keeps the buffers of the answers it reads, as the service
   // keeps those it writes: glibc's unmapping and faulting in of 100 KiB
   // buffers on the client's side would otherwise count as the service's.
   mallopt(M_MMAP_THRESHOLD, 8 << 20);
   mallopt(M_TRIM_THRESHOLD, 16 << 20);
   BenchTpm served, floor;
   if (!served.failure().empty() || !floor.failure().empty()) {
      state.SkipWithError((served.failure() + floor.failure()).c_str());
      return;
   }
   SentrelBench::ScratchDir root;
   root.file("sys/kernel/security/tpm0/binary_bios_measurements",
             SentrelTest::writeEventLog(SentrelTest::LogPlan{.events = SentrelTest::firmwareEvents(200, 11)}));
   std::uint16_t const port = freePort();
   String const address = "127.0.0.1:" + std::to_string(port);
   pid_t const service = spawn(
      {SENTREL_ATTESTD_PATH, "--tcti", served.tcti(), "--sysroot", root.path(), "--listen", address, "--no-syslog"});
   auto channel = grpc::CreateChannel(address, grpc::InsecureChannelCredentials());
   auto stub = TpmAttestzService::NewStub(channel);
   std::vector<int> const pcrs{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 13, 14};
   auto attest = [&](bool waitForReady = false, bool refused = false) {
      AttestRequest request;
      request.mutable_control_card_selection()->set_role(CONTROL_CARD_ROLE_ACTIVE);
      // Without a nonce it is refused before the TPM is asked: the round trip alone.
      if (!refused) request.set_nonce(randomNonce());
      request.set_hash_algo(TPM_2_0_HASH_ALGO_SHA256);
      for (int const i : pcrs) request.add_pcr_indices(i);
      AttestResponse response;
      grpc::ClientContext context;
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
      context.set_wait_for_ready(waitForReady);
      return stub->Attest(&context, request, &response);
   };
   // Serving, with its connection to the TPM made and the log read once.
   grpc::Status const warm = attest(true);
   SentrelTpm::TpmConnection const tpm(floor.tcti(), std::chrono::seconds(30));
   auto loaded = tpm.esys() ? SentrelTpm::loadAttestationKey(tpm, SentrelTpm::kDefaultAkHandle)
                            : std::variant<SentrelTpm::LoadedAk, SentrelTpm::TpmProblem>{SentrelTpm::TpmProblem{
                                 SentrelTpm::TpmProblem::Kind::Tpm, "no connection", tpm.failure()}};
   if (!warm.ok() || !std::holds_alternative<SentrelTpm::LoadedAk>(loaded)) {
      kill(service, SIGTERM);
      waitpid(service, nullptr, 0);
      state.SkipWithError(("the service or the floor's TPM does not answer: " + warm.error_message()).c_str());
      return;
   }
   ESYS_TR const ak = std::get<SentrelTpm::LoadedAk>(loaded).object;
   std::bitset<SentrelEvidence::kPcrCount> wanted;
   for (int const i : pcrs) wanted.set(static_cast<std::size_t>(i));
   // The TPM's part of a request: the PCR values, then the quote over them.
   auto quote = [&] {
      auto values = SentrelTpm::readBankPcrs(tpm, TPM2_ALG_SHA256, wanted);
      TPM2B_DATA nonce{};
      String const n = randomNonce();
      nonce.size = static_cast<UINT16>(n.size());
      std::copy(n.begin(), n.end(), nonce.buffer);
      TPMT_SIG_SCHEME scheme{};
      scheme.scheme = TPM2_ALG_NULL;
      TPML_PCR_SELECTION selection{};
      selection.count = 1;
      selection.pcrSelections[0] = {TPM2_ALG_SHA256, 3, {}};
      for (int const i : pcrs) selection.pcrSelections[0].pcrSelect[i / 8] |= BYTE(1u << (i % 8));
      TPM2B_ATTEST *quoted = nullptr;
      TPMT_SIGNATURE *signature = nullptr;
      TSS2_RC const rc = Esys_Quote(tpm.esys(), ak, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &nonce, &scheme,
                                    &selection, &quoted, &signature);
      Esys_Free(quoted);
      Esys_Free(signature);
      return rc == TSS2_RC_SUCCESS && std::holds_alternative<std::map<std::uint32_t, String>>(values);
   };

   std::vector<double> attestdMs, tpmMs, refusedMs;
   double const cpuBefore = cpuMs(service);
   bool failed = false;
   for (auto _ : state) {
      auto const start = std::chrono::steady_clock::now();
      failed |= !attest().ok();
      auto const middle = std::chrono::steady_clock::now();
      failed |= !quote();
      auto const end = std::chrono::steady_clock::now();
      failed |= attest(false, true).error_code() != grpc::StatusCode::INVALID_ARGUMENT;
      auto const last = std::chrono::steady_clock::now();
      attestdMs.push_back(std::chrono::duration<double, std::milli>(middle - start).count());
      tpmMs.push_back(std::chrono::duration<double, std::milli>(end - middle).count());
      refusedMs.push_back(std::chrono::duration<double, std::milli>(last - end).count());
      state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
   }
   double const cpuAfter = cpuMs(service);
   kill(service, SIGTERM);
   waitpid(service, nullptr, 0);
   if (failed) state.SkipWithError("a request or a floor quote failed");
   state.SetItemsProcessed(state.iterations());
   double const attestd = median(attestdMs), tpmFloor = median(tpmMs), roundTrip = median(refusedMs);
   state.counters["attestd_ms"] = attestd;
   state.counters["tpm_ms"] = tpmFloor;
   state.counters["roundtrip_ms"] = roundTrip;
   state.counters["attestd/tpm"] = (attestd - roundTrip) / tpmFloor;
   state.counters["total/tpm"] = attestd / tpmFloor;
   state.counters["attestd_cpu_ms"] = (cpuAfter - cpuBefore) / static_cast<double>(attestdMs.size());
}
// A fixed count: each run starts two TPMs and the service, and is not repeated to find one.
BENCHMARK(BM_Attest)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(500);

}  // namespace
