#include <arpa/inet.h>
#include <cctype>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Sentrel/platform/RunCommand.h"
#include "Sentrel/platform/Sysroot.h"
#include "TestSupport.h"
#include "host/evidence/EventLog.h"
#include "host/evidence/PcrValues.h"

using namespace SentrelTest;
using namespace SentrelEvidence;

extern char **environ;

namespace {

using Wanted = std::map<std::uint16_t, std::set<std::uint32_t>>;

String hexOf(String const &bytes) {
   static char const digits[] = "0123456789abcdef";
   String text;
   for (unsigned char const c : bytes) text += {digits[c >> 4], digits[c & 15]};
   return text;
}

String digest(char const *evpName, String const &data) {
   unsigned char out[EVP_MAX_MD_SIZE];
   unsigned size = 0;
   EXPECT_EQ(EVP_Digest(data.data(), data.size(), out, &size, EVP_get_digestbyname(evpName), nullptr), 1);
   return String(reinterpret_cast<char const *>(out), size);
}

// Binds (or connects) a new TCP socket to `port` on the loopback interface;
// the socket, or -1.
int loopbackSocket(std::uint16_t port, int (*how)(int, sockaddr const *, socklen_t)) {
   int const s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{};
   a.sin_family = AF_INET;
   a.sin_port = htons(port);
   a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   if (s >= 0 && how(s, reinterpret_cast<sockaddr const *>(&a), sizeof a) == 0) return s;
   if (s >= 0) close(s);
   return -1;
}

// A socket bound to `port` (0: any free one), or -1.
int boundSocket(std::uint16_t port) { return loopbackSocket(port, bind); }

std::uint16_t portOf(int s) {
   sockaddr_in a{};
   socklen_t size = sizeof a;
   getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
   return ntohs(a.sin_port);
}

bool accepting(std::uint16_t port) {
   int const s = loopbackSocket(port, connect);
   if (s >= 0) close(s);
   return s >= 0;
}

bool onPath(String const &tool) {
   return Loom::runCommandForOutput("command -v " + tool).exitCode == 0;
}

class PcrValuesSysfs : public ::testing::Test {
 protected:
   PcrValuesSysfs() { Loom::sysrootIs(root.path()); }
   ~PcrValuesSysfs() override { Loom::sysrootIs(""); }
   TempDir root;
};

}  // namespace

TEST_F(PcrValuesSysfs, ValuesAndTheProblemOfEachBank) {
   String const tpm = "sys/class/tpm/tpm0/";
   String const sha1 = String(19, '\0') + '\x01';
   String const sha256 = digest("SHA256", "pcr 0");
   struct Case {
      char const *what;
      std::vector<std::pair<String, String>> files;  // below /sys/class/tpm/tpm0
      Wanted wanted;
      std::map<std::uint16_t, std::map<std::uint32_t, String>> values;
      std::map<std::uint16_t, String> problems;
      std::vector<String> enabled;  // the folders, sorted, whatever was asked
   };
   std::vector<Case> const cases{
      {"upper- and lower-case hex, with and without a newline",
       {{"pcr-sha1/0", String(38, '0') + "01\n"},
        {"pcr-sha256/7", hexOf(sha256)},
        {"pcr-sha256/10", [&] {
            String h = hexOf(sha256);
            for (char &c : h) c = char(std::toupper(c));
            return h + "\n";
         }()}},
       {{kAlgSha1, {0}}, {kAlgSha256, {7, 10}}},
       {{kAlgSha1, {{0, sha1}}}, {kAlgSha256, {{7, sha256}, {10, sha256}}}},
       {{kAlgSha1, ""}, {kAlgSha256, ""}},
       {"sha1", "sha256"}},
      {"a missing PCR file leaves the others read",
       {{"pcr-sha256/0", hexOf(sha256)}},
       {{kAlgSha256, {0, 5}}},
       {{kAlgSha256, {{0, sha256}}}},
       {{kAlgSha256, "cannot open /sys/class/tpm/tpm0/pcr-sha256/5: No such file or directory"}},
       {"sha256"}},
      {"garbage, a NUL, the wrong length, too long",
       {{"pcr-sha1/0", String(20, '0') + '\0' + String(19, '0')},
        {"pcr-sha256/0", hexOf(sha256) + "00\n"},
        {"pcr-sm3_256/0", hexOf(sha256).substr(2) + "\n"},
        {"pcr-sha384/0", String(96, 'z')},
        {"pcr-sha512/0", String(1000, '0')}},
       {{kAlgSha1, {0}}, {kAlgSha256, {0}}, {kAlgSha384, {0}}, {kAlgSha512, {0}}, {kAlgSm3_256, {0}}},
       {},
       {{kAlgSha1, "/sys/class/tpm/tpm0/pcr-sha1/0 holds characters other than hex digits, not 40 hex digits"},
        {kAlgSha256, "/sys/class/tpm/tpm0/pcr-sha256/0 holds 66 characters, not 64 hex digits"},
        {kAlgSha384, "/sys/class/tpm/tpm0/pcr-sha384/0 holds characters other than hex digits, not 96 hex digits"},
        {kAlgSha512, "/sys/class/tpm/tpm0/pcr-sha512/0 larger than 256 bytes"},
        {kAlgSm3_256, "/sys/class/tpm/tpm0/pcr-sm3_256/0 holds 62 characters, not 64 hex digits"}},
       {"sha1", "sha256", "sha384", "sha512", "sm3_256"}},
      {"a bank the kernel lists no folder of",
       {{"pcr-sha256/0", hexOf(sha256)}},
       {{kAlgSha384, {0}}},
       {},
       {{kAlgSha384, "the TPM has no sha384 bank (no /sys/class/tpm/tpm0/pcr-sha384)"}},
       {"sha256"}},
   };
   for (auto const &c : cases) {
      TempDir sysroot;
      Loom::sysrootIs(sysroot.path());
      for (auto const &[name, content] : c.files) sysroot.file(tpm + name, content);
      PcrValues const v = readPcrValues(c.wanted, "swtpm:port=1");
      EXPECT_EQ(v.source, "sysfs") << c.what;
      EXPECT_EQ(v.enabledBanks, c.enabled) << c.what;
      EXPECT_TRUE(v.enabledBanksProblem.empty()) << c.what;
      ASSERT_EQ(v.banks.size(), c.wanted.size()) << c.what;
      for (auto const &[algorithm, bank] : v.banks) {
         auto const values = c.values.find(algorithm);
         EXPECT_EQ(bank.values, values == c.values.end() ? decltype(bank.values){} : values->second)
            << c.what << ": " << algorithm;
         EXPECT_EQ(bank.problem, c.problems.at(algorithm)) << c.what;
      }
   }
}

