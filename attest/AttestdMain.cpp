// sentrel-attestd: the switch's attestz service. Serves Attest until
// SIGTERM or SIGINT; --create-ak and --print-ak manage its attestation key.
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <malloc.h>
#include <memory>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <syslog.h>

#include "attest/AttestService.h"
#include "attest/AttestdOptions.h"
#include "attest/Attestor.h"
#include "attest/FileText.h"
#include "evidence/Bytes.h"

#ifndef SENTREL_VERSION
#error "SENTREL_VERSION is not defined: attest/CMakeLists.txt defines it from the project's version"
#endif

namespace {

using namespace SentrelAttestd;

constexpr char const *kIdent = "sentrel-attestd";
// Certificates and keys are a few kilobytes; more is a wrong file.
constexpr std::size_t kMaxPemBytes = std::size_t{1} << 20;
// The securityfs log below the system root, unless --event-log names one.
constexpr char const *kEventLog = "/sys/kernel/security/tpm0/binary_bios_measurements";
// A request is a nonce, a few PCR indices and a card's name.
constexpr int kMaxRequestBytes = 64 * 1024;
// Allocations up to this size are kept by the allocator when freed.
constexpr int kKeptAllocation = 8 << 20;
// How long calls still running at shutdown are given to finish.
constexpr std::chrono::seconds kShutdownGrace{5};

// Messages of the service: to the system log, or to standard error with --no-syslog.
class ServiceLog {
 public:
   explicit ServiceLog(bool syslog) : syslog_(syslog) {
      if (syslog_) openlog(kIdent, LOG_PID, LOG_DAEMON);
   }
   ~ServiceLog() {
      if (syslog_) closelog();
   }
   void operator()(int priority, String const &line) const {
      if (syslog_) {
         syslog(priority, "%s", line.c_str());
      } else {
         std::fprintf(stderr, "%s: %s\n", kIdent, line.c_str());
      }
   }

