// A bounded pool of worker threads for decoding jobs. Workers start when
// jobs are submitted (at most `maxThreads` at once) and end when the queue
// is empty, so no thread outlives the work it was started for. Jobs must
// not throw.
//
// Thread safety: Submit, WaitUntil and WaitIdle are called by one owner
// thread; jobs run on the workers.
#ifndef ZELVARPACK_IMAGE_DECODE_POOL_H_
#define ZELVARPACK_IMAGE_DECODE_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zelvarpack::image {

class DecodePool {
 public:
  explicit DecodePool(std::size_t maxThreads);
  // Waits for every job and joins the workers.
  ~DecodePool();
  DecodePool(const DecodePool&) = delete;
  DecodePool& operator=(const DecodePool&) = delete;

  void Submit(std::function<void()> job);

  // Blocks until `ready()` is true. `ready` reads state that jobs publish
  // before they end (an atomic flag, say); it is checked again after each
  // job ends.
  void WaitUntil(const std::function<bool()>& ready);

  // Blocks until every submitted job has ended, then joins the workers.
  void WaitIdle();

 private:
  void Work();

  const std::size_t maxThreads_;
  std::mutex mutex_;
  std::condition_variable jobEnded_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  std::size_t running_ = 0;                  // guarded by mutex_
  std::size_t submitted_ = 0;                // guarded by mutex_
  std::size_t ended_ = 0;                    // guarded by mutex_
  std::vector<std::thread> threads_;         // guarded by mutex_
};

}  // namespace zelvarpack::image

#endif  // ZELVARPACK_IMAGE_DECODE_POOL_H_
