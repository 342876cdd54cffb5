// Sprite sheets from a list of image files: the whole server path (add,
// decode on the pool, route, build the four sheets, write them to a fresh
// cache folder) repeated, timed by the wall clock. Prints images per second,
// each set's sheet bytes against its source bytes, and writes which set each
// file went to, so that a baseline can build the same sheets.
//
// usage: image_bench LIST ITERATIONS GROUPS_OUT
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "zelvarpack/zelvar_image_server.h"

namespace {

constexpr const char* kSetNames[] = {"gif", "jpg", "png24", "png32"};
constexpr const char* kFolders[] = {"gif", "jpg", "jpg", "png"};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Run {
  std::string ids[4];
  std::vector<std::int32_t> sets;
};

Run BuildAll(const std::vector<std::string>& images, const std::string& cache) {
  std::filesystem::create_directories(cache);
  CZelvarImageServer server(const_cast<char*>(cache.c_str()));
  Run run;
  for (const std::string& bytes : images) {
    server.AddImage(reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<std::int32_t>(bytes.size()), "", "", "", "", "", "");
  }
  for (std::size_t i = 0; i < images.size(); ++i) {
    run.sets.push_back(server.RouteImage(static_cast<std::int32_t>(i)));
  }
  for (int set = 0; set < 4; ++set) {
    run.ids[set] = server.BuildSheet(static_cast<CZelvarImageServer::SheetKind>(set));
  }
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: image_bench LIST ITERATIONS GROUPS_OUT\n");
    return 2;
  }
  std::vector<std::string> paths;
  std::vector<std::string> images;
  std::ifstream list(argv[1]);
  for (std::string line; std::getline(list, line);) {
    if (line.empty()) continue;
    paths.push_back(line);
    images.push_back(ReadFile(line));
  }
  const int iterations = std::atoi(argv[2]);
  const std::filesystem::path scratch =
      std::filesystem::temp_directory_path() / ("image_bench." + std::to_string(::getpid()));

  Run last = BuildAll(images, (scratch / "warm").string());
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < iterations; ++i) {
    last = BuildAll(images, (scratch / std::to_string(i)).string());
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  std::ofstream groups(argv[3]);
  std::size_t sourceBytes[4] = {0, 0, 0, 0};
  std::size_t counts[4] = {0, 0, 0, 0};
  std::size_t routed = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (last.sets[i] < 0) {
      std::printf("  left out: %s\n", paths[i].c_str());
      continue;
    }
    ++routed;
    groups << kSetNames[last.sets[i]] << '\t' << paths[i] << '\n';
    sourceBytes[last.sets[i]] += images[i].size();
    ++counts[last.sets[i]];
  }
  std::size_t totalSource = 0, totalSheet = 0;
  for (int set = 0; set < 4; ++set) {
    if (counts[set] == 0) continue;
    const std::string& id = last.ids[set];
    const std::size_t sheet =
        id.empty() ? 0 : ReadFile((scratch / "warm" / kFolders[set] / id).string()).size();
    if (id.empty()) {
      std::printf("  %-5s %3zu images, sources %7zu bytes, no sheet (not smaller than them)\n",
                  kSetNames[set], counts[set], sourceBytes[set]);
    } else {
      std::printf("  %-5s %3zu images, sources %7zu bytes, sheet %7zu bytes (%.0f%%)\n",
                  kSetNames[set], counts[set], sourceBytes[set], sheet,
                  100.0 * static_cast<double>(sheet) / static_cast<double>(sourceBytes[set]));
    }
    totalSource += sourceBytes[set];
    totalSheet += id.empty() ? sourceBytes[set] : sheet;
  }
  std::printf("  all   %3zu images, sources %7zu bytes, served %7zu bytes (%.0f%%)\n", routed,
              totalSource, totalSheet, 100.0 * totalSheet / totalSource);
  const double rate = static_cast<double>(images.size()) * iterations / seconds;
  std::printf("zelvarpack: %d x %zu images in %.3f s\nRATE %.1f\n", iterations, images.size(),
              seconds, rate);
  std::filesystem::remove_all(scratch);
  return 0;
}
