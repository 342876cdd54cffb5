// Threads that outlive their task and take the next one. Starting a thread
// for every short task (a download revalidated with one small request) costs
// more than the task: the new stack is mapped and faulted in, and given back
// at the thread's end with a flush of every core's address cache. Kept
// threads pay that once.
//
// A task given while a kept thread is idle runs on that thread; otherwise a
// new thread starts for it, so a task never waits behind another (a download
// may block for its whole time-out). A thread idle for kIdleLifetime ends,
// and at most kMaxIdle wait at once. Thread-safe.
#ifndef ZELVARPACK_CORE_KEPT_THREADS_H_
#define ZELVARPACK_CORE_KEPT_THREADS_H_

#include <chrono>
#include <functional>

namespace zelvarpack {

inline constexpr auto kIdleLifetime = std::chrono::seconds(30);
inline constexpr int kMaxIdle = 64;

// Runs `task` on a kept thread. Returns false, with nothing started, when no
// thread can be had (out of threads or memory).
bool RunOnKeptThread(std::function<void()> task);

// How many kept threads exist now (running a task or idle); for tests.
int KeptThreadCount();

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_KEPT_THREADS_H_
