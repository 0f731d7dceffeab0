#include "tests/FakeAttestzServer.h"

#include <arpa/inet.h>
#include <grpcpp/server_builder.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "attest/attestz.grpc.pb.h"

namespace SentrelTest {

using openconfig::attestz::TpmAttestzService;

class FakeAttestzServer::Typed : public TpmAttestzService::Service {
 public:
   Typed(Answer answer, std::atomic<int> &requests) : answer_(std::move(answer)), requests_(requests) {}
   grpc::Status Attest(grpc::ServerContext *context, AttestRequest const *request, AttestResponse *response) override {
      ++requests_;
      return answer_(*context, *request, *response);
   }

 private:
   Answer answer_;
   std::atomic<int> &requests_;
};

class FakeAttestzServer::Raw : public TpmAttestzService::WithRawCallbackMethod_Attest<TpmAttestzService::Service> {
 public:
   Raw(String bytes, std::atomic<int> &requests) : bytes_(std::move(bytes)), requests_(requests) {}
   grpc::ServerUnaryReactor *Attest(grpc::CallbackServerContext *context, grpc::ByteBuffer const *,
                                    grpc::ByteBuffer *response) override {
      ++requests_;
      grpc::Slice slice(bytes_);
      *response = grpc::ByteBuffer(&slice, 1);
      auto *reactor = context->DefaultReactor();
      reactor->Finish(grpc::Status::OK);
      return reactor;
   }

 private:
   String bytes_;
   std::atomic<int> &requests_;
};

FakeAttestzServer::FakeAttestzServer(Answer answer, std::shared_ptr<grpc::ServerCredentials> credentials)
    : service_(std::make_unique<Typed>(std::move(answer), requests_)) {
   start(*service_, credentials);
}

FakeAttestzServer::FakeAttestzServer(String bytes) : service_(std::make_unique<Raw>(std::move(bytes), requests_)) {
   start(*service_, nullptr);
}

void FakeAttestzServer::start(grpc::Service &service, std::shared_ptr<grpc::ServerCredentials> const &credentials) {
   int port = 0;
   grpc::ServerBuilder builder;
   builder.AddListeningPort("127.0.0.1:0", credentials ? credentials : grpc::InsecureServerCredentials(), &port);
   builder.RegisterService(&service);
   server_ = builder.BuildAndStart();
   address_ = "127.0.0.1:" + std::to_string(port);
}

FakeAttestzServer::~FakeAttestzServer() {
   if (server_) server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
}

void sleepUntilCancelled(grpc::ServerContext &context, std::chrono::milliseconds limit) {
   auto const until = std::chrono::steady_clock::now() + limit;
   while (!context.IsCancelled() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
}

MuteSwitch::MuteSwitch(bool reset) {
   listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_in a{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
   socklen_t size = sizeof a;
   bind(listener_, reinterpret_cast<sockaddr *>(&a), size);
   listen(listener_, 64);
   getsockname(listener_, reinterpret_cast<sockaddr *>(&a), &size);
   address_ = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
   if (!reset) return;
   resetter_ = std::thread([fd = listener_] {
      while (true) {
         int const c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
         if (c < 0) return;  // shut down
         // Closed with a zero linger: a reset, not an orderly end.
         linger const l{1, 0};
         setsockopt(c, SOL_SOCKET, SO_LINGER, &l, sizeof l);
         close(c);
      }
   });
}

MuteSwitch::~MuteSwitch() {
   shutdown(listener_, SHUT_RDWR);
   if (resetter_.joinable()) resetter_.join();
   close(listener_);
}

}  // namespace SentrelTest
