#include "attest/AttestdOptions.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstdlib>
#include <sys/stat.h>

#include "attest/Addresses.h"
#include "evidence/Bytes.h"

namespace SentrelAttestd {

char const *const kUsage =
   "usage: sentrel-attestd [--listen ADDRESS[:PORT]] [--tcti CONF] [--sysroot DIR] [--event-log FILE]\n"
   "                       [--ak-handle HANDLE] [--ak-cert FILE] [--tls-cert FILE --tls-key FILE]\n"
   "                       [--tls-client-ca FILE] [--command-timeout SECONDS] [--max-queued N]\n"
   "                       [--no-syslog]\n"
   "       sentrel-attestd --create-ak [--force] | --print-ak  [--tcti CONF] [--ak-handle HANDLE]\n"
   "       sentrel-attestd --version | --help\n"
   "\n"
   "Serves OpenConfig attestz (openconfig.attestz.TpmAttestzService/Attest): a quote of\n"
   "the requested PCRs signed by the TPM's attestation key over the verifier's nonce,\n"
   "the PCR values and the firmware's event log.\n"
   "\n"
   "  --listen ADDRESS[:PORT]  where to serve (default [::]:9339; without TLS, loopback only)\n"
   "  --tcti CONF              reach the TPM through this TCTI ($SENTREL_TCTI, device:/dev/tpmrm0)\n"
   "  --sysroot DIR            system root for /dev, /sys files ($SENTREL_SYSROOT)\n"
   "  --event-log FILE         the firmware's event log (the securityfs one below the system root)\n"
   "  --ak-handle HANDLE       the attestation key's persistent handle (default 0x81000100)\n"
   "  --ak-cert FILE           PEM certificates of the attestation key, returned to verifiers\n"
   "  --tls-cert FILE          the service's PEM certificate chain\n"
   "  --tls-key FILE           its PEM private key\n"
   "  --tls-client-ca FILE     demand client certificates issued by these PEM CAs\n"
   "  --command-timeout SEC    deadline of each TPM command (default 10)\n"
   "  --max-queued N           requests that may wait for the TPM (default 16); more are refused\n"
   "  --no-syslog              log each request on standard error instead of the system log\n"
   "  --create-ak              make the attestation key and persist it at --ak-handle\n"
   "  --force                  with --create-ak: replace the object at the handle\n"
   "  --print-ak               print the attestation key's public key (PEM) and TPM name\n"
   "  --version                the version of sentrel-attestd\n"
   "\n"
   "Exit status: 0; 1 (the TPM or the key failed, or the service could not start);\n"
   "2 (usage or an unusable file). See sentrel-attestd(8).\n";

namespace {

std::optional<TPM2_HANDLE> parseHandle(String const &text) {
   auto const v = SentrelEvidence::numberOfText(text);
   // The owner's persistent range: what TPM2_EvictControl with owner authorization may use.
   if (!v || *v < 0x81000000 || *v > 0x817fffff) return std::nullopt;
   return static_cast<TPM2_HANDLE>(*v);
}

std::optional<std::chrono::milliseconds> parseSeconds(String const &text) {
   auto const seconds = SentrelAttest::secondsOf(text);
   if (!seconds || !(*seconds > 0) || *seconds > 86400) return std::nullopt;
   auto const ms = std::llround(*seconds * 1000);
   return std::chrono::milliseconds(ms < 1 ? 1 : ms);
}

}  // namespace

std::optional<ListenAddress> parseListenAddress(String const &text) {
   ListenAddress a;
   String port;
   if (text.starts_with("[")) {
      auto const close = text.find(']');
      if (close == String::npos) return std::nullopt;
      a.host = text.substr(0, close + 1);
      String const rest = text.substr(close + 1);
      if (!rest.empty()) {
         if (!rest.starts_with(":")) return std::nullopt;
         port = rest.substr(1);
         if (port.empty()) return std::nullopt;
      }
      in6_addr v6{};
      if (inet_pton(AF_INET6, a.host.substr(1, a.host.size() - 2).c_str(), &v6) != 1) return std::nullopt;
   } else if (std::count(text.begin(), text.end(), ':') > 1) {
      // An IPv6 address without brackets has no port.
      in6_addr v6{};
      if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return std::nullopt;
      a.host = "[" + text + "]";
   } else {
      auto const colon = text.find(':');
      a.host = text.substr(0, colon);
      if (colon != String::npos) {
         port = text.substr(colon + 1);
         if (port.empty()) return std::nullopt;
      }
   }
   if (a.host.empty() || a.host.find_first_of(" \t\n,/") != String::npos) return std::nullopt;
   if (!port.empty()) {
      auto const p = SentrelEvidence::unsignedOf(port);
      if (!p || *p > 65535) return std::nullopt;
      a.port = static_cast<std::uint16_t>(*p);
   }
   return a;
}

Options parseOptions(int argc, char const *const *argv) {
   Options o;
   bool createAk = false, printAk = false, version = false, help = false;
   for (int i = 1; i < argc; ++i) {
      String const arg = argv[i];
      auto value = [&]() -> String {
         if (i + 1 >= argc) throw UsageError(arg + " needs a value");
         return argv[++i];
      };
      if (arg == "--listen") {
         String const text = value();
         auto const a = parseListenAddress(text);
         if (!a) throw UsageError("--listen takes ADDRESS[:PORT], such as 127.0.0.1:9339 or [::1], not '" + text + "'");
         o.listen = *a;
      } else if (arg == "--tcti") {
         o.tcti = value();
         if (o.tcti->empty()) throw UsageError("--tcti names no TCTI");
      } else if (arg == "--sysroot") {
         o.sysroot = value();
      } else if (arg == "--event-log") {
         o.eventLog = value();
      } else if (arg == "--ak-handle") {
         String const text = value();
         auto const h = parseHandle(text);
         if (!h) {
            throw UsageError("--ak-handle takes a persistent handle of the owner, 0x81000000 to 0x817fffff, not '" +
                             text + "'");
         }
         o.akHandle = *h;
      } else if (arg == "--ak-cert") {
         o.akCert = value();
      } else if (arg == "--tls-cert") {
         o.tlsCert = value();
      } else if (arg == "--tls-key") {
         o.tlsKey = value();
      } else if (arg == "--tls-client-ca") {
         o.tlsClientCa = value();
      } else if (arg == "--command-timeout") {
         String const text = value();
         auto const t = parseSeconds(text);
         if (!t)
            throw UsageError("--command-timeout takes seconds above 0 and at most 86400, such as 10 or 2.5, not '" +
                             text + "'");
         o.commandTimeout = *t;
      } else if (arg == "--max-queued") {
         String const text = value();
         auto const n = SentrelEvidence::unsignedOf(text);
         if (!n || *n > 4096) throw UsageError("--max-queued takes a number from 0 to 4096, not '" + text + "'");
         o.maxQueued = static_cast<std::size_t>(*n);
      } else if (arg == "--no-syslog") {
         o.syslog = false;
      } else if (arg == "--create-ak") {
         createAk = true;
      } else if (arg == "--force") {
         o.force = true;
      } else if (arg == "--print-ak") {
         printAk = true;
      } else if (arg == "--version") {
         version = true;
      } else if (arg == "--help" || arg == "-h") {
         help = true;
      } else {
         throw UsageError("unknown argument '" + arg + "'");
      }
   }
   if (help) {
      o.action = Action::Help;
      return o;
   }
   if (version) {
      o.action = Action::Version;
      return o;
   }
   if (createAk && printAk) throw UsageError("--create-ak prints the key it makes: give it without --print-ak");
   if (o.force && !createAk) throw UsageError("--force replaces a key only with --create-ak");
   o.action = createAk ? Action::CreateAk : printAk ? Action::PrintAk : Action::Serve;

   if (!o.tcti) {
      if (char const *env = std::getenv("SENTREL_TCTI"); env && *env) o.tcti = env;
   }
   if (o.sysroot.empty()) {
      if (char const *env = std::getenv("SENTREL_SYSROOT")) o.sysroot = env;
   }
   if (!o.sysroot.empty()) {
      struct stat st {};
      if (stat(o.sysroot.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
         throw UsageError("--sysroot " + o.sysroot + ": not a folder");
      }
   }
   if (o.action != Action::Serve) return o;
   if (o.tlsCert.has_value() != o.tlsKey.has_value()) throw UsageError("--tls-cert and --tls-key go together");
   if (o.tlsClientCa && !o.tlsCert) throw UsageError("--tls-client-ca needs --tls-cert and --tls-key");
   if (!o.tlsCert && !SentrelAttest::isLoopback(o.listen.host)) {
      throw UsageError("without --tls-cert and --tls-key, quotes are served on a loopback address only, not on " +
                       o.listen.text() + ": give the service a certificate, or --listen 127.0.0.1");
   }
   return o;
}

Tcti tctiOf(Options const &options) {
   if (options.tcti) return {*options.tcti, *options.tcti};
   // The resource manager, which lets the TPM be shared with other programs.
   return {"device:" + options.sysroot + "/dev/tpmrm0", "device:/dev/tpmrm0"};
}

}  // namespace SentrelAttestd
