// Download benchmark on a loopback nginx: 200 small resources fetched one
// after another by DownloadUrl (no cache; cold cache; warm cache answered by
// 304) and by plain libcurl GETs with a fresh connection each, the baseline.
// Modes take turns within each round; the best round of each is reported.
//
// Usage: net_bench ADDRESS COUNT ROUNDS   (resources at http://ADDRESS/r/N.css)
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zelvarpack/zelvar_utils.h"

namespace {

using Clock = std::chrono::steady_clock;

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// The baseline: what any program would do for one GET on a new connection.
std::size_t PlainGet(const std::string& url) {
  CURL* easy = curl_easy_init();
  std::string body;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  return body.size();
}

std::size_t Download(const std::string& url, const std::string& cache) {
  std::string urlCopy = url;
  std::string cacheCopy = cache;
  auto* bytes = reinterpret_cast<unsigned char*>(urlCopy.data());
  std::int32_t sent, received, uncompressed;
  bool cacheable;
  CZelvarUtils utils;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      cache.empty() ? nullptr : cacheCopy.data(), nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, "bench", bytes, bytes, sent, received, uncompressed, cacheable, 10));
  return static_cast<std::size_t>(body->GetValueLength());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: net_bench ADDRESS COUNT ROUNDS\n");
    return 2;
  }
  const std::string address = argv[1];
  const int count = std::atoi(argv[2]);
  const int rounds = std::atoi(argv[3]);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::vector<std::string> urls;
  for (int i = 0; i < count; ++i)
    urls.push_back("http://" + address + "/r/" + std::to_string(i) + ".css");

  const auto scratch =
      std::filesystem::temp_directory_path() / ("net-bench-" + std::to_string(::getpid()));
  const std::string warm = (scratch / "warm").string();
  std::filesystem::create_directories(warm);
  for (const std::string& url : urls) Download(url, warm);  // fill the warm cache

  struct Mode {
    const char* name;
    std::function<std::size_t(const std::string&, int round)> fetch;
    double best = 1e9;
  };
  std::vector<Mode> modes = {
      {"plain libcurl, fresh connection", [](const std::string& u, int) { return PlainGet(u); }},
      {"DownloadUrl, no cache", [](const std::string& u, int) { return Download(u, ""); }},
      {"DownloadUrl, cold cache",
       [&](const std::string& u, int r) {
         return Download(u, (scratch / ("cold" + std::to_string(r))).string());
       }},
      {"DownloadUrl, warm cache (304)",
       [&](const std::string& u, int) { return Download(u, warm); }},
  };
  for (int round = 0; round < rounds; ++round) {
    std::filesystem::create_directories(scratch / ("cold" + std::to_string(round)));
    for (Mode& mode : modes) {
      std::size_t bytes = 0;
      const auto start = Clock::now();
      for (const std::string& url : urls) bytes += mode.fetch(url, round);
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (bytes == 0) {
        std::fprintf(stderr, "%s fetched nothing\n", mode.name);
        return 1;
      }
      mode.best = std::min(mode.best, seconds);
    }
  }
  std::filesystem::remove_all(scratch);

  std::printf("%d resources, best of %d rounds\n", count, rounds);
  for (const Mode& mode : modes) {
    std::printf("  %-34s %8.0f requests/s  (%.1f ms per round)\n", mode.name, count / mode.best,
                mode.best * 1000);
  }
  std::printf("DownloadUrl no cache / plain libcurl time: %.2f (goal <= 1.2)\n",
              modes[1].best / modes[0].best);
  std::printf("warm cache / cold cache time:              %.2f (goal <= 1.0)\n",
              modes[3].best / modes[2].best);
  curl_global_cleanup();
  return 0;
}
