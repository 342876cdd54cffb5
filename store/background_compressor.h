// Compresses a file's composites on helper threads while the file writer
// goes on matching chunks (store/file_writer.h); lives for one file's
// transaction. Jobs carry the composite's generation, so that a result for
// bytes appended to since is recognised as stale.
//
// A job takes over the composite's deflate stream and continues it in
// place. A later job for the same composite (its bytes grew after all)
// follows it: it waits until the earlier one is done and continues the
// stream that one kept, so one stream serves the whole chain and is never
// copied just to be shared. The owner, too, can continue a stale result's
// stream (Result::form.TakePrefix()).
//
// Thread safety: Submit and Drain are called by the one owning thread; the
// helper threads it starts share the job queue under a mutex.
#ifndef ZELVARPACK_STORE_BACKGROUND_COMPRESSOR_H_
#define ZELVARPACK_STORE_BACKGROUND_COMPRESSOR_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "store/stored_form.h"

namespace zelvarpack::store {

class BackgroundCompressor {
 public:
  struct Result {
    std::uint64_t generation = 0;
    std::shared_ptr<const Bytes> plain;  // what the form may point into
    StoredForm form;
    bool ok = false;
  };

  BackgroundCompressor() = default;

  BackgroundCompressor(const BackgroundCompressor&) = delete;
  BackgroundCompressor& operator=(const BackgroundCompressor&) = delete;
  ~BackgroundCompressor() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
      jobs_.clear();  // after a failure nobody wants them
    }
    work_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  // Compresses `plain`, generation `generation` of composite `id`,
  // continuing `prefix` (a stream that consumed a prefix of it; taken over:
  // null after a successful call) or, with `follows`, the stream kept by
  // this composite's previous job when `prefix` is null. With `keepPrefix`
  // the result keeps a stream over `plain`. False when no helper thread can
  // run here (one core, or none started); the caller then compresses at the
  // end. REQUIRES: `follows` only after a successful Submit for `id`.
  bool Submit(std::int32_t id, std::uint64_t generation, std::shared_ptr<const Bytes> plain,
              std::shared_ptr<const GzipPrefix>& prefix, bool keepPrefix, bool follows) {
    if (!started_) Start();
    if (threads_.empty()) return false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      jobs_.push_back({id, generation, std::move(plain), std::move(prefix), keepPrefix, follows});
    }
    work_.notify_one();
    return true;
  }

  // Finishes every submitted job, taking part in the work, and hands over
  // the newest result of each composite.
  std::map<std::int32_t, Result> Drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (RunOne(lock)) {
    }
    idle_.wait(lock, [this] { return jobs_.empty() && busy_ == 0; });
    std::map<std::int32_t, Result> results;
    results.swap(results_);
    return results;
  }

 private:
  struct Job {
    std::int32_t id;
    std::uint64_t generation;
    std::shared_ptr<const Bytes> plain;
    std::shared_ptr<const GzipPrefix> prefix;
    bool keepPrefix;
    bool follows;
  };

  void Start() {
    started_ = true;
    const unsigned helpers = std::min(std::thread::hardware_concurrency(), 8u);
    for (unsigned i = 1; i < helpers; ++i) {
      try {
        threads_.emplace_back([this] { Work(); });
      } catch (const std::system_error&) {
        break;
      }
    }
  }

  void Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      work_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
      if (!RunOne(lock)) return;  // stopping
    }
  }

  // Runs the oldest job, unlocking while it compresses; false when there
  // was none. REQUIRES: `lock` holds mutex_.
  bool RunOne(std::unique_lock<std::mutex>& lock) {
    if (jobs_.empty()) return false;
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    ++busy_;
    if (job.follows) {
      // The previous job of this composite left the queue before this one;
      // once it is done its result holds the stream to continue.
      idle_.wait(lock, [&] { return running_.count(job.id) == 0; });
      auto previous = results_.find(job.id);
      if (job.prefix == nullptr && previous != results_.end() &&
          previous->second.generation < job.generation) {
        job.prefix = previous->second.form.TakePrefix();
      }
    }
    running_.insert(job.id);
    lock.unlock();
    Result result;
    result.generation = job.generation;
    result.plain = std::move(job.plain);
    try {
      result.ok = result.form.Make(*result.plain, std::move(job.prefix), job.keepPrefix);
    } catch (...) {
      result.ok = false;
    }
    lock.lock();
    running_.erase(running_.find(job.id));
    Result& slot = results_[job.id];
    if (slot.plain == nullptr || slot.generation < result.generation) slot = std::move(result);
    --busy_;
    idle_.notify_all();
    return true;
  }

  bool started_ = false;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable work_;            // a job or the stop request arrived
  std::condition_variable idle_;            // a job finished
  std::deque<Job> jobs_;                    // guarded by mutex_
  std::map<std::int32_t, Result> results_;  // guarded by mutex_
  std::multiset<std::int32_t> running_;     // composites being compressed; guarded by mutex_
  int busy_ = 0;                            // guarded by mutex_
  bool stop_ = false;                       // guarded by mutex_
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_BACKGROUND_COMPRESSOR_H_
