#pragma once

#include <benchmark/benchmark.h>
#include <chrono>
#include <ctime>
#include <openssl/evp.h>
#include <vector>

#include "evidence/EventLog.h"

// The least a replay of an event log can cost: per algorithm of the log,
// one fetched digest and one context extending a single value with every
// extended digest in turn, OpenSSL and nothing else.
namespace SentrelBench {

using Seconds = std::chrono::duration<double>;

// This thread's CPU time: other processes on the machine count in nothing timed by it.
inline Seconds threadCpu() {
   timespec t{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
   return Seconds(static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9);
}

class HashFloor {
 public:
   explicit HashFloor(SentrelEvidence::EventLog const &log) {
      using namespace SentrelEvidence;
      for (auto const id : log.algorithms) {
         Bank b{EVP_MD_fetch(nullptr, tpmAlgorithm(id)->evpName, nullptr), tpmAlgorithm(id)->digestSize, {}};
         for (auto const &e : log.events) {
            for (auto const &d : e.digests) {
               if (e.type != EV_NO_ACTION && d.algorithm == id) b.digests += d.bytes;
            }
         }
         banks_.push_back(std::move(b));
      }
   }
   HashFloor(HashFloor const &) = delete;
   ~HashFloor() {
      for (auto &b : banks_) EVP_MD_free(b.md);
      EVP_MD_CTX_free(ctx_);
   }
   void run() {
      for (auto const &b : banks_) {
         unsigned char value[EVP_MAX_MD_SIZE] = {};
         for (std::size_t at = 0; at < b.digests.size(); at += b.size) {
            EVP_DigestInit_ex(ctx_, b.md, nullptr);
            EVP_DigestUpdate(ctx_, value, b.size);
            EVP_DigestUpdate(ctx_, b.digests.data() + at, b.size);
            EVP_DigestFinal_ex(ctx_, value, nullptr);
         }
         benchmark::DoNotOptimize(value);
      }
   }

 private:
   struct Bank {
      EVP_MD *md;
      std::size_t size;
      SentrelEvidence::String digests;  // end to end
   };
   std::vector<Bank> banks_;
   EVP_MD_CTX *ctx_ = EVP_MD_CTX_new();
};

}  // namespace SentrelBench
