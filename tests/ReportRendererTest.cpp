// The three renderers on a report model built by hand: no agent, no files.
#include <gtest/gtest.h>

#include "Sentrel/platform/Json.h"
#include "host/JsonReport.h"
#include "host/MetricsReport.h"
#include "host/TextReport.h"

using namespace SentrelHost;

namespace {

ReportModel handBuilt() {
   ReportModel m;
   m.run = RunInfo{"9.9.9", "sw1", 0};
   m.entities = {
      {"sentrel/measuredBootVersion", true, true, {}, false,
       {{"tarn", String("2"), {}, false},
        {"vexo", String(), Unknown{"cannot open /v.json: No such file", "set it"}, false},
        {"banks", std::vector<String>{"sha1", "sha256"}, {}, false},
        {"path", String("\\EFI\\BOOT\\grubx64.efi\xe2\x80\xae"), {}, false}}},
      {"tarn/pcrConfig/status", true, false, Unknown{"gone \"away\"", ""}, false, {}},
      {"tarn/sb/status", false, true, {}, false,
       {{"statusFlags", std::uint64_t{33}, Unknown{"bit 5 unknown", "mount it"}, true},
        {"ready", false, Unknown{"not ready", ""}, false}}},
   };
   m.machines = {{"measuredBootVersion", true, {{"initialized", true}}}, {"integrityKeyring", false, {}}};
   m.log = {{"SENTREL_WARNING", 4, "Secure boot \xff off"}, {"SENTREL_WARNING", 4, "Measured boot off"}};
   m.toggles = {{"PcrMultibank", false, true, "/t/SecureBoot.json"}, {"SentrelIma", true, true, "/t/Halyard.json"}};
   m.inputs = {{"secure boot", "on", {}},
               {"measured boot", "on", Unknown{"securityfs is not mounted", "mount it"}},
               {"manufacturing defaults", "none: nothing is compared with them", {}}};
   return m;
}

}  // namespace

TEST(ReportRenderers, EachFormatShowsEveryPartOfTheModel) {
   auto const m = handBuilt();
   struct Row {
      char const *format;
      String out;
      std::vector<String> fragments;
   };
   Row const rows[] = {
      {"text", textReport(m),
       {"sentrel/measuredBootVersion\n  tarn   2\n  vexo   \n         why:  cannot open /v.json: No such file\n"
        "         hint: set it\n  banks  sha1, sha256\n  path   \\EFI\\BOOT\\grubx64.efi\\u202e\n\n",
        "tarn/pcrConfig/status\n  (absent)\n    why:  gone \"away\"\n\n",
        "Warnings:\n  SENTREL_WARNING: Secure boot \\xff off\n",
        "\nInputs:\n  secure boot             on\n  measured boot           unknown\n"
        "                          why:  securityfs is not mounted\n                          hint: mount it\n"
        "  manufacturing defaults  none: nothing is compared with them\n  tarn/sb/status ready\n    why:  not ready\n",
        "\nToggles not at their default:\n  PcrMultibank off (/t/SecureBoot.json)\n\n2 warnings, 4 unknown facts\n"}},
      {"openmetrics", metricsReport(m),
       {"sentrel_fact{entity=\"tarn/sb/status\",attribute=\"statusFlags\"} 33\n",
        "sentrel_fact_info{entity=\"sentrel/measuredBootVersion\",attribute=\"tarn\",value=\"2\"} 1\n",
        "sentrel_set_member{entity=\"sentrel/measuredBootVersion\",attribute=\"banks\",member=\"sha256\"} 1\n",
        "sentrel_entity_present{entity=\"tarn/pcrConfig/status\"} 0\n",
        "sentrel_unknown_fact{entity=\"sentrel/measuredBootVersion\",attribute=\"vexo\"} 1\n"
        "sentrel_unknown_fact{entity=\"tarn/pcrConfig/status\",attribute=\"\"} 1\n",
        "sentrel_warnings{name=\"SENTREL_WARNING\"} 2\n", "sentrel_last_run_timestamp_seconds 0\n",
        "sentrel_build_info{version=\"9.9.9\"} 1\n"}},
      {"text show", textShow(m, &m.entities[1].path) + "|" + textShow(m, nullptr),
       {"tarn/pcrConfig/status\n  (absent)\n|sentrel/measuredBootVersion\n  tarn   2\n  vexo   \n  banks  sha1, sha256\n"
        "  path   \\EFI\\BOOT\\grubx64.efi\\u202e\ntarn/pcrConfig/status\n  (absent)\n"
        "tarn/sb/status\n  statusFlags  33\n  ready        false\n"}},
      {"json show", jsonShow(m, &m.entities[1].path) + jsonShow(m, nullptr),
       {"{\"tarn/pcrConfig/status\":null}\n{\"entities\":{\"sentrel/measuredBootVersion\":{\"tarn\":\"2\",\"vexo\":\"\","
        "\"banks\":[\"sha1\",\"sha256\"],\"path\":\"\\\\EFI\\\\BOOT\\\\grubx64.efi\xe2\x80\xae\"},"
        "\"tarn/pcrConfig/status\":null,"
        "\"tarn/sb/status\":{\"statusFlags\":33,\"ready\":false}}}\n"}},
   };
   for (auto const &row : rows) {
      for (auto const &f : row.fragments) EXPECT_NE(row.out.find(f), String::npos) << row.format << ": " << f << "\nin:\n" << row.out;
   }
}

TEST(ReportRenderers, JsonHasTheRunTheMachinesAndTheDiagnosticsInStateTreeOrder) {
   auto const m = handBuilt();
   rapidjson::Document d;
   ASSERT_FALSE(d.Parse(jsonReport(m).c_str()).HasParseError());
   EXPECT_STREQ(d["run"]["version"].GetString(), "9.9.9");
   EXPECT_STREQ(d["run"]["time"].GetString(), "1970-01-01T00:00:00Z");
   EXPECT_TRUE(d["entities"]["tarn/pcrConfig/status"].IsNull());
   EXPECT_TRUE(d["stateMachines"]["measuredBootVersion"]["initialized"].GetBool());
   EXPECT_TRUE(d["stateMachines"]["integrityKeyring"].IsNull());
   EXPECT_STREQ(d["log"][0]["text"].GetString(), "Secure boot \xc3\xbf off");
   EXPECT_FALSE(d["toggles"]["PcrMultibank"].GetBool());
   std::vector<String> diagnostics;
   for (auto const &g : d["diagnostics"].GetArray()) {
      diagnostics.push_back(String(g["entity"].GetString()) + " " + g["attribute"].GetString() + ": " +
                            g["reason"].GetString() + " [" + g["hint"].GetString() + "]");
   }
   EXPECT_EQ(diagnostics, (std::vector<String>{"sentrel/measuredBootVersion vexo: cannot open /v.json: No such file [set it]",
                                               "tarn/pcrConfig/status : gone \"away\" []",
                                               "tarn/sb/status statusFlags: bit 5 unknown [mount it]",
                                               "tarn/sb/status ready: not ready []"}));
   // Without the run's identity, the formats that print it leave it out.
   auto bare = m;
   bare.run.reset();
   EXPECT_EQ(jsonReport(bare).find("\"run\""), String::npos);
   EXPECT_EQ(metricsReport(bare).find("sentrel_build_info{"), String::npos);
}
