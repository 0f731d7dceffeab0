// The verifier attesting a fleet: 1,000 targets served by a few
// sentrel-attestd on loopback software TPMs, each quoting in turn, and some
// dead targets that take the connection and never answer. Each iteration
// attests the fleet without the dead and with them: the difference is what
// the dead cost, one timeout for all of them when they are attested beside
// the others rather than after them.
#include <benchmark/benchmark.h>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "BenchSupport.h"
#include "Sentrel/platform/RunCommand.h"
#include "attest/Fleet.h"
#include "attest/TrustAnchors.h"
#include "attest/VerifyOptions.h"
#include "tests/AttestdProcess.h"
#include "tests/SoftwareQuote.h"
#include "tests/ToolsExtend.h"

using namespace SentrelAttest;
using SentrelEvidence::kAlgSha256;

namespace {

constexpr std::size_t kSwitches = 4;     // daemons, each with its TPM
constexpr std::size_t kTargets = 1000;   // live targets, spread over them
constexpr std::size_t kDead = 50;
constexpr auto kTimeout = std::chrono::seconds(2);

// A software TPM serving on loopback, its state in a folder of its own.
struct Swtpm {
   explicit Swtpm(String const &dir) : dir(dir) {
      for (int attempt = 0; attempt < 5 && tcti.empty(); ++attempt) {
         String const port = std::to_string(20000 + (getpid() * 7 + attempt * 131) % 30000);
         auto const r = Loom::runCommandForOutput(
            "exec 2>&1; d=" + dir + " p=" + port + "; mkdir -p $d && swtpm_setup --tpm2 --pcr-banks sha256 "
            "--tpmstate $d --overwrite >/dev/null && swtpm socket --tpm2 --daemon --pid file=$d/pid --tpmstate dir=$d "
            "--server type=tcp,port=$p --ctrl type=tcp,port=$((p + 1)) --flags not-need-init,startup-clear");
         if (r.exitCode == 0) tcti = "swtpm:host=127.0.0.1,port=" + port;
         failure = r.output;
      }
   }
   ~Swtpm() { Loom::runCommandForOutput("kill -9 $(cat " + dir + "/pid) 2>/dev/null"); }
   String dir, tcti, failure;
};

// A port that takes connections into its backlog and never says a word.
struct DeadPort {
   DeadPort() {
      sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
      socklen_t size = sizeof a;
      bind(fd, reinterpret_cast<sockaddr *>(&a), size);
      listen(fd, 1024);
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &size);
      address = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
   }
   ~DeadPort() { close(fd); }
   int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   String address;
};

struct Fleet {
   Fleet() {
      auto const plan = SentrelTest::smallBoot();
      scratch.file("root/sys/kernel/security/tpm0/binary_bios_measurements", SentrelTest::writeEventLog(plan));
      for (std::size_t i = 0; i < kSwitches; ++i) {
         auto &tpm = *tpms.emplace_back(std::make_unique<Swtpm>(scratch.path() + "/tpm" + std::to_string(i)));
         if (tpm.tcti.empty()) {
            failure = "swtpm did not start: " + tpm.failure;
            return;
         }
         String said;
         if (!SentrelTest::extendWithTools(tpm.tcti, plan, said)) {
            failure = "tpm2_pcrextend: " + said;
            return;
         }
         auto const made = Loom::runCommandForOutput(String(SENTREL_ATTESTD_PATH) + " --tcti '" + tpm.tcti + "' --create-ak");
         String problem;
         keys.push_back(readPublicKeys(made.output, problem));
         if (made.exitCode != 0 || keys.back().empty()) {
            failure = "sentrel-attestd --create-ak: " + made.output;
            return;
         }
         // Room for every call the verifier has in flight.
         auto &d = *daemons.emplace_back(std::make_unique<SentrelTest::AttestdProcess>(
            SENTREL_ATTESTD_PATH,
            std::vector<String>{"--tcti", tpm.tcti, "--sysroot", scratch.path() + "/root", "--max-queued", "1000"},
            scratch.path() + "/attestd" + std::to_string(i) + ".log"));
         if (!d.serving()) {
            failure = "sentrel-attestd does not serve";
            return;
         }
      }
   }
   std::vector<Target> targets(std::size_t dead) const {
      std::vector<Target> out;
      for (std::size_t i = 0; i < kTargets + dead; ++i) {
         // The dead among the live, evenly.
         bool const isDead = dead > 0 && i % ((kTargets + dead) / dead) == 0 && i / ((kTargets + dead) / dead) < dead;
         std::size_t const s = i % kSwitches;
         out.push_back({"sw" + std::to_string(i), isDead ? deadPort.address : daemons[s]->address(), {keys[s], nullptr}});
      }
      return out;
   }
   SentrelBench::ScratchDir scratch;
   std::vector<std::unique_ptr<Swtpm>> tpms;
   std::vector<std::vector<PublicKey>> keys;
   std::vector<std::unique_ptr<SentrelTest::AttestdProcess>> daemons;
   DeadPort deadPort;
   String failure;
};

void BM_AttestFleet(benchmark::State &state) {
   static Fleet const fleet;
   if (!fleet.failure.empty()) return state.SkipWithError(fleet.failure.c_str());
   FleetOptions options{.bank = kAlgSha256,
                        .pcrs = parsePcrList("0-9,12-14"),
                        .jobs = static_cast<unsigned>(state.range(0)),
                        .timeout = kTimeout,
                        .credentials = grpc::InsecureChannelCredentials()};
   auto const live = fleet.targets(0), withDead = fleet.targets(kDead);
   double liveSeconds = 0, withDeadSeconds = 0;
   std::size_t trusted = 0, unreachable = 0;
   for (auto _ : state) {
      using Clock = std::chrono::steady_clock;
      auto const t0 = Clock::now();
      auto const a = attestFleet(live, options);
      auto const t1 = Clock::now();
      auto const b = attestFleet(withDead, options);
      auto const t2 = Clock::now();
      liveSeconds += std::chrono::duration<double>(t1 - t0).count();
      withDeadSeconds += std::chrono::duration<double>(t2 - t1).count();
      for (auto const *run : {&a, &b}) {
         for (auto const &j : *run) {
            trusted += j.verdict == Verdict::Trusted;
            unreachable += j.verdict == Verdict::Unreachable;
         }
      }
      state.SetIterationTime(std::chrono::duration<double>(t2 - t0).count());
   }
   auto const n = static_cast<double>(state.iterations());
   state.counters["verdicts_per_s"] = static_cast<double>(kTargets) / (liveSeconds / n);
   state.counters["live_s"] = liveSeconds / n;
   state.counters["with_dead_s"] = withDeadSeconds / n;
   state.counters["dead"] = kDead;
   state.counters["timeout_s"] = std::chrono::duration<double>(kTimeout).count();
   // What the dead added, in timeouts: about 1 when they wait beside the others, kDead in a row.
   state.counters["dead_cost_timeouts"] = (withDeadSeconds - liveSeconds) / n / state.counters["timeout_s"];
   state.counters["trusted"] = static_cast<double>(trusted) / n;
   state.counters["unreachable"] = static_cast<double>(unreachable) / n;
}
BENCHMARK(BM_AttestFleet)->ArgName("jobs")->Arg(64)->Arg(256)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace
