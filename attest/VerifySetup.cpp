#include "attest/VerifySetup.h"

#include <grpcpp/security/credentials.h>
#include <set>

#include "Sentrel/platform/ReadFile.h"
#include "attest/Addresses.h"
#include "attest/Inventory.h"
#include "evidence/Cel.h"
#include "host/UsageError.h"

namespace SentrelAttest {

using SentrelHost::UsageError;
using namespace SentrelEvidence;

namespace {

// Keys, certificates and inventories are kilobytes; a baseline is a log.
constexpr std::size_t kMaxPemBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxInventoryBytes = std::size_t{64} << 20;

}  // namespace

String readInput(String const &path, String const &what, std::size_t cap) {
   Loom::FileText f = Loom::readWholeFile(path, cap);
   if (!f.ok()) throw UsageError(what + " " + path + ": " + f.problem());
   return std::move(f.text);
}

std::vector<PublicKey> const &VerifySetup::keysOf(String const &file, String const &what) {
   auto const known = keyFiles_.find(file);
   if (known != keyFiles_.end()) return known->second;
   String problem;
   auto keys = readPublicKeys(readInput(file, what, kMaxPemBytes), problem);
   if (keys.empty()) throw UsageError(what + " " + file + ": " + problem);
   return keyFiles_[file] = std::move(keys);
}

EventLog const *VerifySetup::baselineOf(String const &file, String const &what) {
   auto const known = baselines_.find(file);
   if (known != baselines_.end()) return &known->second;
   auto parsed = parseCanonicalEventLog(readInput(file, what, kMaxEventLogBytes * 4));
   if (auto const *p = std::get_if<EventLogProblem>(&parsed)) throw UsageError(what + " " + file + ": " + p->what);
   return &(baselines_[file] = std::move(std::get<EventLog>(parsed)));
}

VerifySetup::VerifySetup(VerifyOptions const &o) {
   std::vector<PublicKey> common;
   if (o.ak) common = keysOf(*o.ak, "--ak");
   if (o.ownerCa) {
      String problem;
      ownerCa_ = readCaStore(readInput(*o.ownerCa, "--owner-ca", kMaxPemBytes), problem);
      if (!ownerCa_) throw UsageError("--owner-ca " + *o.ownerCa + ": " + problem);
   }
   EventLog const *baseline = o.baseline ? baselineOf(*o.baseline, "--baseline") : nullptr;
   offline = Target{o.response.value_or(""), "", Trust{common, ownerCa_.get()}, baseline};
   if (o.response && common.empty() && !ownerCa_) {
      throw UsageError("--response needs what its attestation key is trusted by: --ak or --owner-ca");
   }

   std::set<String> names;
   for (auto const &[name, address] : o.targets) {
      if (!names.insert(name).second) throw UsageError("--target " + name + " is given twice");
      targets.push_back(Target{name, address, Trust{common, ownerCa_.get()}, baseline});
   }
   if (o.inventory) {
      String const &file = *o.inventory;
      Inventory const inv = parseInventory(file, readInput(file, "--inventory", kMaxInventoryBytes));
      std::map<String, EventLog const *> modelBaseline;
      for (auto const &[model, path] : inv.modelBaseline) {
         modelBaseline[model] = path ? baselineOf(*path, file + ": model " + model + ": baseline") : baseline;
      }
      for (auto const &s : inv.switches) {
         if (!names.insert(s.name).second) {
            throw UsageError(file + ": switch " + s.name + " is named by --target too");
         }
         Target t{s.name, s.address, Trust{common, ownerCa_.get()}, s.model ? modelBaseline[*s.model] : baseline};
         if (s.akFile) {
            auto const &keys = keysOf(*s.akFile, file + ": switch " + s.name + ": ak");
            t.trust.keys.insert(t.trust.keys.begin(), keys.begin(), keys.end());
         } else if (s.akPem) {
            String problem;
            auto keys = readPublicKeys(*s.akPem, problem);
            if (keys.empty()) throw UsageError(file + ": switch " + s.name + ": akPem: " + problem);
            t.trust.keys.insert(t.trust.keys.begin(), keys.begin(), keys.end());
         }
         targets.push_back(std::move(t));
      }
   }
   if (o.response) return;
   if (targets.empty()) throw UsageError(*o.inventory + ": no switches in it");
   for (auto const &t : targets) {
      if (t.trust.keys.empty() && !ownerCa_) {
         throw UsageError("switch " + t.name + ": no attestation key is trusted for it: give --ak, --owner-ca or its "
                          "\"ak\" in the inventory");
      }
   }

   if (o.tlsCa || o.tlsCert) {
      grpc::SslCredentialsOptions ssl;
      String problem;
      if (o.tlsCa) {
         ssl.pem_root_certs = readInput(*o.tlsCa, "--tls-ca", kMaxPemBytes);
         if (!readCaStore(ssl.pem_root_certs, problem)) throw UsageError("--tls-ca " + *o.tlsCa + ": " + problem);
      }
      if (o.tlsCert) {
         ssl.pem_cert_chain = readInput(*o.tlsCert, "--tls-cert", kMaxPemBytes);
         if (!readCaStore(ssl.pem_cert_chain, problem)) throw UsageError("--tls-cert " + *o.tlsCert + ": " + problem);
         ssl.pem_private_key = readInput(*o.tlsKey, "--tls-key", kMaxPemBytes);
         if (!holdsPrivateKey(ssl.pem_private_key, problem)) throw UsageError("--tls-key " + *o.tlsKey + ": " + problem);
      }
      credentials = grpc::SslCredentials(ssl);
   } else {
      // The quote is signed, but only TLS says which switch answered and
      // keeps its identity and log private: plaintext stays on this machine.
      for (auto const &t : targets) {
         if (!isLoopback(splitAddress(t.address)->first)) {
            throw UsageError("switch " + t.name + " at " + t.address +
                             ": plaintext only to a loopback address; give --tls-ca for TLS");
         }
      }
      credentials = grpc::InsecureChannelCredentials();
   }
}

}  // namespace SentrelAttest
