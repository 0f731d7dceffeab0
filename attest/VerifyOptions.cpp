#include "attest/VerifyOptions.h"

#include <cmath>

#include "attest/Addresses.h"
#include "host/UsageError.h"

namespace SentrelAttest {

using SentrelHost::UsageError;
using namespace SentrelEvidence;

char const *const kVerifyUsage =
   "usage: sentrel-verify (--target NAME=HOST:PORT ... | --inventory FILE) [--ak FILE] [--owner-ca FILE]\n"
   "                      [--pcrs LIST] [--bank ALG] [--baseline FILE]\n"
   "                      [--tls-ca FILE] [--tls-cert FILE --tls-key FILE]\n"
   "                      [--jobs N] [--timeout SECONDS] [--format text|json|openmetrics]\n"
   "                      [--output FILE] [--save DIR]\n"
   "       sentrel-verify --response FILE --nonce HEX [--ak FILE] [--owner-ca FILE] [--pcrs LIST]\n"
   "                      [--bank ALG] [--baseline FILE] [--format FORMAT] [--output FILE]\n"
   "\n"
   "Attests switches over attestz: asks each for a TPM quote of a fresh nonce,\n"
   "checks the attestation key, the signature, the quote, the PCR digest and the\n"
   "event log against the quoted PCRs and the baseline, and says of each switch\n"
   "trusted, untrusted (and why) or unreachable.\n"
   "\n"
   "  --target NAME=HOST:PORT  a switch to attest (repeatable)\n"
   "  --inventory FILE         the switches, their models and keys, the models' baselines (JSON)\n"
   "  --ak FILE                trust the attestation keys (PEM public keys) in FILE for every switch\n"
   "  --owner-ca FILE          trust attestation keys certified by these CA certificates (PEM)\n"
   "  --pcrs LIST              the PCRs quoted (default 0-9,12-14)\n"
   "  --bank ALG               their bank: sha1, sha256 (default), sha384 or sha512\n"
   "  --baseline FILE          the model's baseline (canonical event log JSON) where the inventory names none\n"
   "  --tls-ca FILE            TLS to the switches, trusting these CA certificates (PEM)\n"
   "  --tls-cert FILE          with --tls-key: mutual TLS, this client certificate chain (PEM)\n"
   "  --tls-key FILE           the client certificate's private key (PEM)\n"
   "  --jobs N                 switches attested at once (default 64)\n"
   "  --timeout SECONDS        each switch's deadline (default 10)\n"
   "  --format FORMAT          text (default), json or openmetrics\n"
   "  --output FILE            write the report to FILE atomically instead of standard output\n"
   "  --save DIR               write each response to DIR/NAME.json (protobuf JSON), its nonce to DIR/NAME.nonce\n"
   "  --response FILE          check this saved response (protobuf JSON) instead of asking switches\n"
   "  --nonce HEX              the nonce the saved response was asked with\n"
   "  --version                the version of sentrel-verify\n"
   "\n"
   "Exit status: 0 all trusted, 1 one untrusted, 4 one unreachable and none untrusted,\n"
   "2 usage or unusable input. See sentrel-verify(1) for the inventory and the checks.\n";

namespace {

std::optional<unsigned> number(std::string_view text, unsigned max) {
   auto const n = unsignedOf(text);
   if (!n || *n > max) return std::nullopt;
   return static_cast<unsigned>(*n);
}

}  // namespace

PcrSet parsePcrList(String const &text) {
   PcrSet pcrs;
   std::string_view rest = text;
   auto bad = [&]() { return UsageError("--pcrs takes PCRs 0-23 and ranges like 0-9,12-14, not '" + text + "'"); };
   while (true) {
      auto const comma = rest.find(',');
      std::string_view item = rest.substr(0, comma);
      auto const dash = item.find('-');
      auto const first = number(item.substr(0, dash), kPcrCount - 1);
      auto const last = dash == std::string_view::npos ? first : number(item.substr(dash + 1), kPcrCount - 1);
      if (!first || !last || *last < *first) throw bad();
      for (unsigned pcr = *first; pcr <= *last; ++pcr) pcrs.set(pcr);
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
   }
   return pcrs;
}

std::optional<std::pair<String, unsigned>> splitAddress(String const &address) {
   auto const colon = address.rfind(':');
   if (colon == String::npos || colon == 0) return std::nullopt;
   String const host = address.substr(0, colon);
   auto const port = number(std::string_view(address).substr(colon + 1), 65535);
   if (!port || *port == 0) return std::nullopt;
   // An IPv6 address has its colons inside brackets.
   bool const bracketed = host.front() == '[';
   if (bracketed != (host.back() == ']') || (bracketed && host.size() < 3)) return std::nullopt;
   if (!bracketed && host.find(':') != String::npos) return std::nullopt;
   if (host.find_first_of(" \t\r\n/,") != String::npos) return std::nullopt;
   return std::pair{host, *port};
}

bool isSwitchName(String const &name) {
   if (name.empty() || name.size() > 253 || name.front() == '.' || name.front() == '-') return false;
   for (char c : name) {
      bool const ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                      c == '_' || c == '-' || c == ':';
      if (!ok) return false;
   }
   return true;
}

VerifyOptions parseVerifyOptions(int argc, char **argv) {
   VerifyOptions o;
   o.pcrs = parsePcrList("0-9,12-14");
   o.bank = kAlgSha256;
   for (int i = 1; i < argc; ++i) {
      String const arg = argv[i];
      auto value = [&]() -> String {
         if (i + 1 >= argc) throw UsageError(arg + " needs a value");
         return argv[++i];
      };
      if (arg == "--target") {
         String const v = value();
         auto const eq = v.find('=');
         String const name = v.substr(0, eq);
         if (eq == String::npos || !isSwitchName(name) || !splitAddress(v.substr(eq + 1))) {
            throw UsageError("--target takes NAME=HOST:PORT (a name of letters, digits, '.', '_', '-', ':'), not '" +
                             v + "'");
         }
         o.targets.emplace_back(name, v.substr(eq + 1));
      } else if (arg == "--inventory") {
         o.inventory = value();
      } else if (arg == "--ak") {
         o.ak = value();
      } else if (arg == "--owner-ca") {
         o.ownerCa = value();
      } else if (arg == "--pcrs") {
         o.pcrs = parsePcrList(value());
         o.pcrsGiven = true;
      } else if (arg == "--bank") {
         String const v = value();
         auto const *alg = tpmAlgorithm(std::string_view(v));
         // The banks attestz can ask for.
         if (!alg || alg->id == kAlgSm3_256) throw UsageError("--bank takes sha1, sha256, sha384 or sha512, not '" + v + "'");
         o.bank = alg->id;
      } else if (arg == "--baseline") {
         o.baseline = value();
      } else if (arg == "--tls-ca") {
         o.tlsCa = value();
      } else if (arg == "--tls-cert") {
         o.tlsCert = value();
      } else if (arg == "--tls-key") {
         o.tlsKey = value();
      } else if (arg == "--jobs") {
         String const v = value();
         auto const n = number(v, 1000);
         if (!n || *n == 0) throw UsageError("--jobs takes a number from 1 to 1000, not '" + v + "'");
         o.jobs = *n;
      } else if (arg == "--timeout") {
         String const v = value();
         auto const seconds = secondsOf(v);
         if (!seconds || *seconds < 0.001 || *seconds > 3600) {
            throw UsageError("--timeout takes seconds from 0.001 to 3600, not '" + v + "'");
         }
         o.timeout = std::chrono::milliseconds(static_cast<long>(std::llround(*seconds * 1000)));
      } else if (arg == "--format") {
         o.format = SentrelHost::formatNamed(value());
      } else if (arg == "--output") {
         o.output = value();
      } else if (arg == "--save") {
         o.save = value();
      } else if (arg == "--response") {
         o.response = value();
      } else if (arg == "--nonce") {
         String const v = value();
         auto const raw = bytesOfHex(v);
         // At most what a TPM takes as qualifyingData.
         if (!raw || raw->empty() || raw->size() > 64) {
            throw UsageError("--nonce takes 1 to 64 bytes in hex, not '" + v + "'");
         }
         o.nonce = *raw;
      } else if (arg == "--version") {
         o.version = true;
      } else if (arg == "--help" || arg == "-h") {
         o.help = true;
      } else {
         throw UsageError("unknown argument '" + arg + "'");
      }
   }
   if (o.help || o.version) return o;
   if (o.response) {
      if (!o.nonce) throw UsageError("--response needs the --nonce it was asked with");
      if (!o.targets.empty() || o.inventory || o.save) {
         throw UsageError("--response checks a saved response: it does not go with --target, --inventory or --save");
      }
   } else {
      if (o.nonce) throw UsageError("--nonce goes with --response");
      if (o.targets.empty() && !o.inventory) throw UsageError("name the switches: --target NAME=HOST:PORT or --inventory FILE");
   }
   if (o.tlsCert.has_value() != o.tlsKey.has_value()) throw UsageError("--tls-cert and --tls-key go together");
   return o;
}

}  // namespace SentrelAttest
