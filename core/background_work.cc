#include "core/background_work.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace zelvarpack {

namespace {

struct Work {
  std::mutex mutex;
  std::condition_variable ended;
  int running = 0;  // guarded by mutex
  std::atomic<bool> stopping{false};
};

// Never destroyed: threads may still count themselves out while the
// program's static objects go.
Work& State() {
  static Work* work = new Work;
  return *work;
}

}  // namespace

void BeginBackgroundWork() {
  Work& work = State();
  std::lock_guard<std::mutex> lock(work.mutex);
  ++work.running;
}

void EndBackgroundWork() {
  Work& work = State();
  std::lock_guard<std::mutex> lock(work.mutex);
  if (--work.running == 0) work.ended.notify_all();
}

bool BackgroundWorkStopping() { return State().stopping.load(std::memory_order_relaxed); }

bool StopBackgroundWork(std::chrono::milliseconds timeout) {
  Work& work = State();
  work.stopping.store(true);
  std::unique_lock<std::mutex> lock(work.mutex);
  const bool ended = work.ended.wait_for(lock, timeout, [&work] { return work.running == 0; });
  // Work started later (a test process goes on after a stop) runs again.
  work.stopping.store(false);
  return ended;
}

}  // namespace zelvarpack
