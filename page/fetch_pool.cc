#include "page/fetch_pool.h"

#include <new>
#include <utility>

#include "core/background_work.h"
#include "core/kept_threads.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::page {

struct FetchPool::Shared {
  explicit Shared(FetchSettings s) : settings(std::move(s)) {}

  const FetchSettings settings;
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by `mutex`.
  std::deque<std::shared_ptr<FetchJob>> queue;
  int running = 0;     // download threads alive
  int unfinished = 0;  // jobs started and not yet finished (queued or running)
  bool abandoned = false;
  // A thread has been asked for and has not yet taken its first job.
  bool threadStarting = false;
};

namespace {

const char* OrNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

void Download(const FetchSettings& settings, FetchJob& job) {
  try {
    CZelvarUtils utils;
    std::string cacheDirectory = settings.cacheDirectory;
    std::string publicUrl = job.publicUrl;
    std::string fetchUrl = job.fetchUrl;
    job.body.reset(utils.DownloadUrl(
        cacheDirectory.empty() ? nullptr : cacheDirectory.data(), OrNull(settings.acceptCharset),
        OrNull(settings.acceptLanguage), OrNull(settings.referer), OrNull(settings.forwardedFor),
        OrNull(settings.reservedA), OrNull(settings.reservedB), OrNull(settings.userAgent),
        reinterpret_cast<unsigned char*>(publicUrl.data()),
        reinterpret_cast<unsigned char*>(fetchUrl.data()), job.bytesSent, job.bytesReceived,
        job.bytesUncompressed, job.cacheable, settings.timeoutSeconds));
  } catch (const std::bad_alloc&) {
    job.body.reset();  // out of memory: this resource stays as it was
  }
}

}  // namespace

FetchPool::FetchPool(FetchSettings settings)
    : shared_(std::make_shared<Shared>(std::move(settings))) {}

FetchPool::~FetchPool() {
  Abandon();
  if (!joined_) {
    const std::int32_t seconds = shared_->settings.waitSeconds;
    Join(std::chrono::steady_clock::now() + std::chrono::seconds(seconds > 0 ? seconds : 0));
  }
}

std::shared_ptr<FetchJob> FetchPool::Start(std::string publicUrl, std::string fetchUrl) {
  auto job = std::make_shared<FetchJob>();
  job->publicUrl = std::move(publicUrl);
  job->fetchUrl = std::move(fetchUrl);
  bool needThread = false;
  {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (shared_->abandoned) {
      job->finished = true;
      return job;
    }
    shared_->queue.push_back(job);
    ++shared_->unfinished;
    needThread = TakeThreadTurn(*shared_);
  }
  if (needThread) StartThread(shared_);
  return job;
}

bool FetchPool::TakeThreadTurn(Shared& shared) {
  if (shared.threadStarting || shared.running >= kMaxRunning) return false;
  ++shared.running;
  shared.threadStarting = true;
  return true;
}

void FetchPool::StartThread(const std::shared_ptr<Shared>& shared) {
  BeginBackgroundWork();
  if (!RunOnKeptThread([shared] { RunDownloads(shared); })) {
    EndBackgroundWork();
    // No thread to be had: the queued jobs wait for a running thread, or,
    // when none runs, end unfetched so that nobody waits for them.
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->threadStarting = false;
    if (--shared->running == 0) {
      for (const std::shared_ptr<FetchJob>& job : shared->queue) job->finished = true;
      shared->unfinished -= static_cast<int>(shared->queue.size());
      shared->queue.clear();
      shared->changed.notify_all();
    }
  }
}

void FetchPool::RunDownloads(std::shared_ptr<Shared> shared) {
  std::unique_lock<std::mutex> lock(shared->mutex);
  // This thread has started: the next one may be asked for.
  shared->threadStarting = false;
  while (!shared->queue.empty() && !shared->abandoned) {
    std::shared_ptr<FetchJob> job = std::move(shared->queue.front());
    shared->queue.pop_front();
    // Threads are started one from another: the page's thread wakes only
    // the first, each thread the next while jobs are waiting, so that the
    // page's own work is not interrupted by a wake-up per download.
    const bool another = !shared->queue.empty() && TakeThreadTurn(*shared);
    lock.unlock();
    if (another) StartThread(shared);
    Download(shared->settings, *job);
    lock.lock();
    job->finished = true;
    job->done = !shared->abandoned;
    --shared->unfinished;
  }
  --shared->running;
  // The page waits only for "none unfinished" and for "none running": it is
  // woken when one of them has come true, once per page rather than once
  // per download, and after the unlock, so that it does not wake only to
  // block on the lock. `shared` keeps the condition variable alive.
  const bool wake = shared->unfinished == 0 || shared->running == 0;
  lock.unlock();
  if (wake) shared->changed.notify_all();
  EndBackgroundWork();
}

void FetchPool::WaitUntilFinished(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(shared_->mutex);
  shared_->changed.wait_until(lock, deadline, [this] { return shared_->unfinished == 0; });
}

void FetchPool::Abandon() {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  if (shared_->abandoned) return;
  shared_->abandoned = true;
  for (const std::shared_ptr<FetchJob>& job : shared_->queue) job->finished = true;
  shared_->unfinished -= static_cast<int>(shared_->queue.size());
  shared_->queue.clear();
  shared_->changed.notify_all();
}

void FetchPool::Join(std::chrono::steady_clock::time_point deadline) {
  joined_ = true;
  std::unique_lock<std::mutex> lock(shared_->mutex);
  shared_->changed.wait_until(lock, deadline, [this] { return shared_->running == 0; });
}

bool FetchPool::IsDone(const FetchJob& job) const {
  std::lock_guard<std::mutex> lock(shared_->mutex);
  return job.done;
}

}  // namespace zelvarpack::page