TEST_F(PcrValuesSysfs, WithoutPcrFoldersTheTpmIsAskedAndWhyItCannotBeSaysSo) {
   int const s = boundSocket(0);  // bound, not listening: refused
   ASSERT_GE(s, 0);
   String const closed = "swtpm:host=127.0.0.1,port=" + std::to_string(portOf(s));
   String const device = root.file("tpmrm0", "", 0);
   struct Case {
      std::optional<String> tcti;
      String problem, hint;
   };
   std::vector<Case> cases{
      {closed, "cannot reach the TPM through " + closed + ": tcti:IO failure (0x000a000a)", ""},
      {std::nullopt, "cannot reach the TPM through device:/dev/tpmrm0: /dev/tpmrm0 does not exist",
       "load the TPM driver (tpm_tis or tpm_crb)"},
      // Reached, but it ends without answering: no command is sent after that one.
      {"cmd:sleep 1",
       "cannot read the TPM's PCR allocation through cmd:sleep 1: tcti:Response is malformed (0x000a0011)", ""},
   };
   // Root opens a file whatever its mode.
   if (geteuid() != 0) {
      cases.push_back({"device:" + device,
                       "cannot reach the TPM through device:" + device + ": cannot open " + device + ": Permission denied",
                       "run as root"});
   }
   // A kernel older than 5.12 has the TPM's folder but no PCR files.
   root.file("sys/class/tpm/tpm0/tpm_version_major", "2\n");
   for (auto const &c : cases) {
      PcrValues const v = readPcrValues({{kAlgSha1, {0}}, {kAlgSha256, {0, 1}}}, c.tcti);
      EXPECT_EQ(v.source, c.tcti.value_or("device:/dev/tpmrm0"));
      EXPECT_TRUE(v.enabledBanks.empty());
      EXPECT_EQ(v.enabledBanksProblem, c.problem);
      EXPECT_EQ(v.enabledBanksHint, c.hint);
      ASSERT_EQ(v.banks.size(), 2u);
      for (auto const &[algorithm, bank] : v.banks) {
         EXPECT_TRUE(bank.values.empty());
         EXPECT_EQ(bank.problem, c.problem);
         EXPECT_EQ(bank.hint, c.hint);
      }
   }
   close(s);
}

namespace {

// A software TPM on a free loopback port with the sha1 and sha256 banks
// enabled, stopped and its state removed after the test, whatever happens.
class PcrValuesSwtpm : public ::testing::Test {
 protected:
   void SetUp() override {
      for (char const *tool : {"swtpm", "swtpm_setup", "tpm2_pcrextend"}) {
         if (!onPath(tool)) GTEST_SKIP() << tool << " is not installed";
      }
      Loom::sysrootIs(root.path());  // no sysfs PCR files: the TPM is asked
      auto const setup = Loom::runCommandForOutput("swtpm_setup --tpm2 --tpmstate " + state.path() +
                                                   " --pcr-banks sha1,sha256 --overwrite 2>&1");
      ASSERT_EQ(setup.exitCode, 0) << setup.output;
      // Another process may take the ports between the probe and the start: retry.
      for (int attempt = 0; attempt < 5 && pid_ < 0; ++attempt) start();
      ASSERT_GT(pid_, 0) << "swtpm did not start: " << slurp(state.path() + "/log");
   }

