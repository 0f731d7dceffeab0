// The owner's inventory: what it says, and each way it can be wrong, named
// with the byte where it is.
#include <gtest/gtest.h>

#include "attest/Inventory.h"
#include "attest/VerifyOptions.h"
#include "host/UsageError.h"

using namespace SentrelAttest;

TEST(Inventory, SwitchesModelsAndFilesFromTheInventorysFolder) {
   Inventory const inv = parseInventory("/etc/fleet/inventory.json", R"({
  "models": {"model-a": {"baseline": "baselines/a.json"}, "model-b": {"baseline": "/srv/b.json"}, "model-c": {}},
  "switches": [
    {"name": "leaf1", "address": "leaf1.example.net:9339", "model": "model-a", "ak": "keys/leaf1.pem"},
    {"name": "spine1", "address": "[2001:db8::1]:9339", "model": "model-b", "akPem": "-----BEGIN PUBLIC KEY-----"},
    {"name": "spine2", "address": "10.0.0.2:9339"}
  ]})");
   EXPECT_EQ(inv.modelBaseline,
             (std::map<String, std::optional<String>>{{"model-a", "/etc/fleet/baselines/a.json"},
                                                      {"model-b", "/srv/b.json"},
                                                      {"model-c", std::nullopt}}));
   ASSERT_EQ(inv.switches.size(), 3u);
   EXPECT_EQ(inv.switches[0].name, "leaf1");
   EXPECT_EQ(inv.switches[0].address, "leaf1.example.net:9339");
   EXPECT_EQ(inv.switches[0].model, "model-a");
   EXPECT_EQ(inv.switches[0].akFile, "/etc/fleet/keys/leaf1.pem");
   EXPECT_EQ(inv.switches[1].akPem, "-----BEGIN PUBLIC KEY-----");
   EXPECT_EQ(inv.switches[1].akFile, std::nullopt);
   EXPECT_EQ(inv.switches[2].model, std::nullopt);
}

TEST(Inventory, EachFaultNamedWithItsByte) {
   std::vector<std::pair<String, String>> const cases{
      {"", "byte 0: "},
      {"[]", "byte 0: expected an object with \"switches\" and \"models\", not array"},
      {"{}", "byte 0: no \"switches\""},
      {R"({"switches": {}})", "byte 13: expected an array of switches, not object"},
      {R"({"switches": [], "hosts": []})", "byte 17: unknown member \"hosts\""},
      {R"({"switches": [7]})", "byte 14: expected an object for a switch, not number"},
      {R"({"switches": [{"address": "a:1"}]})", "byte 14: a switch without a \"name\""},
      {R"({"switches": [{"name": "a"}]})", "byte 14: switch \"a\" has no \"address\""},
      {R"({"switches": [{"name": "a b", "address": "a:1"}]})", "byte 23: name \"a b\" is not letters"},
      {R"({"switches": [{"name": "", "address": "a:1"}]})", "byte 23: name: expected a string that is not empty"},
      {R"({"switches": [{"name": 1, "address": "a:1"}]})", "byte 23: name: expected a string that is not empty, not number"},
      {R"({"switches": [{"name": "a", "address": "a"}]})", "byte 39: address \"a\" is not HOST:PORT"},
      {R"({"switches": [{"name": "a", "address": "::1:9339"}]})", "address \"::1:9339\" is not HOST:PORT"},
      {R"({"switches": [{"name": "a", "address": "a:1", "port": 1}]})", "byte 46: unknown member \"port\" of a switch"},
      {R"({"switches": [{"name": "a", "address": "a:1", "ak": "k", "akPem": "p"}]})",
       "byte 14: switch \"a\" has both \"ak\" and \"akPem\""},
      {R"({"switches": [{"name": "a", "address": "a:1"}, {"name": "a", "address": "b:1"}]})",
       "byte 47: switch \"a\" is listed twice"},
      {R"({"switches": [{"name": "a", "address": "a:1", "model": "m"}]})",
       "byte 14: switch \"a\" is of model \"m\", not in \"models\""},
      {R"({"models": {"m": {"baseline": ""}}, "switches": []})", "byte 30: baseline: expected a string that is not empty"},
      {R"({"models": {"m": {"firmware": "1"}}, "switches": []})", "byte 18: unknown member \"firmware\" of a model"},
   };
   for (auto const &[text, message] : cases) {
      SCOPED_TRACE(text);
      try {
         parseInventory("inv.json", text);
         ADD_FAILURE() << "no error";
      } catch (SentrelHost::UsageError const &e) {
         EXPECT_EQ(String(e.what()).rfind("inv.json: ", 0), 0u) << e.what();
         EXPECT_NE(String(e.what()).find(message), String::npos) << e.what();
      }
   }
}

TEST(VerifyAddresses, LoopbackAndTheFormOfAnAddress) {
   std::vector<std::tuple<String, std::optional<std::pair<String, unsigned>>, bool>> const cases{
      {"127.0.0.1:9339", std::pair{String("127.0.0.1"), 9339u}, true},
      {"127.1.2.3:1", std::pair{String("127.1.2.3"), 1u}, true},
      {"localhost:9339", std::pair{String("localhost"), 9339u}, true},
      {"[::1]:9339", std::pair{String("[::1]"), 9339u}, true},
      {"[::ffff:127.0.0.1]:9339", std::pair{String("[::ffff:127.0.0.1]"), 9339u}, false},
      {"10.0.0.1:9339", std::pair{String("10.0.0.1"), 9339u}, false},
      {"128.0.0.1:9339", std::pair{String("128.0.0.1"), 9339u}, false},
      {"localhost.example.net:9339", std::pair{String("localhost.example.net"), 9339u}, false},
      {"leaf1:0", std::nullopt, false},
      {"leaf1:65536", std::nullopt, false},
      {"leaf1:", std::nullopt, false},
      {":9339", std::nullopt, false},
      {"[::1:9339", std::nullopt, false},
      {"::1:9339", std::nullopt, false},
      {"leaf 1:9339", std::nullopt, false},
   };
   for (auto const &[address, split, loopback] : cases) {
      SCOPED_TRACE(address);
      EXPECT_EQ(splitAddress(address), split);
      if (split) {
         EXPECT_EQ(isLoopback(split->first), loopback);
      }
   }
}

TEST(VerifyAddresses, PcrLists) {
   EXPECT_EQ(parsePcrList("0-9,12-14").to_ulong(), 0x73ffu);
   EXPECT_EQ(parsePcrList("7").to_ulong(), 0x80u);
   EXPECT_EQ(parsePcrList("23,0").to_ulong(), 0x800001u);
   for (char const *bad : {"", ",", "0-", "-3", "3-1", "24", "0,,1", "a", "0-9 ", "1.5"}) {
      EXPECT_THROW(parsePcrList(bad), SentrelHost::UsageError) << bad;
   }
}
