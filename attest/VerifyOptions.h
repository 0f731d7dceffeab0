#pragma once

#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "attest/QuoteChecks.h"
#include "host/Options.h"

namespace SentrelAttest {

using SentrelHost::Format;

// The command line of `sentrel-verify`.
struct VerifyOptions {
   // Whom to attest: --target NAME=HOST:PORT, in the order given, and an inventory.
   std::vector<std::pair<String, String>> targets;
   std::optional<String> inventory;
   // Whom to trust: PEM public keys for every target, and the owner's CA.
   std::optional<String> ak;
   std::optional<String> ownerCa;
   // What is quoted, and the fleet's baseline where the inventory names none.
   PcrSet pcrs;
   bool pcrsGiven = false;
   std::uint16_t bank;
   std::optional<String> baseline;
   // TLS to the switches; without it, loopback addresses only.
   std::optional<String> tlsCa, tlsCert, tlsKey;
   unsigned jobs = 64;
   std::chrono::milliseconds timeout{10000};
   Format format = Format::Text;
   std::optional<String> output;
   std::optional<String> save;
   // A saved response checked offline, against the nonce it was asked with.
   std::optional<String> response;
   std::optional<String> nonce;  // raw
   bool help = false;
   bool version = false;
};

// Parses the command line and checks that the options go together; throws
// SentrelHost::UsageError.
VerifyOptions parseVerifyOptions(int argc, char **argv);
extern char const *const kVerifyUsage;

// "0-9,12-14": PCR numbers and ranges, each 0 to 23. Throws UsageError.
PcrSet parsePcrList(String const &text);

// HOST:PORT, [IPv6]:PORT: the host (brackets kept) and the port; none when
// it is not an address.
std::optional<std::pair<String, unsigned>> splitAddress(String const &address);

// A switch's name as reports, metrics and --save's file names carry it:
// letters, digits, '.', '_', '-' and ':', not starting with '.' or '-'.
bool isSwitchName(String const &name);

}  // namespace SentrelAttest