 private:
   bool const syslog_;
};

int priorityOf(grpc::StatusCode code) {
   switch (code) {
      case grpc::StatusCode::OK: return LOG_INFO;
      case grpc::StatusCode::UNAVAILABLE:
      case grpc::StatusCode::INTERNAL: return LOG_WARNING;
      default: return LOG_NOTICE;
   }
}

// The PEM file named by `option`, checked to hold what it must: certificates,
// or a private key. A UsageError names the file and the problem.
String pemFile(char const *option, String const &path, bool privateKey) {
   auto file = readFileText(path, path, kMaxPemBytes);
   if (!file.problem.empty()) throw UsageError(String(option) + " " + file.problem);
   std::unique_ptr<BIO, decltype(&BIO_free)> const bio(BIO_new_mem_buf(file.text.data(), static_cast<int>(file.text.size())),
                                                       BIO_free);
   int count = 0;
   if (privateKey) {
      EVP_PKEY *key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
      count = key ? 1 : 0;
      EVP_PKEY_free(key);
   } else {
      while (X509 *cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
         X509_free(cert);
         ++count;
      }
   }
   ERR_clear_error();
   if (count == 0) {
      throw UsageError(String(option) + " " + path + ": no PEM " + (privateKey ? "private key" : "certificate") +
                       " in it");
   }
   return std::move(file.text);
}

std::shared_ptr<grpc::ServerCredentials> credentials(Options const &o) {
   if (!o.tlsCert) return grpc::InsecureServerCredentials();
   grpc::SslServerCredentialsOptions tls;
   tls.pem_key_cert_pairs.push_back({pemFile("--tls-key", *o.tlsKey, true), pemFile("--tls-cert", *o.tlsCert, false)});
   if (o.tlsClientCa) {
      tls.pem_root_certs = pemFile("--tls-client-ca", *o.tlsClientCa, false);
      tls.client_certificate_request = GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY;
   } else {
      tls.client_certificate_request = GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE;
   }
   return grpc::SslServerCredentials(tls);
}

// --create-ak and --print-ak: the key's public PEM and its TPM name, for the
// owner's inventory or CA.
int manageKey(Options const &o) {
   Tcti const tcti = tctiOf(o);
   SentrelTpm::TpmConnection const tpm(tcti.conf, o.commandTimeout, tcti.name);
   if (!tpm.esys()) {
      std::fprintf(stderr, "%s: cannot reach the TPM through %s: %s\n", kIdent, tcti.name.c_str(),
                   tpm.responseText(tpm.failure()).c_str());
      return 1;
   }
   std::optional<SentrelTpm::AkPublic> pub;
   if (o.action == Action::CreateAk) {
      auto made = SentrelTpm::createAttestationKey(tpm, o.akHandle, o.force);
      if (auto const *problem = std::get_if<SentrelTpm::TpmProblem>(&made)) {
         String hint;
         if (problem->kind == SentrelTpm::TpmProblem::Kind::KeyExists) {
            hint = ": --force replaces it, which voids every record and certificate of the key it holds";
         }
         std::fprintf(stderr, "%s: %s%s\n", kIdent, problem->why.c_str(), hint.c_str());
         return 1;
      }
      pub = std::get<SentrelTpm::AkPublic>(made);
   } else {
      auto loaded = SentrelTpm::loadAttestationKey(tpm, o.akHandle);
      if (auto const *problem = std::get_if<SentrelTpm::TpmProblem>(&loaded)) {
         String const hint = problem->kind == SentrelTpm::TpmProblem::Kind::NoKey ? ": make it with --create-ak" : "";
         std::fprintf(stderr, "%s: %s%s\n", kIdent, problem->why.c_str(), hint.c_str());
         return 1;
      }
      pub = std::get<SentrelTpm::LoadedAk>(loaded).pub;
   }
   String const pem = SentrelTpm::publicKeyPem(pub->publicArea.publicArea);
   if (pem.empty()) {
      std::fprintf(stderr, "%s: the key at %s is no P-256 public key OpenSSL can encode\n", kIdent,
                   SentrelTpm::handleText(o.akHandle).c_str());
      return 1;
   }
   String const name = SentrelEvidence::hexOf(std::string_view(reinterpret_cast<char const *>(pub->name.name),
                                                               std::min<std::size_t>(pub->name.size, sizeof pub->name.name)));
   if (o.action == Action::CreateAk) {
      std::fprintf(stderr, "%s: made the attestation key at %s\n", kIdent, SentrelTpm::handleText(o.akHandle).c_str());
   }
   std::printf("%sTPM name: %s\n", pem.c_str(), name.c_str());
   return std::fflush(stdout) == 0 ? 0 : 1;
}

int serve(Options const &o) {
   // The signals that end the service are taken by sigwait below, never by
   // a thread of gRPC's or the worker's: they are blocked before any starts.
   sigset_t stop;
   sigemptyset(&stop);
   sigaddset(&stop, SIGTERM);
   sigaddset(&stop, SIGINT);
   pthread_sigmask(SIG_BLOCK, &stop, nullptr);

   ServiceLog const log(o.syslog);
   auto const creds = credentials(o);
   AttestorSetup setup;
   setup.tcti = tctiOf(o);
   setup.akHandle = o.akHandle;
   setup.commandTimeout = o.commandTimeout;
   if (o.akCert) setup.akCertPem = pemFile("--ak-cert", *o.akCert, false);
   setup.eventLogPath = o.eventLog ? *o.eventLog : o.sysroot + kEventLog;
   setup.eventLogShown = o.eventLog ? *o.eventLog : kEventLog;
   setup.card = readCardIdentity(o.sysroot);
   for (auto const &problem : setup.card.problems) log(LOG_NOTICE, "the control card's identity: " + problem);

   CardIdentity const card = setup.card;
   Attestor attestor(std::move(setup));
   AttestService service(card, attestor, o.maxQueued, [&log](String const &line, grpc::StatusCode code) {
      log(priorityOf(code), line);
   });
   grpc::ServerBuilder builder;
   int port = 0;
   builder.AddListeningPort(o.listen.text(), creds, &port);
   builder.RegisterService(&service);
   builder.SetMaxReceiveMessageSize(kMaxRequestBytes);
   std::unique_ptr<grpc::Server> const server = builder.BuildAndStart();
   if (!server || port == 0) {
      std::fprintf(stderr, "%s: cannot listen on %s\n", kIdent, o.listen.text().c_str());
      return 1;
   }
   Tcti const tcti = tctiOf(o);
   log(LOG_INFO, SentrelEvidence::concat("serving attestz on ", o.listen.host, ":", port,
                                         o.tlsClientCa ? " with mutual TLS" : o.tlsCert ? " with TLS" : " without TLS",
                                         ", attestation key ", SentrelTpm::handleText(o.akHandle), " of the TPM at ",
                                         tcti.name));
   int signal = 0;
   sigwait(&stop, &signal);
   log(LOG_INFO, signal == SIGTERM ? "stopping on SIGTERM" : "stopping on SIGINT");
   // The worker finishes the calls it holds; then it and the Attestor go.
   // Requests with the TPM or waiting for it are given a grace period;
   // then gRPC stops at once: a shutdown with a deadline would also wait
   // that long for idle connections to be closed by their clients.
   service.drain(kShutdownGrace);
   server->Shutdown(std::chrono::system_clock::now());
   server->Wait();
   return 0;
}

}  // namespace

int main(int argc, char **argv) {
   // tpm2-tss prints its own errors unless told not to, and the TPM's
   // connection tells it so when it is made: on the TPM's thread, while
   // gRPC's read the environment. Said here first, before any thread starts.
   setenv("TSS2_LOG", "all+none", 0);
   // Each answer holds the event log (100 KiB and more) several times over,
   // in buffers that gRPC's threads and the TPM's allocate and free. glibc
   // would map and unmap them, or hand their pages back at every free, and
   // fault them in again at the next request: that cost more than the
   // TPM's quote (BENCHMARKS.md). They are kept instead.
   mallopt(M_MMAP_THRESHOLD, kKeptAllocation);
   mallopt(M_TRIM_THRESHOLD, 2 * kKeptAllocation);
   try {
      Options const o = parseOptions(argc, argv);
      switch (o.action) {
         case Action::Help: std::fputs(kUsage, stdout); return 0;
         case Action::Version: std::printf("sentrel-attestd %s\n", SENTREL_VERSION); return 0;
         case Action::CreateAk:
         case Action::PrintAk: return manageKey(o);
         case Action::Serve: return serve(o);
      }
   } catch (UsageError const &e) {
      std::fprintf(stderr, "%s: %s\n%s", kIdent, e.what(), "Try 'sentrel-attestd --help'.\n");
      return 2;
   } catch (std::exception const &e) {
      std::fprintf(stderr, "%s: %s\n", kIdent, e.what());
      return 1;
   }
   return 1;
}