   void TearDown() override {
      stop();
      Loom::sysrootIs("");
   }

   String tcti() const { return "swtpm:host=127.0.0.1,port=" + std::to_string(port_); }

   TempDir root, state;

 private:
   void start() {
      int const server = boundSocket(0);
      if (server < 0) return;
      port_ = portOf(server);
      int const control = boundSocket(std::uint16_t(port_ + 1));
      close(server);
      if (control < 0) return;
      close(control);
      String const p = std::to_string(port_), c = std::to_string(port_ + 1);
      std::vector<String> args{"swtpm", "socket", "--tpm2",
                               "--server", "type=tcp,port=" + p + ",bindaddr=127.0.0.1",
                               "--ctrl", "type=tcp,port=" + c + ",bindaddr=127.0.0.1",
                               "--tpmstate", "dir=" + state.path(),
                               "--flags", "not-need-init,startup-clear"};
      std::vector<char *> argv;
      for (auto &a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      posix_spawn_file_actions_t files;
      posix_spawn_file_actions_init(&files);
      posix_spawn_file_actions_addopen(&files, 1, (state.path() + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      posix_spawn_file_actions_adddup2(&files, 1, 2);
      pid_t pid = -1;
      int const spawned = posix_spawnp(&pid, "swtpm", &files, nullptr, argv.data(), environ);
      posix_spawn_file_actions_destroy(&files);
      if (spawned != 0) return;
      pid_ = pid;
      // Up within 5 seconds, or gone.
      for (int i = 0; i < 100; ++i) {
         if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
         }
         if (accepting(port_) && accepting(std::uint16_t(port_ + 1))) return;
         std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      stop();
   }

   void stop() {
      if (pid_ < 0) return;
      kill(pid_, SIGTERM);
      for (int i = 0; i < 40; ++i) {
         if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
         }
         std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
   }

   pid_t pid_ = -1;
   std::uint16_t port_ = 0;
};

}  // namespace

TEST_F(PcrValuesSwtpm, MoreThanEightPcrsOfABankAreReadAsExtended) {
   std::map<std::uint16_t, std::vector<String>> pcrs{{kAlgSha1, std::vector<String>(24, String(20, '\0'))},
                                                     {kAlgSha256, std::vector<String>(24, String(32, '\0'))}};
   // PCRs 0-11 extended once, PCR 3 once more: reading 0-16 takes three commands.
   for (auto const &round : std::vector<std::vector<std::uint32_t>>{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, {3}}) {
      String command = "tpm2_pcrextend -T " + tcti();
      for (auto const index : round) {
         String const event = "event " + std::to_string(index) + " " + std::to_string(command.size());
         String const d1 = digest("SHA1", event), d256 = digest("SHA256", event);
         pcrs[kAlgSha1][index] = digest("SHA1", pcrs[kAlgSha1][index] + d1);
         pcrs[kAlgSha256][index] = digest("SHA256", pcrs[kAlgSha256][index] + d256);
         command += " " + std::to_string(index) + ":sha256=" + hexOf(d256) + ",sha1=" + hexOf(d1);
      }
      auto const r = Loom::runCommandForOutput(command + " 2>&1");
      ASSERT_EQ(r.exitCode, 0) << command << "\n" << r.output;
   }
   std::set<std::uint32_t> const zeroTo16{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
   PcrValues const v = readPcrValues({{kAlgSha1, zeroTo16}, {kAlgSha256, zeroTo16}, {kAlgSha384, {0}}}, tcti());
   EXPECT_EQ(v.source, tcti());
   EXPECT_EQ(v.enabledBanks, (std::vector<String>{"sha1", "sha256"}));
   EXPECT_EQ(v.enabledBanksProblem, "");
   for (auto const algorithm : {kAlgSha1, kAlgSha256}) {
      BankValues const &bank = v.banks.at(algorithm);
      EXPECT_EQ(bank.problem, "");
      ASSERT_EQ(bank.values.size(), zeroTo16.size()) << algorithm;
      for (auto const index : zeroTo16) {
         EXPECT_EQ(hexOf(bank.values.at(index)), hexOf(pcrs[algorithm][index])) << algorithm << ":" << index;
      }
   }
   EXPECT_EQ(v.banks.at(kAlgSha384).problem,
             "the TPM has no sha384 bank (none in its PCR allocation, read through " + tcti() + ")");
   // PCRs beyond the TPM's 24, and beyond what a selection can name.
   EXPECT_EQ(readPcrValues({{kAlgSha256, {23, 24, 40}}}, tcti()).banks.at(kAlgSha256).problem,
             "the TPM did not return sha256 PCR 24, 40 through " + tcti());
}
