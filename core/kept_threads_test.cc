#include "core/kept_threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#ifdef __linux__
#include <sched.h>
#endif

namespace zelvarpack {
namespace {

// Counts down to zero and wakes everyone waiting for it.
class Countdown {
 public:
  explicit Countdown(int count) : count_(count) {}
  void Arrive() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--count_ == 0) zero_.notify_all();
  }
  bool WaitForZero(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return zero_.wait_for(lock, limit, [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable zero_;
  int count_;
};

TEST(KeptThreads, TasksThatBlockTogetherAllRun) {
  // Each task waits until all have started: a task queued behind a blocked
  // one would never start, and the count would never reach zero.
  constexpr int kTasks = 24;
  Countdown started(kTasks);
  Countdown finished(kTasks);
  for (int i = 0; i < kTasks; ++i) {
    ASSERT_TRUE(RunOnKeptThread([&] {
      started.Arrive();
      started.WaitForZero(std::chrono::seconds(30));
      finished.Arrive();
    }));
  }
  EXPECT_TRUE(finished.WaitForZero(std::chrono::seconds(30)));
}

TEST(KeptThreads, TasksOneAfterAnotherReuseThreads) {
  std::mutex mutex;
  std::set<std::thread::id> seen;
  for (int i = 0; i < 50; ++i) {
    Countdown done(1);
    ASSERT_TRUE(RunOnKeptThread([&] {
      {
        std::lock_guard<std::mutex> lock(mutex);
        seen.insert(std::this_thread::get_id());
      }
      done.Arrive();
    }));
    ASSERT_TRUE(done.WaitForZero(std::chrono::seconds(30)));
  }
  // A thread that has finished its task and waits takes the next one; only a
  // task given before that moment needs another thread.
  EXPECT_LT(seen.size(), 25u);
  EXPECT_LE(KeptThreadCount(), kMaxIdle);
}

TEST(KeptThreads, TaskCapturesAreReleasedAfterTheTask) {
  auto token = std::make_shared<int>(7);
  std::weak_ptr<int> watch = token;
  Countdown done(1);
  ASSERT_TRUE(RunOnKeptThread([token = std::move(token), &done] {
    EXPECT_EQ(*token, 7);
    done.Arrive();
  }));
  ASSERT_TRUE(done.WaitForZero(std::chrono::seconds(30)));
  for (int spin = 0; spin < 100000 && !watch.expired(); ++spin) std::this_thread::yield();
  EXPECT_TRUE(watch.expired());
}

#ifdef __linux__
// Background work does not interrupt the thread that handed it over when
// its reply wakes it; the caller's own thread keeps its policy.
TEST(KeptThreads, TasksRunAsBatchWorkLeavingTheCallerAsItWas) {
  Countdown done(1);
  std::atomic<int> policy{-1};
  ASSERT_TRUE(RunOnKeptThread([&] {
    policy = ::sched_getscheduler(0);
    done.Arrive();
  }));
  ASSERT_TRUE(done.WaitForZero(std::chrono::seconds(30)));
  EXPECT_EQ(policy.load(), SCHED_BATCH);
  EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER);
}
#endif

}  // namespace
}  // namespace zelvarpack
