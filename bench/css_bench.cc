// css_bench: throughput and scaling of the stylesheet minifier.
//
//   css_bench OUT FILE...      minifies each FILE as one sheet, over and over
//                              for at least two seconds, and prints
//                              {"mbps": ..., "bytes": ...}; OUT receives the
//                              outputs of one pass, concatenated.
//   css_bench --scaling FILE...  times one sheet of 1 MB and one of 20 MB made
//                              by repeating the FILEs, best of several runs,
//                              in CPU time (and the page faults of the
//                              fastest runs).
//   css_bench --once MB FILE...  minifies one sheet of MB megabytes made the
//                              same way, once: for perf stat and callgrind.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "zelvarpack/zelvar_css_server.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// One sheet through a fresh server, as a page would use it; returns the
// output's length and, when asked, its bytes. Relative names: url references
// stay as written, like the other minifiers leave them.
std::size_t Minify(const std::string& name, const std::string& css, std::string* bytes = nullptr) {
  char cache[] = "";
  CZelvarCssServer server(cache);
  std::string copy = name;
  server.AddWork(copy.data(), reinterpret_cast<unsigned char*>(const_cast<char*>(css.data())),
                 static_cast<std::int32_t>(css.size()));
  server.DoWork();
  CZelvarBuffer* output = server.GetOutput();
  const auto length = static_cast<std::size_t>(output->GetValueLength());
  if (bytes != nullptr) bytes->append(reinterpret_cast<const char*>(output->GetValue()), length);
  return length;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// CPU time of this thread: on a shared machine a long run is preempted far
// more often than a short one, which wall time would charge to its size.
double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Page faults taken by this thread so far.
long Faults() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_minflt + usage.ru_majflt;
}

struct Best {
  double seconds = 1e30;
  long faults = 0;  // of the fastest run
};

// Improves `best` with `runs` more runs.
void BestOf(int runs, const std::string& css, Best& best) {
  for (int i = 0; i < runs; ++i) {
    const long faults = Faults();
    const double start = ThreadSeconds();
    const std::size_t length = Minify("big.css", css);
    const double seconds = ThreadSeconds() - start;
    if (seconds < best.seconds) best = {seconds, Faults() - faults};
    if (length == 0) std::abort();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr,
                 "usage: css_bench OUT FILE... | css_bench --scaling FILE... | "
                 "css_bench --once MB FILE...\n");
    return 2;
  }
  const bool once = std::strcmp(argv[1], "--once") == 0;
  if (once && argc < 4) return 2;
  std::vector<std::string> names, sheets;
  std::size_t total = 0;
  for (int i = once ? 3 : 2; i < argc; ++i) {
    names.push_back(argv[i]);
    sheets.push_back(ReadFile(argv[i]));
    total += sheets.back().size();
  }
  std::string all;
  for (const auto& sheet : sheets) all += sheet + "\n";
  const auto repeated = [&all](std::size_t size) {
    std::string sheet;
    while (sheet.size() < size) sheet += all;
    sheet.resize(size);
    return sheet;
  };
  if (once) {
    const std::size_t length =
        Minify("big.css", repeated(std::strtoul(argv[2], nullptr, 10) << 20));
    std::printf("{\"bytes\": %zu}\n", length);
    return 0;
  }
  if (std::strcmp(argv[1], "--scaling") == 0) {
    const std::string small = repeated(1u << 20);
    const std::string large = repeated(20u << 20);
    // Rounds that take turns between the sizes, so that a spell of load
    // on a shared machine cannot fall on one size only; the best run of each
    // size over all rounds counts.
    Best t1, t20;
    for (int round = 0; round < 8; ++round) {
      BestOf(5, small, t1);
      BestOf(1, large, t20);
    }
    std::printf(
        "{\"seconds1MB\": %.6f, \"seconds20MB\": %.6f, \"ratio\": %.2f, \"faults1MB\": %ld, "
        "\"faults20MB\": %ld}\n",
        t1.seconds, t20.seconds, t20.seconds / t1.seconds, t1.faults, t20.faults);
    return 0;
  }
  std::string combined;
  for (std::size_t i = 0; i < sheets.size(); ++i) Minify(names[i], sheets[i], &combined);
  std::ofstream(argv[1], std::ios::binary) << combined;

  std::size_t passes = 0;
  const auto start = Clock::now();
  while (Seconds(Clock::now() - start) < 2.0) {
    for (std::size_t i = 0; i < sheets.size(); ++i) {
      if (Minify(names[i], sheets[i]) == 0 && !sheets[i].empty()) std::abort();
    }
    ++passes;
  }
  const double seconds = Seconds(Clock::now() - start);
  std::printf("{\"mbps\": %.2f, \"bytes\": %zu}\n", total * passes / seconds / 1e6,
              combined.size());
  return 0;
}
