// The page optimiser's cost, side by side in one run (bench/run-page-bench.sh
// starts the loopback nginx and writes the site):
//   1. Added latency: fetching a 40 KB page with about 20 resources plain,
//      against fetching it and optimising it (DoWork and the gzip copy),
//      cold (fresh cache each time) and warm (same cache); percentiles of
//      the difference.
//   2. A 1 MB page with its resources warm through DoWork, against
//      tokenizing the same bytes alone through the constructor.
//   3. ("revalidate" as the mode) The processor time of one conditional
//      revalidation of a warm resource: the page's resources revalidated one
//      after the other ROUNDS times on one thread, the client's time from
//      getrusage and, given the origin's process id, the origin's from
//      /proc/PID/stat, per revalidation. PAGE_BENCH_THREADS=N shares the
//      rounds among N threads at once (as a page's downloads run).
//
//   With "big" (the 1 MB part alone), an ORIGIN_PID adds the processor time
//   per DoWork: the whole process's (the page's thread and the download
//   threads), the page thread's and the origin's.
//
// Usage: page_bench ADDRESS ROUNDS [big [ORIGIN_PID] | revalidate [ORIGIN_PID]]
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
  std::unique_ptr<CZelvarBuffer> body(
      utils.DownloadUrl(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "bench",
                        reinterpret_cast<unsigned char*>(copy.data()),
                        reinterpret_cast<unsigned char*>(copy.data()), a, b, c, cacheable, 10));
  return std::string(reinterpret_cast<const char*>(body->GetValue()),
                     static_cast<std::size_t>(body->GetValueLength()));
}

// DoWork alone: a host that gzips the page pays for that as for any page.
std::int32_t Optimise(std::string page, std::string url, std::string cache) {
  CZelvarHtmlServer server(cache.data(), 1, false, false, true, 10, nullptr, nullptr, nullptr, 0,
                           nullptr, 0, reinterpret_cast<unsigned char*>(url.data()),
                           static_cast<std::int32_t>(url.size()), nullptr, nullptr, nullptr,
                           nullptr, "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0");
  server.AddWork(reinterpret_cast<unsigned char*>(page.data()),
                 static_cast<std::int32_t>(page.size()));
  server.DoWork();
  bool gzip = false;
  return server.GetRawZelvarBuffer(gzip)->GetValueLength();
}

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const std::size_t at =
      std::min(values.size() - 1, static_cast<std::size_t>(p / 100.0 * (values.size() - 1) + 0.5));
  return values[at];
}

void Report(const char* name, const std::vector<double>& values) {
  std::printf("%-34s p50 %7.2f ms  p90 %7.2f ms  p99 %7.2f ms  (n=%zu)\n", name,
              Percentile(values, 50), Percentile(values, 90), Percentile(values, 99),
              values.size());
}

class NullConsumer : public CHtmlConstructorEvents {};

double Microseconds(const timeval& t) { return t.tv_sec * 1e6 + static_cast<double>(t.tv_usec); }

// This process's (or this thread's) user and system time in microseconds.
std::pair<double, double> OwnTime(int who = RUSAGE_SELF) {
  rusage usage{};
  ::getrusage(who, &usage);
  return {Microseconds(usage.ru_utime), Microseconds(usage.ru_stime)};
}

// Another process's user and system time in microseconds (0 when unknown).
std::pair<double, double> ProcessTime(long pid) {
  if (pid <= 0) return {0, 0};
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos) return {0, 0};
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  double utime = 0, stime = 0;
  for (int i = 3; fields >> field; ++i) {
    if (i == 14) utime = std::atof(field.c_str());
    if (i == 15) {
      stime = std::atof(field.c_str());
      break;
    }
  }
  const double tick = 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
  return {utime * tick, stime * tick};
}

// The addresses of the page's linked resources (href= and src= before its
// body's first division).
std::vector<std::string> Resources(const std::string& page, const std::string& base) {
  std::vector<std::string> found;
  const std::size_t end = page.find("<div");
  for (const char* attribute : {"href=\"", "src=\""}) {
    for (std::size_t at = page.find(attribute); at < end; at = page.find(attribute, at + 1)) {
      const std::size_t from = at + std::strlen(attribute);
      found.push_back(base + page.substr(from, page.find('"', from) - from));
    }
  }
  return found;
}

