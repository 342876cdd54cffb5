// css_bench: throughput and scaling of the stylesheet minifier.
//
//   css_bench OUT FILE...      minifies each FILE as one sheet, over and over
//                              for at least two seconds, and prints
//                              {"mbps": ..., "bytes": ...}; OUT receives the
//                              outputs of one pass, concatenated.
//   css_bench --scaling FILE...  times one sheet of 1 MB and one of 20 MB made
//                              by repeating the FILEs, best of several runs,
//                              in CPU time.
#include <algorithm>
#include <chrono>
#include <cstdio>
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

double BestOf(int runs, const std::string& css) {
  double best = 1e30;
  for (int i = 0; i < runs; ++i) {
    const double start = ThreadSeconds();
    const std::size_t length = Minify("big.css", css);
    best = std::min(best, ThreadSeconds() - start);
    if (length == 0) std::abort();
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: css_bench OUT FILE... | css_bench --scaling FILE...\n");
    return 2;
  }
  std::vector<std::string> names, sheets;
  std::size_t total = 0;
  for (int i = 2; i < argc; ++i) {
    names.push_back(argv[i]);
    sheets.push_back(ReadFile(argv[i]));
    total += sheets.back().size();
  }
  if (std::strcmp(argv[1], "--scaling") == 0) {
    std::string all;
    for (const auto& sheet : sheets) all += sheet + "\n";
    std::string small, large;
    while (small.size() < (1u << 20)) small += all;
    small.resize(1u << 20);
    while (large.size() < (20u << 20)) large += all;
    large.resize(20u << 20);
    const double t1 = BestOf(9, small);
    const double t20 = BestOf(5, large);
    std::printf("{\"seconds1MB\": %.6f, \"seconds20MB\": %.6f, \"ratio\": %.2f}\n", t1, t20,
                t20 / t1);
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
