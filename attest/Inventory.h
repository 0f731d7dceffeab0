#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <vector>

#include "attest/QuoteChecks.h"

// The owner's inventory of switches (JSON; sentrel-verify(1) has its schema):
//   {"models": {"MODEL": {"baseline": "FILE"}},
//    "switches": [{"name": "leaf1", "address": "HOST:PORT", "model": "MODEL",
//                  "ak": "FILE" | "akPem": "-----BEGIN PUBLIC KEY-----..."}]}
// Relative file names are taken from the inventory's folder.
namespace SentrelAttest {

struct InventorySwitch {
   String name;
   String address;
   std::optional<String> model;
   std::optional<String> akFile;  // a PEM file of its attestation key
   std::optional<String> akPem;   // or the key itself
   std::size_t offset;            // where it starts in the inventory
};

struct Inventory {
   std::map<String, std::optional<String>> modelBaseline;  // by model: its baseline file, if any
   std::vector<InventorySwitch> switches;
};

// Reads the inventory `text` of the file `path`. Unknown members, a value of
// the wrong type, a bad name or address, a name given twice and a model not
// in "models" are errors: UsageError naming the file, the byte and the problem.
Inventory parseInventory(String const &path, String const &text);

}  // namespace SentrelAttest
