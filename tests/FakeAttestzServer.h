#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_context.h>

#include "attest/attestz.pb.h"
#include "evidence/Bytes.h"

// Switches made up by the tests, on loopback: attestz services that answer
// as a test says, even with bytes that are no response at all, and sockets
// that never answer or reset every connection.
namespace SentrelTest {

using SentrelEvidence::String;
using openconfig::attestz::AttestRequest;
using openconfig::attestz::AttestResponse;

class FakeAttestzServer {
 public:
   // Fills in the response to a request, or returns the status to fail it with.
   using Answer = std::function<grpc::Status(grpc::ServerContext &, AttestRequest const &, AttestResponse &)>;
   // The service, answering each request as `answer` says (TLS with `credentials`).
   explicit FakeAttestzServer(Answer answer, std::shared_ptr<grpc::ServerCredentials> credentials = nullptr);
   // The service, answering each request with `bytes` as the response message.
   explicit FakeAttestzServer(String bytes);
   FakeAttestzServer(FakeAttestzServer const &) = delete;
   ~FakeAttestzServer();
   // "127.0.0.1:PORT".
   String const &address() const { return address_; }
   int requests() const { return requests_; }

 private:
   class Typed;
   class Raw;
   void start(grpc::Service &service, std::shared_ptr<grpc::ServerCredentials> const &credentials);
   std::unique_ptr<grpc::Service> service_;
   std::unique_ptr<grpc::Server> server_;
   String address_;
   std::atomic<int> requests_{0};
};

// Sleeps until the caller gives up (its deadline), or `limit` passes.
void sleepUntilCancelled(grpc::ServerContext &context, std::chrono::milliseconds limit);

// A TCP port on loopback that takes connections and never says a word, or
// (with `reset`) resets each one at once.
class MuteSwitch {
 public:
   explicit MuteSwitch(bool reset = false);
   MuteSwitch(MuteSwitch const &) = delete;
   ~MuteSwitch();
   String const &address() const { return address_; }

 private:
   int listener_ = -1;
   String address_;
   std::thread resetter_;
};

}  // namespace SentrelTest
