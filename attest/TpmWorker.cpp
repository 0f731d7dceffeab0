#include "attest/TpmWorker.h"

namespace SentrelAttestd {

TpmWorker::TpmWorker(std::size_t maxQueued) : maxQueued_(maxQueued), thread_([this] { run(); }) {}

TpmWorker::~TpmWorker() {
   {
      std::lock_guard const lock(mutex_);
      stopping_ = true;
   }
   ready_.notify_one();
   thread_.join();
}

bool TpmWorker::offer(Job job) {
   {
      std::lock_guard const lock(mutex_);
      if (stopping_ || closed_ || jobs_.size() >= maxQueued_ + (busy_ ? 0 : 1)) return false;
      jobs_.push_back(std::move(job));
   }
   ready_.notify_one();
   return true;
}

void TpmWorker::close() {
   std::lock_guard const lock(mutex_);
   closed_ = true;
}

bool TpmWorker::closed() {
   std::lock_guard const lock(mutex_);
   return closed_;
}

bool TpmWorker::waitIdle(std::chrono::steady_clock::time_point until) {
   std::unique_lock lock(mutex_);
   return idle_.wait_until(lock, until, [this] { return !busy_ && jobs_.empty(); });
}

void TpmWorker::run() {
   std::unique_lock lock(mutex_);
   for (;;) {
      ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      Job job = std::move(jobs_.front());
      jobs_.pop_front();
      busy_ = true;
      lock.unlock();
      job();
      job = nullptr;
      lock.lock();
      busy_ = false;
      if (jobs_.empty()) idle_.notify_all();
   }
}

}  // namespace SentrelAttestd
