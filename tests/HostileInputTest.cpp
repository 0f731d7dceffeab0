// The built host against hostile inputs and broken surroundings: each ends
// with its designed status and a line that names the problem, never with a
// signal, a hang or a silent default.
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

using Strings = std::vector<String>;

// Where the host's standard descriptors point.
enum class Out { File, Closed, Full, ReaderStopsEarly };

struct Row {
   char const *name;
   Strings args;  // "@" at the start of an argument stands for the test's folder
   int exitCode;
   String message;  // a fragment of standard error; empty: standard error stays empty
   Out out = Out::File;
   char const *env = "";       // NAME=VALUE for the host
   char const *redirect = "";  // redirections of the host's standard input or error
};

// A hang is killed after this many seconds, and shows as status 137.
constexpr int kKillAfter = 40;

class HostileInput : public testing::Test {
 protected:
   HostileInput() {
      dir.file("root/proc/cmdline", "ro Tarn=7.1\n");
      dir.script("bin/lscpu", "echo 'Vendor ID: TestVendor'\n");
      dir.file("state.json", R"({"entities": {}})");
      String const deep(25000, '[');
      dir.file("deep.json", deep);
      String shows;
      for (int i = 0; i < 200; ++i) shows += "show\n";  // far more than a pipe holds
      dir.file("shows", shows);
      dir.file("root/etc/sentrel/defaults.json", String(100000, '['));
      dir.script("hang/lscpu", "sleep 60\n");
      dir.script("chatty/lscpu", "head -c 3000000 /dev/zero\n");
      mkfifo((dir.path() + "/fifo").c_str(), 0600);
   }

   // Runs the host in the test's folder through the shell, which sets up the
   // descriptors; the host's own status comes back through a file.
   HostRun run(Row const &row) {
      String host = "env PATH=" + shellQuoted(dir.path() + "/bin:" + std::getenv("PATH")) + " " + row.env + " timeout -s KILL " +
                    std::to_string(kKillAfter) + " " + SENTREL_HOST_PATH + " --no-syslog";
      for (auto a : row.args) {
         if (!a.empty() && a.front() == '@') a = dir.path() + a.substr(1);
         host += " " + shellQuoted(a);
      }
      host += " <in 2>err " + String(row.redirect);
      String cmd = "cd " + shellQuoted(dir.path()) + " && : >in && : >out && { " + host;
      switch (row.out) {
         case Out::File: cmd += " >out; echo $? >status; }"; break;
         case Out::Closed: cmd += " >&-; echo $? >status; }"; break;
         case Out::Full: cmd += " >/dev/full; echo $? >status; }"; break;
         case Out::ReaderStopsEarly: cmd += "; echo $? >status; } | head -c 10 >out"; break;
      }
      EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
      return {std::atoi(slurp(dir.path() + "/status").c_str()), slurp(dir.path() + "/out"),
              slurp(dir.path() + "/err")};
   }

   TempDir dir, toggles;
};

TEST_F(HostileInput, EndsWithItsStatusAndOneLineNamingTheProblem) {
   String const t = toggles.path();
   dir.file("deep-toggles/SecureBoot.json", R"({"PcrMultibank": )" + String(100000, '['));
   std::filesystem::create_directories(dir.path() + "/odd-toggles");
   symlink("/dev/zero", (dir.path() + "/odd-toggles/Halyard.json").c_str());
   Strings const state{"--state", "@/state.json", "--sysroot", "@/root", "--toggles", t};
   auto with = [&](Strings more) {
      more.insert(more.begin(), state.begin(), state.end());
      return more;
   };
   std::vector<Row> const rows{
      {"25,000 [ as --state", {"--state", "@/deep.json"}, 2, "deep.json: byte 256: nested deeper than 256 levels"},
      {"defaults.json nested 100,000 deep", {"--sysroot", "@/root", "--toggles", t}, 2,
       "/etc/sentrel/defaults.json: byte 256: nested deeper than 256 levels"},
      {"a toggle file nested 100,000 deep", with({"--toggles", "@/deep-toggles"}), 0,
       "deep-toggles/SecureBoot.json: nested deeper than 256 levels at offset 272; using defaults"},
      {"a toggle file linked to /dev/zero", with({"--toggles", "@/odd-toggles"}), 0,
       "odd-toggles/Halyard.json: larger than 1 MiB; using defaults"},
      {"/dev/full as standard output", state, 2,
       "sentrel: cannot write the report to standard output: No space left on device\n", Out::Full},
      {"standard output closed", state, 2, "sentrel: standard output is closed: the report would be lost\n",
       Out::Closed},
      {"a reader that stops early", with({"--script", "@/shows"}), 0, "", Out::ReaderStopsEarly},
      {"standard input closed, script from it", with({"--script", "-"}), 0, "", Out::File, "", "<&-"},
      {"standard error closed, bad --state", {"--state", "@/deep.json"}, 2, "", Out::File, "", "2>&-"},
      {"--sysroot a file", {"--state", "@/state.json", "--sysroot", "@/state.json"}, 2,
       "--sysroot " + dir.path() + "/state.json: not a folder"},
      {"SENTREL_SYSROOT missing", {"--state", "@/state.json"}, 2, "SENTREL_SYSROOT /nonexistent: No such file",
       Out::File, "SENTREL_SYSROOT=/nonexistent"},
      {"control characters in a path", {"--state", "@/a\x1b[2J\x07"}, 2, "/a\\x1b[2J\\x07: No such file"},
      {"a FIFO without a writer as --state", {"--state", "@/fifo"}, 2, "fifo: byte 0: The document is empty."},
      {"a command that never ends", with({"--trace", "2", "--command-timeout", "0.5"}), 0,
       "Command lscpu return error code: 137", Out::File, "PATH=./hang:$PATH"},
      {"a command printing 3 MB", with({"--trace", "2"}), 0,
       "Command lscpu printed more than 1048576 bytes: 1951424 dropped", Out::File, "PATH=./chatty:$PATH"},
      {"a deadline of 0 seconds", with({"--command-timeout", "0"}), 2,
       "--command-timeout takes seconds above 0 and at most 86400, such as 10 or 2.5, not '0'"},
      {"a deadline that is not a number", state, 2, "SENTREL_COMMAND_TIMEOUT takes seconds above 0", Out::File,
       "SENTREL_COMMAND_TIMEOUT=ten"},
   };
   for (auto const &row : rows) {
      SCOPED_TRACE(row.name);
      HostRun const o = run(row);
      EXPECT_EQ(o.exitCode, row.exitCode) << o.err;  // a signal or the kill would show as 128 and more
      if (row.message.empty()) {
         EXPECT_EQ(o.err, "");
      } else {
         EXPECT_NE(o.err.find(row.message), String::npos) << o.err;
         // One line, said once.
         EXPECT_EQ(o.err.find(row.message, o.err.find(row.message) + 1), String::npos) << o.err;
      }
      EXPECT_EQ(o.err.find('\x1b'), String::npos) << "a raw control character reached standard error";
      if (row.exitCode == 2 && row.out == Out::File) {
         EXPECT_EQ(o.out, "") << "nothing partial";
      }
      if (row.out == Out::ReaderStopsEarly) {
         EXPECT_EQ(o.out.size(), 10u);
      }
   }
}

}  // namespace