// The processor time of one warm revalidation, client and origin.
void MeasureRevalidation(const std::string& address, int rounds, long originPid,
                         const std::string& cache) {
  const std::string pageUrl = "http://" + address + "/page40k.html";
  const std::vector<std::string> urls = Resources(Fetch(pageUrl), "http://" + address + "/");
  std::filesystem::create_directories(cache);
  std::string cacheCopy = cache;
  auto revalidate = [&](const std::string& url) {
    CZelvarUtils utils;
    std::string copy = url;
    std::string page = pageUrl;
    std::int32_t a = 0, b = 0, c = 0;
    bool cacheable = false;
    std::unique_ptr<CZelvarBuffer> body(
        utils.DownloadUrl(cacheCopy.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                          "bench", reinterpret_cast<unsigned char*>(page.data()),
                          reinterpret_cast<unsigned char*>(copy.data()), a, b, c, cacheable, 10));
    return body->GetValueLength();
  };
  for (const std::string& url : urls) revalidate(url);  // fills the cache
  const auto client0 = OwnTime();
  const auto origin0 = ProcessTime(originPid);
  const auto t0 = Clock::now();
  std::atomic<long> bytes{0};
  const char* threadsText = std::getenv("PAGE_BENCH_THREADS");
  const int threads = threadsText != nullptr ? std::max(1, std::atoi(threadsText)) : 1;
  auto share = [&](int first) {
    for (int i = first; i < rounds; i += threads) {
      for (const std::string& url : urls) bytes += revalidate(url);
    }
  };
  std::vector<std::thread> others;
  for (int t = 1; t < threads; ++t) others.emplace_back(share, t);
  share(0);
  for (std::thread& other : others) other.join();
  const auto t1 = Clock::now();
  const auto client1 = OwnTime();
  const auto origin1 = ProcessTime(originPid);
  const double n = static_cast<double>(rounds) * static_cast<double>(urls.size());
  std::printf(
      "%zu resources x %d rounds on %d threads (%ld bytes): per revalidation wall %.1f us\n",
      urls.size(), rounds, threads, bytes.load(), Milliseconds(t1 - t0) * 1000 / n);
  std::printf("  client C: user %.1f + sys %.1f = %.1f us\n", (client1.first - client0.first) / n,
              (client1.second - client0.second) / n,
              (client1.first + client1.second - client0.first - client0.second) / n);
  if (originPid > 0) {
    std::printf("  origin S: user %.1f + sys %.1f = %.1f us\n", (origin1.first - origin0.first) / n,
                (origin1.second - origin0.second) / n,
                (origin1.first + origin1.second - origin0.first - origin0.second) / n);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: page_bench ADDRESS ROUNDS\n");
    return 2;
  }
  const std::string address = argv[1];
  const int rounds = std::atoi(argv[2]);
  const std::string url = "http://" + address + "/page40k.html";
  const std::filesystem::path base =
      std::filesystem::temp_directory_path() / ("page_bench." + std::to_string(::getpid()));
  std::filesystem::create_directories(base);

  if (argc > 3 && std::string(argv[3]) == "revalidate") {
    MeasureRevalidation(address, rounds, argc > 4 ? std::atol(argv[4]) : 0,
                        (base / "revalidate").string());
    std::filesystem::remove_all(base);
    return 0;
  }

  // 1. Added latency ("big" as a third argument skips it).
  const bool bigOnly = argc > 3 && std::string(argv[3]) == "big";
  std::vector<double> plain, cold, warm, coldAdded, warmAdded;
  const std::string warmCache = (base / "warm").string();
  std::filesystem::create_directories(warmCache);
  Optimise(Fetch(url), url, warmCache);  // fills the warm cache
  for (int i = 0; i < (bigOnly ? 0 : rounds); ++i) {
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
  if (!bigOnly) {
    std::printf("40 KB page, %s\n", url.c_str());
    Report("plain fetch", plain);
    Report("fetch + optimise, cold cache", cold);
    Report("fetch + optimise, warm cache", warm);
    Report("added latency, cold", coldAdded);
    Report("added latency, warm", warmAdded);
  }

  // 2. A 1 MB page: DoWork warm against tokenizing alone.
  const std::string bigUrl = "http://" + address + "/page1m.html";
  const std::string bigPage = Fetch(bigUrl);
  Optimise(bigPage, bigUrl, warmCache);
  double bestTokenize = 1e9, bestDoWork = 1e9;
  std::vector<double> doWorkTimes;
  const long originPid = bigOnly && argc > 4 ? std::atol(argv[4]) : 0;
  // Summed over the rounds: the whole process, the page's thread, the origin.
  double processTime = 0, threadUser = 0, threadSystem = 0, originTime = 0;
  long involuntary = 0;
  auto sum = [](std::pair<double, double> t) { return t.first + t.second; };
  const int bigRounds = std::max(5, rounds / 10);
  for (int i = 0; i < bigRounds; ++i) {
    std::string copy = bigPage;
    NullConsumer consumer;
    CHtmlConstructor constructor(&consumer);
    const auto t0 = Clock::now();
    constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(copy.data()),
                                      static_cast<int>(copy.size()));
    const auto t1 = Clock::now();
    std::string page = bigPage;
    std::string url = bigUrl;
    std::string cache = warmCache;
    CZelvarHtmlServer server(cache.data(), 1, false, false, true, 10, nullptr, nullptr, nullptr, 0,
                             nullptr, 0, reinterpret_cast<unsigned char*>(url.data()),
                             static_cast<std::int32_t>(url.size()), nullptr, nullptr, nullptr,
                             nullptr, "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0");
    server.AddWork(reinterpret_cast<unsigned char*>(page.data()),
                   static_cast<std::int32_t>(page.size()));
    const double process0 = sum(OwnTime()), origin0 = sum(ProcessTime(originPid));
    rusage thread0{};
    ::getrusage(RUSAGE_THREAD, &thread0);
    const auto t1b = Clock::now();
    server.DoWork();
    const auto t2 = Clock::now();
    rusage thread1{};
    ::getrusage(RUSAGE_THREAD, &thread1);
    processTime += sum(OwnTime()) - process0;
    originTime += sum(ProcessTime(originPid)) - origin0;
    threadUser += Microseconds(thread1.ru_utime) - Microseconds(thread0.ru_utime);
    threadSystem += Microseconds(thread1.ru_stime) - Microseconds(thread0.ru_stime);
    involuntary += thread1.ru_nivcsw - thread0.ru_nivcsw;
    doWorkTimes.push_back(Milliseconds(t2 - t1b));
    bestTokenize = std::min(bestTokenize, Milliseconds(t1 - t0));
    bestDoWork = std::min(bestDoWork, Milliseconds(t2 - t1b));
  }
  std::printf(
      "1 MB page (%zu bytes): tokenize alone %.2f ms, DoWork warm %.2f ms, ratio %.2f"
      " (DoWork median %.2f ms)\n",
      bigPage.size(), bestTokenize, bestDoWork, bestDoWork / bestTokenize,
      Percentile(doWorkTimes, 50));
  if (originPid > 0) {
    const double n = bigRounds * 1000.0;
    std::printf(
        "  processor time per DoWork: process %.2f ms; page thread %.2f ms (user %.2f, "
        "system %.2f, %.1f involuntary switches); origin %.2f ms\n",
        processTime / n, (threadUser + threadSystem) / n, threadUser / n, threadSystem / n,
        static_cast<double>(involuntary) / bigRounds, originTime / n);
    // All of that work shares the machine's processors: DoWork cannot end
    // sooner than it takes them together.
    const double processors = static_cast<double>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
    const double bound = (processTime + originTime) / n / processors;
    std::printf(
        "  bound on %.0f processors: (process + origin) / %.0f = %.2f ms = %.2f x tokenize\n",
        processors, processors, bound, bound / bestTokenize);
  }
  std::filesystem::remove_all(base);
  return 0;
}
