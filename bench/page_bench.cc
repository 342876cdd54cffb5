// The page optimiser's cost, side by side in one run (bench/run-page-bench.sh
// starts the loopback nginx and writes the site):
//   1. Added latency: fetching a 40 KB page with about 20 resources plain,
//      against fetching it and optimising it (DoWork and the gzip copy),
//      cold (fresh cache each time) and warm (same cache); percentiles of
//      the difference.
//   2. A 1 MB page with its resources warm through DoWork, against
//      tokenizing the same bytes alone through the constructor.
//
// Usage: page_bench ADDRESS ROUNDS
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "html/html_constructor.h"
#include "zelvarpack/zelvar_html_server.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

using Clock = std::chrono::steady_clock;

double Milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

std::string Fetch(const std::string& url) {
  CZelvarUtils utils;
  std::string copy = url;
  std::int32_t a = 0, b = 0, c = 0;
  bool cacheable = false;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "bench",
      reinterpret_cast<unsigned char*>(copy.data()), reinterpret_cast<unsigned char*>(copy.data()),
      a, b, c, cacheable, 10));
  return std::string(reinterpret_cast<const char*>(body->GetValue()),
                     static_cast<std::size_t>(body->GetValueLength()));
}

std::int32_t Optimise(std::string page, std::string url, std::string cache) {
  CZelvarHtmlServer server(cache.data(), 1, false, false, true, 10, nullptr, nullptr, nullptr, 0,
                           nullptr, 0, reinterpret_cast<unsigned char*>(url.data()),
                           static_cast<std::int32_t>(url.size()), nullptr, nullptr, nullptr,
                           nullptr, "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0");
  server.AddWork(reinterpret_cast<unsigned char*>(page.data()),
                 static_cast<std::int32_t>(page.size()));
  server.DoWork();
  bool gzip = true;
  return server.GetRawZelvarBuffer(gzip)->GetValueLength();
}

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const std::size_t at = std::min(values.size() - 1,
                                  static_cast<std::size_t>(p / 100.0 * (values.size() - 1) + 0.5));
  return values[at];
}

void Report(const char* name, const std::vector<double>& values) {
  std::printf("%-34s p50 %7.2f ms  p90 %7.2f ms  p99 %7.2f ms  (n=%zu)\n", name,
              Percentile(values, 50), Percentile(values, 90), Percentile(values, 99),
              values.size());
}

class NullConsumer : public CHtmlConstructorEvents {};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: page_bench ADDRESS ROUNDS\n");
    return 2;
  }
  const std::string address = argv[1];
  const int rounds = std::atoi(argv[2]);
  const std::string url = "http://" + address + "/page40k.html";
  const std::filesystem::path base = std::filesystem::temp_directory_path() /
                                     ("page_bench." + std::to_string(::getpid()));
  std::filesystem::create_directories(base);

  // 1. Added latency.
  std::vector<double> plain, cold, warm, coldAdded, warmAdded;
  const std::string warmCache = (base / "warm").string();
  std::filesystem::create_directories(warmCache);
  Optimise(Fetch(url), url, warmCache);  // fills the warm cache
  for (int i = 0; i < rounds; ++i) {
    const auto t0 = Clock::now();
    const std::string page = Fetch(url);
    const auto t1 = Clock::now();
    const std::string coldCache = (base / ("cold" + std::to_string(i))).string();
    std::filesystem::create_directories(coldCache);
    Optimise(Fetch(url), url, coldCache);
    const auto t2 = Clock::now();
    Optimise(Fetch(url), url, warmCache);
    const auto t3 = Clock::now();
    plain.push_back(Milliseconds(t1 - t0));
    cold.push_back(Milliseconds(t2 - t1));
    warm.push_back(Milliseconds(t3 - t2));
    coldAdded.push_back(cold.back() - plain.back());
    warmAdded.push_back(warm.back() - plain.back());
    std::filesystem::remove_all(coldCache);
  }
  std::printf("40 KB page, %s\n", url.c_str());
  Report("plain fetch", plain);
  Report("fetch + optimise, cold cache", cold);
  Report("fetch + optimise, warm cache", warm);
  Report("added latency, cold", coldAdded);
  Report("added latency, warm", warmAdded);

  // 2. A 1 MB page: DoWork warm against tokenizing alone.
  const std::string bigUrl = "http://" + address + "/page1m.html";
  const std::string bigPage = Fetch(bigUrl);
  Optimise(bigPage, bigUrl, warmCache);
  double bestTokenize = 1e9, bestDoWork = 1e9;
  for (int i = 0; i < std::max(5, rounds / 10); ++i) {
    std::string copy = bigPage;
    NullConsumer consumer;
    CHtmlConstructor constructor(&consumer);
    const auto t0 = Clock::now();
    constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(copy.data()),
                                      static_cast<int>(copy.size()));
    const auto t1 = Clock::now();
    Optimise(bigPage, bigUrl, warmCache);
    const auto t2 = Clock::now();
    bestTokenize = std::min(bestTokenize, Milliseconds(t1 - t0));
    bestDoWork = std::min(bestDoWork, Milliseconds(t2 - t1));
  }
  std::printf("1 MB page (%zu bytes): tokenize alone %.2f ms, DoWork warm %.2f ms, ratio %.2f\n",
              bigPage.size(), bestTokenize, bestDoWork, bestDoWork / bestTokenize);
  std::filesystem::remove_all(base);
  return 0;
}
