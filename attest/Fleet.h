#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include <grpcpp/security/credentials.h>

#include "attest/VerifySetup.h"

// Attests many switches at once over attestz: gRPC's asynchronous client,
// at most `jobs` calls in flight, each with its own deadline, so that a
// slow, dead or hostile switch holds up no other.
namespace SentrelAttest {

// A response larger than this is refused by gRPC (RESOURCE_EXHAUSTED): a
// quote is a few hundred bytes and a firmware's log in CEL JSON some
// hundreds of kilobytes.
inline constexpr std::size_t kMaxResponseBytes = std::size_t{32} << 20;

struct FleetOptions {
   std::uint16_t bank;
   PcrSet pcrs;
   unsigned jobs = 64;
   std::chrono::milliseconds timeout{10000};
   std::shared_ptr<grpc::ChannelCredentials> credentials{};
   std::size_t maxResponseBytes = kMaxResponseBytes;
   // After each switch is judged: how many are, of how many.
   std::function<void(std::size_t done, std::size_t total)> progress{};
   // Each response received, with the nonce it was asked with, before it is judged.
   std::function<void(Target const &target, String const &nonce, AttestResponse const &response)> received{};
};

// The judgement of each target, in the targets' order: trusted or untrusted
// by the five checks, or unreachable with the call's gRPC status.
std::vector<Judgement> attestFleet(std::vector<Target> const &targets, FleetOptions const &options);

// "DEADLINE_EXCEEDED: Deadline Exceeded": the status as the reason of an
// unreachable switch.
String statusText(grpc::StatusCode code, String const &message);

}  // namespace SentrelAttest
