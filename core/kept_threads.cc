#include "core/kept_threads.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#ifdef __linux__
#include <sched.h>
#endif

namespace zelvarpack {
namespace {

class KeptThreads {
 public:
  bool Run(std::function<void()>&& task) {
    std::unique_lock<std::mutex> lock(mutex_);
    // Each idle thread takes one queued task when it wakes; a task beyond
    // their number gets a thread of its own.
    const bool idleThreadFree = idle_ > tasks_.size();
    try {
      tasks_.push_back(std::move(task));
    } catch (const std::bad_alloc&) {
      return false;
    }
    if (idleThreadFree) {
      // Woken after the unlock: a thread woken while the lock is held would
      // run only to block on it again, a second wake-up for the caller to
      // pay.
      lock.unlock();
      wake_.notify_one();
      return true;
    }
    try {
      std::thread(&KeptThreads::Serve, this).detach();
    } catch (const std::system_error&) {
      tasks_.pop_back();
      return false;
    }
    ++threads_;
    return true;
  }

  int Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }

 private:
  void Serve() {
    YieldToWokenCallers();
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      while (!tasks_.empty()) {
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;  // the task's captures die on this side of the lock
        lock.lock();
      }
      if (idle_ >= static_cast<std::size_t>(kMaxIdle)) break;
      ++idle_;
      const bool woken = wake_.wait_for(lock, kIdleLifetime, [this] { return !tasks_.empty(); });
      --idle_;
      if (!woken) break;
    }
    --threads_;
  }

  // Kept threads run background work (downloads a page waits for) that
  // spends most of its time waiting: woken by its network reply, such a thread
  // takes its turn when the running thread's slice ends instead of
  // interrupting the thread that is doing the page's own work. It gets the
  // same share of the processor as before.
  static void YieldToWokenCallers() {
#ifdef __linux__
    sched_param parameters{};
    ::sched_setscheduler(0, SCHED_BATCH, &parameters);  // a failure leaves the default
#endif
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  // Guarded by `mutex_`.
  std::deque<std::function<void()>> tasks_;
  std::size_t idle_ = 0;
  int threads_ = 0;
};

// Never destroyed: idle threads may still wait on it while the process ends.
KeptThreads& Threads() {
  static KeptThreads* threads = new KeptThreads;
  return *threads;
}

}  // namespace

bool RunOnKeptThread(std::function<void()> task) { return Threads().Run(std::move(task)); }

int KeptThreadCount() { return Threads().Count(); }

}  // namespace zelvarpack
