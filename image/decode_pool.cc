#include "image/decode_pool.h"

#include <system_error>
#include <utility>

namespace zelvarpack::image {

DecodePool::DecodePool(std::size_t maxThreads) : maxThreads_(maxThreads == 0 ? 1 : maxThreads) {}

DecodePool::~DecodePool() { WaitIdle(); }

void DecodePool::Submit(std::function<void()> job) {
  std::unique_lock<std::mutex> lock(mutex_);
  queue_.push_back(std::move(job));
  ++submitted_;
  if (running_ >= maxThreads_) return;
  ++running_;
  try {
    threads_.emplace_back([this] { Work(); });
  } catch (const std::system_error&) {
    // No thread to be had: when no worker is left, the caller works the
    // queue itself rather than leave the job waiting for ever.
    if (running_ > 1) {
      --running_;
      return;
    }
    lock.unlock();
    Work();
  }
}

void DecodePool::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!queue_.empty()) {
    std::function<void()> job = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    job();
    job = nullptr;
    lock.lock();
    ++ended_;
    jobEnded_.notify_all();
  }
  --running_;
}

void DecodePool::WaitUntil(const std::function<bool()>& ready) {
  std::unique_lock<std::mutex> lock(mutex_);
  jobEnded_.wait(lock, [&] { return ready(); });
}

void DecodePool::WaitIdle() {
  std::vector<std::thread> threads;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    jobEnded_.wait(lock, [&] { return ended_ == submitted_; });
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace zelvarpack::image
