// CssDownloads fetches the url entries of a stylesheet in filter mode: at
// most kMaxRunning downloads at once, the rest queued in order, each on a
// detached thread that shares ownership of this object and of its entry, so
// an entry the server stopped waiting for stays alive until its download
// ends. The server waits on a condition variable, not by polling.
//
// Thread safety: Start, WaitUntil and AbandonAll are called by the server's
// thread; the download threads write only their own entry's buffer and
// flags, and the counters below under mutex_.
#ifndef ZELVARPACK_CSS_CSS_DOWNLOADS_H_
#define ZELVARPACK_CSS_CSS_DOWNLOADS_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "css/css_server_state.h"

namespace zelvarpack::css {

class CssDownloads : public std::enable_shared_from_this<CssDownloads> {
 public:
  static constexpr int kMaxRunning = 16;

  // `referer` is sent with every request; `timeoutSeconds` (> 0) bounds
  // each download's connecting and every wait for its server.
  static std::shared_ptr<CssDownloads> Create(std::string referer, std::int32_t timeoutSeconds);

  // Queues the entry's download and starts it when fewer than kMaxRunning
  // run. REQUIRES: entry->kind == kUrl.
  void Start(std::shared_ptr<CssOutputEntry> entry);

  // Waits until every started entry is done or `deadline` passes; true when
  // all are done.
  bool WaitUntil(std::chrono::steady_clock::time_point deadline);

  // Marks every one of `entries` abandoned and drops the queued downloads: a
  // download that ends later leaves its result unused. Afterwards the `done`
  // flags no longer change.
  void AbandonAll(const std::vector<std::shared_ptr<CssOutputEntry>>& entries);

  // Tests: the download threads of all servers that have not ended yet.
  static int RunningThreads();

 private:
  CssDownloads(std::string referer, std::int32_t timeoutSeconds);
  void Run(std::shared_ptr<CssOutputEntry> entry);
  void Fetch(CssOutputEntry& entry) const;

  const std::string referer_;
  const std::int32_t timeoutSeconds_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::shared_ptr<CssOutputEntry>> queue_;  // guarded by mutex_
  int running_ = 0;                                    // guarded by mutex_
  int pending_ = 0;         // started and not yet ended; guarded by mutex_
  bool abandoned_ = false;  // guarded by mutex_
};

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_CSS_DOWNLOADS_H_
