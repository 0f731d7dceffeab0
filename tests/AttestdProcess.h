#pragma once

#include <cstdint>
#include <sys/types.h>
#include <vector>

#include "evidence/Bytes.h"

// sentrel-attestd as a process of the tests and the benchmarks: started on
// a free loopback port with its output in a log file, stopped with SIGTERM
// as systemd stops it, however the caller ends.
namespace SentrelTest {

using SentrelEvidence::String;

class AttestdProcess {
 public:
   // Adds --no-syslog and --listen 127.0.0.1:PORT to `args`.
   AttestdProcess(String const &program, std::vector<String> const &args, String const &logFile);
   AttestdProcess(AttestdProcess const &) = delete;
   ~AttestdProcess() { stop(); }
   // Whether it serves: its port takes a connection within 20 seconds.
   bool serving();
   String address() const { return "127.0.0.1:" + std::to_string(port_); }
   // Stops it; its exit status as a shell reports it (-1 when it ended before).
   int stop();

 private:
   pid_t pid_ = -1;
   std::uint16_t port_ = 0;
};

}  // namespace SentrelTest
