#include "css/css_downloads.h"

#include <atomic>
#include <utility>

#include "core/background_work.h"
#include "core/kept_threads.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::css {

namespace {
std::atomic<int> threads{0};
}  // namespace

std::shared_ptr<CssDownloads> CssDownloads::Create(std::string referer,
                                                   std::int32_t timeoutSeconds) {
  return std::shared_ptr<CssDownloads>(new CssDownloads(std::move(referer), timeoutSeconds));
}

CssDownloads::CssDownloads(std::string referer, std::int32_t timeoutSeconds)
    : referer_(std::move(referer)), timeoutSeconds_(timeoutSeconds) {}

int CssDownloads::RunningThreads() { return threads.load(); }

void CssDownloads::Start(std::shared_ptr<CssOutputEntry> entry) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (abandoned_) return;
  ++pending_;
  if (running_ >= kMaxRunning) {
    queue_.push_back(std::move(entry));
    return;
  }
  ++running_;
  lock.unlock();
  threads.fetch_add(1);
  zelvarpack::BeginBackgroundWork();
  const bool started =
      zelvarpack::RunOnKeptThread([self = shared_from_this(), entry = std::move(entry)]() mutable {
        self->Run(std::move(entry));
        zelvarpack::EndBackgroundWork();
      });
  if (!started) {
    // No thread to be had: the entry is simply never downloaded.
    zelvarpack::EndBackgroundWork();
    threads.fetch_sub(1);
    lock.lock();
    --running_;
    --pending_;
    changed_.notify_all();
  }
}

void CssDownloads::Fetch(CssOutputEntry& entry) const {
  CZelvarUtils utils;
  std::string url = entry.address;
  std::int32_t sent = 0;
  std::int32_t received = 0;
  std::int32_t uncompressed = 0;
  bool cacheable = false;
  auto* bytes = reinterpret_cast<unsigned char*>(url.data());
  entry.downloaded.reset(utils.DownloadUrl(nullptr, nullptr, nullptr, referer_.c_str(), nullptr,
                                           nullptr, nullptr, nullptr, bytes, bytes, sent, received,
                                           uncompressed, cacheable, timeoutSeconds_));
}

void CssDownloads::Run(std::shared_ptr<CssOutputEntry> entry) {
  while (entry != nullptr) {
    Fetch(*entry);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!entry->abandoned.load()) entry->done.store(1);
    entry->finished.store(1);
    --pending_;
    entry.reset();
    if (!queue_.empty()) {
      entry = std::move(queue_.front());
      queue_.pop_front();
    } else {
      --running_;
    }
    changed_.notify_all();
  }
  threads.fetch_sub(1);
}

bool CssDownloads::WaitUntil(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_until(lock, deadline, [this] { return pending_ == 0; });
}

void CssDownloads::AbandonAll(const std::vector<std::shared_ptr<CssOutputEntry>>& entries) {
  std::lock_guard<std::mutex> lock(mutex_);
  abandoned_ = true;
  for (const auto& entry : entries) entry->abandoned.store(1);
  pending_ -= static_cast<int>(queue_.size());
  for (auto& entry : queue_) entry->finished.store(1);
  queue_.clear();
}

}  // namespace zelvarpack::css
