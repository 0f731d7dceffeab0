#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sys/stat.h>

#include "TestSupport.h"

using namespace SentrelTest;

namespace {

namespace fs = std::filesystem;

std::set<String> namesIn(String const &dir) {
   std::set<String> names;
   for (auto const &e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
   return names;
}

// Runs with a state that makes the agent warn (an outdated bootloader) and a
// script that prints a line, so the file must hold both.
class OutputFile : public testing::Test {
 protected:
   OutputFile() {
      sw.script("bin/lscpu", "echo 'Vendor ID:           TestVendor'\n");
      sw.file("root/proc/cmdline", "ro Tarn=7.1 quiet\n");
      sw.file("features", "secureboot:26\n");
      sw.file("state.json", R"({"entities": {"tarn/features/status": {"featuresFilePath": "features"},
                                             "tarn/sb/status": {"supported": true, "ready": true}}})");
      sw.file("script", "invoke tarnFeature getRunningTarnVersion\n");
   }

   HostRun run(String const &output, std::vector<String> args = {}) {
      args.insert(args.begin(), {"--sysroot", sw.path() + "/root", "--toggles", toggles.path(), "--state",
                                 sw.path() + "/state.json", "--script", sw.path() + "/script", "--output", output});
      return runHost(args, {"PATH=" + sw.path() + "/bin:" + std::getenv("PATH")});
   }

   TempDir sw, toggles, out;
};

}  // namespace

TEST_F(OutputFile, HoldsEverythingThatWouldBePrintedMadeReadableWithNothingLeftBeside) {
   // The file is for other users (the exporter's), whatever the umask of the run.
   mode_t const old = umask(077);
   auto r = run(out.path() + "/sentrel.json", {"--format", "json", "--fail-on-warning"});
   umask(old);
   EXPECT_EQ(r.exitCode, 1) << r.err;  // warned, and the file written all the same
   EXPECT_EQ(r.out, "");
   String const text = slurp(out.path() + "/sentrel.json");
   ASSERT_TRUE(text.starts_with("\"Tarn=7.1\"\n{\n")) << text;
   EXPECT_TRUE(text.ends_with("\n}\n")) << text;
   EXPECT_NE(text.find("TARN_DEPRECATION_WARNING"), String::npos);
   struct stat st {};
   ASSERT_EQ(stat((out.path() + "/sentrel.json").c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 07777, 0644u);
   EXPECT_EQ(namesIn(out.path()), std::set<String>{"sentrel.json"});
}

TEST_F(OutputFile, ReplacesALinkAndNeverWritesThroughIt) {
   String const victim = sw.file("victim", "untouched\n");
   fs::create_symlink(victim, out.path() + "/sentrel.prom");
   auto r = run(out.path() + "/sentrel.prom", {"--format", "openmetrics"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_EQ(slurp(victim), "untouched\n");
   EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(out.path() + "/sentrel.prom")));
   EXPECT_NE(slurp(out.path() + "/sentrel.prom").find("\n# TYPE sentrel_fact gauge\n"), String::npos);
}

TEST_F(OutputFile, AFileThatCannotBeWrittenIsExitTwoNamingItAndLeavesNothing) {
   struct Case {
      char const *what;
      String name;  // below the output folder
      char const *problem;
   };
   Case const cases[] = {
      {"folder missing", "missing/sentrel.prom", "No such file or directory"},
      {"a folder in the way", "folder", "Is a directory"},
   };
   fs::create_directory(out.path() + "/folder");
   for (auto const &c : cases) {
      SCOPED_TRACE(c.what);
      String const path = out.path() + "/" + c.name;
      auto r = run(path, {"--format", "openmetrics"});
      EXPECT_EQ(r.exitCode, 2);
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(r.err, "sentrel: --output " + path + ": " + c.problem + "\n");
      EXPECT_EQ(namesIn(out.path()), std::set<String>{"folder"});
      EXPECT_TRUE(fs::is_empty(out.path() + "/folder"));
   }
}
