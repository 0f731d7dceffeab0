#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace SentrelAttestd {

// One thread that does the TPM's work in the order it was given, behind a
// bounded queue: a TPM answers one command at a time, slowly, and a flood
// of requests must be refused rather than pile up.
class TpmWorker {
 public:
   using Job = std::function<void()>;

   // At most `maxQueued` jobs wait beside the one being done.
   explicit TpmWorker(std::size_t maxQueued);
   TpmWorker(TpmWorker const &) = delete;
   TpmWorker &operator=(TpmWorker const &) = delete;
   // Does the jobs still queued, then ends the thread.
   ~TpmWorker();

   // Queues `job`, unless `maxQueued` jobs wait already: false then, and
   // the job is not kept. Any thread.
   bool offer(Job job);
   std::size_t maxQueued() const { return maxQueued_; }
   // Refuses every job offered from now on.
   void close();
   bool closed();
   // Waits until no job is being done or waits, or `until` has come: false then.
   bool waitIdle(std::chrono::steady_clock::time_point until);

 private:
   void run();
   std::size_t const maxQueued_;
   std::mutex mutex_;
   std::condition_variable ready_, idle_;
   std::deque<Job> jobs_;
   bool stopping_ = false;
   bool closed_ = false;
   bool busy_ = false;  // a job is being done
   std::thread thread_;
};

}  // namespace SentrelAttestd
