#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "tpm/AttestationKey.h"

// sentrel-attestd's command line.
namespace SentrelAttestd {

using String = std::string;

// A usage error or an unusable file named on the command line: one line on
// standard error, exit 2.
struct UsageError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

inline constexpr std::uint16_t kDefaultPort = 9339;

// Where the service listens.
struct ListenAddress {
   String host;  // as gRPC takes it: "127.0.0.1", "[::1]", "localhost"
   std::uint16_t port = kDefaultPort;
   String text() const { return host + ":" + std::to_string(port); }
};

// "HOST:PORT", "[IPV6]:PORT", or the host alone for the default port; none
// when it is anything else.
std::optional<ListenAddress> parseListenAddress(String const &text);

enum class Action { Serve, CreateAk, PrintAk, Version, Help };

struct Options {
   Action action = Action::Serve;
   bool force = false;  // --create-ak replaces a key
   ListenAddress listen{"[::]", kDefaultPort};
   // The TPM's TCTI as given, or none for the resource manager below the system root.
   std::optional<String> tcti;
   String sysroot;
   std::optional<String> eventLog;
   TPM2_HANDLE akHandle = SentrelTpm::kDefaultAkHandle;
   std::optional<String> akCert;
   std::optional<String> tlsCert, tlsKey, tlsClientCa;
   std::chrono::milliseconds commandTimeout{10000};
   // Requests that may wait for the TPM beside the one it is answering.
   std::size_t maxQueued = 16;
   bool syslog = true;
};

// The options of argv, with SENTREL_TCTI and SENTREL_SYSROOT under them;
// a UsageError names what is wrong.
Options parseOptions(int argc, char const *const *argv);

extern char const *const kUsage;

// The TCTI that reaches the TPM and how messages name it: the resource
// manager's device below the system root unless --tcti names one.
struct Tcti {
   String conf;
   String name;
};
Tcti tctiOf(Options const &options);

}  // namespace SentrelAttestd
