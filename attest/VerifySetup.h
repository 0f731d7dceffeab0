#pragma once

#include <map>
#include <memory>
#include <vector>

#include <grpcpp/security/credentials.h>

#include "attest/TrustAnchors.h"
#include "attest/VerifyOptions.h"

namespace SentrelAttest {

// One switch to attest, with what its attestation key is trusted by and
// its model's baseline.
struct Target {
   String name;
   String address;
   Trust trust;
   SentrelEvidence::EventLog const *baseline = nullptr;  // owned by the setup
};

// Everything a run needs, read and checked before any switch is asked: the
// targets (--target, then the inventory's), the keys, the owner's CA, the
// baselines, the channel credentials. Each file is read once, however many
// switches share it. A file that cannot be read or used, a name given twice
// and plaintext to an address that is not loopback throw UsageError.
class VerifySetup {
 public:
   explicit VerifySetup(VerifyOptions const &options);
   VerifySetup(VerifySetup const &) = delete;

   std::vector<Target> targets;
   std::shared_ptr<grpc::ChannelCredentials> credentials;
   // What a saved response is checked with: --ak, --owner-ca, --baseline.
   Target offline;

 private:
   std::vector<PublicKey> const &keysOf(String const &file, String const &what);
   SentrelEvidence::EventLog const *baselineOf(String const &file, String const &what);

   std::map<String, std::vector<PublicKey>> keyFiles_;
   std::map<String, SentrelEvidence::EventLog> baselines_;
   CaStore ownerCa_;
};

// The whole of a file named by an option or the inventory (`what` names
// it: "--ak", "inventory.json: switch leaf1: ak"), at most `cap` bytes.
// Throws UsageError naming it and the problem.
String readInput(String const &path, String const &what, std::size_t cap);

}  // namespace SentrelAttest
