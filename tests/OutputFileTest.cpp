#include <filesystem>
#include <gtest/gtest.h>
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

// A state that makes the agent warn (an outdated bootloader) and a script
// that prints a line, so the file must hold both.
struct OutputFile : testing::Test {
   HostRun run(String const &output, String const &format, std::vector<String> args = {}) {
      host.sw.file("features", "secureboot:26\n");
      args.insert(args.end(), {"--state", host.state(R"("tarn/features/status": {"featuresFilePath": "features"},
                                                      "tarn/sb/status": {"supported": true, "ready": true})"),
                               "--script", host.sw.file("script", "invoke tarnFeature getRunningTarnVersion\n"),
                               "--output", output, "--format", format});
      return host.run(args);
   }
   FakeSwitch host;
   TempDir out;
};

}  // namespace

TEST_F(OutputFile, HoldsEverythingThatWouldBePrintedMadeReadableWithNothingLeftBeside) {
   // The file is for other users (the exporter's), whatever the umask of the run.
   mode_t const old = umask(077);
   auto r = run(out.path() + "/sentrel.json", "json", {"--fail-on-warning"});
   umask(old);
   EXPECT_EQ(r.exitCode, 1) << r.err;  // warned, and the file written all the same
   EXPECT_EQ(r.out, "");
   String const text = slurp(out.path() + "/sentrel.json");
   EXPECT_TRUE(text.starts_with("\"Tarn=7.1\"\n{\n") && text.ends_with("\n}\n")) << text;
   EXPECT_EQ(fs::status(out.path() + "/sentrel.json").permissions(), fs::perms(0644));
   EXPECT_EQ(namesIn(out.path()), std::set<String>{"sentrel.json"});
}

TEST_F(OutputFile, ReplacesALinkAndNeverWritesThroughIt) {
   String const victim = host.sw.file("victim", "untouched\n"), prom = out.path() + "/sentrel.prom";
   fs::create_symlink(victim, prom);
   ASSERT_EQ(run(prom, "openmetrics").exitCode, 0);
   EXPECT_EQ(slurp(victim), "untouched\n");
   EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(prom)));
   EXPECT_NE(slurp(prom).find("\n# TYPE sentrel_fact gauge\n"), String::npos);
}

TEST_F(OutputFile, AFileThatCannotBeWrittenIsExitTwoNamingItAndLeavesNothing) {
   fs::create_directory(out.path() + "/folder");
   for (auto const &[name, problem] : std::vector<std::pair<String, String>>{
           {"missing/sentrel.prom", "No such file or directory"}, {"folder", "Is a directory"}}) {
      SCOPED_TRACE(name);
      String const path = out.path() + "/" + name;
      auto r = run(path, "openmetrics");
      EXPECT_EQ(r.exitCode, 2);
      EXPECT_EQ(r.err, "sentrel: --output " + path + ": " + problem + "\n");
      EXPECT_EQ(namesIn(out.path()), std::set<String>{"folder"});
      EXPECT_TRUE(fs::is_empty(out.path() + "/folder"));
   }
}
