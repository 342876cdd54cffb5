#include "net/http_client.h"

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <mutex>

#include "core/background_work.h"

namespace zelvarpack::net {

namespace {

using Clock = std::chrono::steady_clock;

std::string& TrustedCertificates() {
  static std::string file;
  return file;
}

void GlobalInitOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) std::abort();
  });
}

bool IsRedirect(int status) { return status >= 300 && status < 400 && status != 304; }

// What one transfer gathers through libcurl's callbacks.
struct Transfer {
  HttpResponse* response = nullptr;
  std::size_t maxBodyBytes = 0;
  Clock::duration timeout{};  // zero: no limit
  Clock::time_point lastActivity = Clock::now();
  curl_off_t lastDownloaded = 0;
  curl_off_t lastUploaded = 0;
  int blockStatus = 0;         // status of the header block being read
  bool blockComplete = false;  // its blank line has arrived
  bool bodyStarted = false;
  bool bodyTooLong = false;
};

int StatusOf(std::string_view statusLine) {
  // "HTTP/1.1 200 OK"
  const std::size_t space = statusLine.find(' ');
  if (space == std::string_view::npos) return 0;
  int status = 0;
  for (std::size_t i = space + 1; i < statusLine.size() && i < space + 4; ++i) {
    const char c = statusLine[i];
    if (c < '0' || c > '9') return 0;
    status = status * 10 + (c - '0');
  }
  return status;
}

std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  transfer->lastActivity = Clock::now();
  std::string_view line(data, size * count);
  const std::size_t whole = line.size();
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  auto& lines = transfer->response->headerLines;
  if (line.substr(0, 5) == "HTTP/") {
    // A new response: a redirect's or a 1xx's block is replaced.
    lines.assign(1, std::string(line));
    transfer->blockStatus = StatusOf(line);
    transfer->blockComplete = false;
  } else if (line.empty()) {
    transfer->blockComplete = true;
  } else if (!transfer->blockComplete && !lines.empty()) {
    lines.emplace_back(line);  // once the block is complete, lines are trailers
  }
  return whole;
}

std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  transfer->lastActivity = Clock::now();
  transfer->bodyStarted = true;
  const std::size_t amount = size * count;
  CZelvarBuffer& body = *transfer->response->body;
  if (amount > transfer->maxBodyBytes - static_cast<std::size_t>(body.GetValueLength())) {
    transfer->bodyTooLong = true;
    return CURL_WRITEFUNC_ERROR;
  }
  body.Append(reinterpret_cast<const unsigned char*>(data), static_cast<std::int32_t>(amount));
  return amount;
}

// Called once the connection stands, just before the request goes out: the
// waits for the server start from here.
int OnConnected(void* user, char*, char*, int, int) {
  static_cast<Transfer*>(user)->lastActivity = Clock::now();
  return CURL_PREREQFUNC_OK;
}

// libcurl calls this often while bytes move and about once a second while
// nothing happens; it ends a transfer whose server went quiet for longer
// than the time-out.
int OnProgress(void* user, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto* transfer = static_cast<Transfer*>(user);
  const Clock::time_point now = Clock::now();
  if (downloaded != transfer->lastDownloaded || uploaded != transfer->lastUploaded) {
    transfer->lastDownloaded = downloaded;
    transfer->lastUploaded = uploaded;
    transfer->lastActivity = now;
  }
  if (transfer->timeout != Clock::duration::zero() &&
      now - transfer->lastActivity > transfer->timeout) {
    return 1;
  }
  // The program is ending: no transfer may outlive the libraries under it.
  return zelvarpack::BackgroundWorkStopping() ? 1 : 0;
}

struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// Name lookups shared by every transfer of the process: a name is resolved
// once per minute (libcurl's default lifetime of an entry) instead of once
// per transfer, each of which would otherwise start a resolver thread.
class SharedLookups {
 public:
  static CURLSH* Get() {
    static SharedLookups* shared = new SharedLookups;  // never destroyed: threads may outlive exit
    return shared->share_;
  }

 private:
  SharedLookups() : share_(curl_share_init()) {
    if (share_ == nullptr) return;
    const bool ok = curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, Lock) == CURLSHE_OK &&
                    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, Unlock) == CURLSHE_OK &&
                    curl_share_setopt(share_, CURLSHOPT_USERDATA, this) == CURLSHE_OK &&
                    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS) == CURLSHE_OK;
    if (!ok) {
      curl_share_cleanup(share_);
      share_ = nullptr;
    }
  }

  std::mutex& MutexFor(curl_lock_data data) {
    return mutexes_[static_cast<std::size_t>(data) % kMutexes];
  }
  static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<SharedLookups*>(user)->MutexFor(data).lock();
  }
  static void Unlock(CURL*, curl_lock_data data, void* user) {
    static_cast<SharedLookups*>(user)->MutexFor(data).unlock();
  }

  static constexpr std::size_t kMutexes = CURL_LOCK_DATA_LAST;
  std::mutex mutexes_[kMutexes];
  CURLSH* share_;
};

