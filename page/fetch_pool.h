// FetchPool runs the downloads of one page: at most kMaxRunning at once (the
// rest wait in a queue), each on a kept thread of its own (core/kept_threads.h)
// through CZelvarUtils::DownloadUrl. The page's thread starts only the first
// thread; each thread starts the next while jobs wait. The page's thread
// waits for them without polling: the last download to finish wakes it.
//
// Ownership: the pool's shared state and every job are held by shared
// pointers, so a download that outlives the page (its owner stopped
// waiting) only ever writes into memory it co-owns. Once Abandon has been
// called, jobs still queued are dropped and jobs still running can no
// longer become done.
//
// Thread safety: the public operations are called from the owning page's
// thread; the download threads touch only the shared state and their job.
#ifndef ZELVARPACK_PAGE_FETCH_POOL_H_
#define ZELVARPACK_PAGE_FETCH_POOL_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::page {

// The values every download of a page sends; copied, so that a download
// thread never reads the page's own strings.
struct FetchSettings {
  std::string cacheDirectory;
  std::optional<std::string> acceptCharset;
  std::optional<std::string> acceptLanguage;
  std::optional<std::string> referer;
  std::optional<std::string> forwardedFor;
  std::optional<std::string> reservedA;
  std::optional<std::string> reservedB;
  std::optional<std::string> userAgent;
  std::int32_t timeoutSeconds = 0;  // each download's own limit
  std::int32_t waitSeconds = 0;     // how long the page waits for them
};

// One download. The fields below `fetchUrl` are written by the download
// thread before it marks the job finished, and read by the page only once
// the job is done.
struct FetchJob {
  std::string publicUrl;  // the address the page's own resolution gives
  std::string fetchUrl;   // the address really fetched
  std::unique_ptr<CZelvarBuffer> body;
  std::int32_t bytesSent = 0;
  std::int32_t bytesReceived = 0;
  std::int32_t bytesUncompressed = 0;
  bool cacheable = false;

  // Guarded by the pool's mutex.
  bool finished = false;  // the download has ended
  bool done = false;      // it ended before the page stopped waiting
};

class FetchPool {
 public:
  static constexpr int kMaxRunning = 16;

  explicit FetchPool(FetchSettings settings);
  // Abandons what is left and waits for running downloads at most once more
  // for the time-out (unless Join already did).
  ~FetchPool();
  FetchPool(const FetchPool&) = delete;
  FetchPool& operator=(const FetchPool&) = delete;

  // Queues a download and starts a thread for it when fewer than
  // kMaxRunning are running and no thread is already starting (that one
  // starts the next).
  std::shared_ptr<FetchJob> Start(std::string publicUrl, std::string fetchUrl);

  // Waits until every job started so far has finished, or until `deadline`.
  void WaitUntilFinished(std::chrono::steady_clock::time_point deadline);

  // From now on no job becomes done; queued jobs are dropped unstarted.
  // After this call a job's `done` never changes again and, when true, its
  // results may be read without the lock.
  void Abandon();

  // Waits until no download thread is running or `deadline` passes (once:
  // the destructor does not wait again after a Join).
  void Join(std::chrono::steady_clock::time_point deadline);

  bool IsDone(const FetchJob& job) const;

 private:
  struct Shared;
  // True, with the thread counted as running, when a thread may be started
  // for the queued jobs. REQUIRES: shared.mutex held.
  static bool TakeThreadTurn(Shared& shared);
  static void StartThread(const std::shared_ptr<Shared>& shared);
  static void RunDownloads(std::shared_ptr<Shared> shared);

  std::shared_ptr<Shared> shared_;
  bool joined_ = false;
};

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_FETCH_POOL_H_