// One transfer handle per thread, reset to every option's default before
// each call: a handle made for each call cost its allocations and, on its
// first transfer, the internal poll set it builds (a socket pair and four
// fcntl calls), for every download. A reset handle keeps only its buffers
// and what a fresh handle would have rebuilt the same way: it holds no
// connection (each transfer closes its own) and no cookies (never enabled).
class ThreadHandle {
 public:
  ~ThreadHandle() {
    if (easy_ != nullptr) curl_easy_cleanup(easy_);
  }
  // The thread's handle with default options, or null when none can be had.
  CURL* Fresh() {
    if (easy_ == nullptr) {
      easy_ = curl_easy_init();
    } else {
      curl_easy_reset(easy_);
    }
    return easy_;
  }

 private:
  CURL* easy_ = nullptr;
};

}  // namespace

HttpResponse HttpGet(const HttpRequest& request) {
  GlobalInitOnce();
  HttpResponse response;
  response.body = std::make_unique<CZelvarBuffer>();
  thread_local ThreadHandle handle;
  CURL* h = handle.Fresh();
  if (h == nullptr) return response;

  std::unique_ptr<curl_slist, ListDeleter> headers;
  for (const std::string& line : request.headers) {
    // libcurl reads "Name:" with nothing after the colon as "remove this
    // header"; "Name;" is its spelling of a header with an empty value.
    std::string spelled = line;
    const std::size_t colon = spelled.find(':');
    if (colon != std::string::npos &&
        spelled.find_first_not_of(' ', colon + 1) == std::string::npos) {
      spelled.resize(colon);
      spelled += ';';
    }
    curl_slist* grown = curl_slist_append(headers.get(), spelled.c_str());
    if (grown == nullptr) return response;
    headers.release();
    headers.reset(grown);
  }

  Transfer transfer;
  transfer.response = &response;
  transfer.maxBodyBytes = request.maxBodyBytes;
  if (request.timeoutSeconds > 0) transfer.timeout = std::chrono::seconds(request.timeoutSeconds);

  const std::string url = std::string(request.secure ? "https://" : "http://") + request.host +
                          (request.secure ? ":443" : ":80") + request.path;
  bool ok = curl_easy_setopt(h, CURLOPT_URL, url.c_str()) == CURLE_OK;
  if (CURLSH* share = SharedLookups::Get()) {
    ok = ok && curl_easy_setopt(h, CURLOPT_SHARE, share) == CURLE_OK;
  }
  ok = ok && curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK;
  // Like the usual platform default, a secure request never continues in
  // the clear.
  ok = ok && curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR,
                              request.secure ? "https" : "http,https") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_MAXREDIRS, 10L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FRESH_CONNECT, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PROXY, "") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, OnHeader) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HEADERDATA, &transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, OnBody) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEDATA, &transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PREREQFUNCTION, OnConnected) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PREREQDATA, &transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, OnProgress) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_XFERINFODATA, &transfer) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE,
                              static_cast<curl_off_t>(request.maxBodyBytes)) == CURLE_OK;
  if (request.timeoutSeconds > 0) {
    ok = ok && curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                                static_cast<long>(request.timeoutSeconds) * 1000L) == CURLE_OK;
  }
  if (!TrustedCertificates().empty()) {
    ok = ok && curl_easy_setopt(h, CURLOPT_CAINFO, TrustedCertificates().c_str()) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_CAPATH, nullptr) == CURLE_OK;
  }
  if (!ok) return response;

  const CURLcode result = curl_easy_perform(h);
  const bool finalHeaders = transfer.blockComplete && !response.headerLines.empty() &&
                            transfer.blockStatus >= 200 &&
                            (!IsRedirect(transfer.blockStatus) ||
                             !FindHeader(response.headerLines, "Location").has_value());
  if (result == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    response.status = static_cast<int>(status);
    response.outcome = HttpResponse::Outcome::kComplete;
  } else if (finalHeaders || transfer.bodyStarted) {
    response.status = transfer.blockStatus;
    response.outcome = HttpResponse::Outcome::kBodyFailed;
    response.body = std::make_unique<CZelvarBuffer>();
  } else {
    response.headerLines.clear();
  }
  return response;
}

void SetTrustedCertificatesForTesting(const std::string& caFile) { TrustedCertificates() = caFile; }

}  // namespace zelvarpack::net
