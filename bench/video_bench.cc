// Video tesserae benchmark.
//
//   video_bench --work DIR [--frames N]
//
// 1. Makes N frames (default 300) of a slow camera pan across three
//    photographs Debian ships (lomiri-wallpapers-20.04), a third of the
//    frames each, as 1920 x 1080 JPEGs at quality 90 in DIR/frames.
// 2. Packs them (Create, Write each, Flush, Destroy) with the mosaic files
//    in DIR/work, twice, and prints the frames per second of the faster
//    pack (goal: at least 30, real time for 30 fps video), with the sizes.
// 3. Gathers the luma grids of the tiles of the first 30 frames and times
//    our 2-D transform (16 x 8 points) against FFTW's on the same grids,
//    after checking that ours is bit for bit the textbook rows-then-columns
//    loop and agrees with FFTW to rounding.
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "media/video_fingerprint.h"
#include "media/video_test_frames.h"
#include "tests/textbook_fft.h"
#include "zelvarpack/zelvar_video_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using zelvarpack::VideoFingerprint;
constexpr int kW = VideoFingerprint::kGridWidth;
constexpr int kH = VideoFingerprint::kGridHeight;
constexpr int kCells = VideoFingerprint::kCells;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// CPU time of the whole process (both threads of a pack), in seconds.
double CpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

unsigned char* Bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }
std::int32_t Length(const std::string& s) { return static_cast<std::int32_t>(s.size()); }

// Runs `one(grid)` over all grids, round after round, for at least a
// second; returns transforms per second.
template <typename F>
double Rate(const std::vector<std::vector<double>>& grids, F one) {
  std::size_t done = 0;
  const auto start = Clock::now();
  double elapsed = 0.0;
  do {
    for (const auto& grid : grids) one(grid);
    done += grids.size();
    elapsed = Seconds(Clock::now() - start);
  } while (elapsed < 1.0);
  return static_cast<double>(done) / elapsed;
}

std::string LoadAverage() {
  std::FILE* f = std::fopen("/proc/loadavg", "r");
  char text[64] = {};
  if (f != nullptr) {
    if (std::fgets(text, sizeof text, f) == nullptr) text[0] = '\0';
    std::fclose(f);
  }
  std::string out(text);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  std::string work;
  int count = 300;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--work" && i + 1 < argc) {
      work = argv[++i];
    } else if (arg == "--frames" && i + 1 < argc) {
      count = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: video_bench --work DIR [--frames N]\n");
      return 2;
    }
  }
  if (work.empty() || count < 1) {
    std::fprintf(stderr, "usage: video_bench --work DIR [--frames N]\n");
    return 2;
  }
  if (!zelvarpack::testing::HavePhotos()) {
    std::fprintf(stderr, "video_bench: the photographs of lomiri-wallpapers-20.04 are missing\n");
    return 2;
  }
  const std::string frameDir = work + "/frames";
  std::string tesserae = work + "/work";
  std::filesystem::create_directories(frameDir);
  std::filesystem::create_directories(tesserae);

  std::vector<std::string> frames;
  std::uintmax_t inputBytes = 0;
  const int perPhoto = (count + 2) / 3;
  for (int n = 0; n < count; ++n) {
    const std::string path = frameDir + "/" + std::to_string(n) + ".jpg";
    if (!std::filesystem::exists(path)) {
      const auto frame = zelvarpack::testing::PhotoFrame(n / perPhoto, 1 + 2 * (n % perPhoto));
      const std::string jpeg = zelvarpack::testing::AsJpeg(frame, 90);
      std::FILE* f = std::fopen(path.c_str(), "wb");
      if (f == nullptr || std::fwrite(jpeg.data(), 1, jpeg.size(), f) != jpeg.size()) return 1;
      std::fclose(f);
    }
    inputBytes += std::filesystem::file_size(path);
    frames.push_back(path);
  }
  std::printf("frames: %d JPEGs of 1920 x 1080, %ju bytes\n", count, inputBytes);

  std::string index = work + "/bench.idx", data = work + "/bench.dat";
  double best = 1e300, bestCpu = 1e300;
  for (int round = 0; round < 2; ++round) {
    const auto start = Clock::now();
    const double cpuStart = CpuSeconds();
    void* h = CZelvarVideoServer::Create(Bytes(tesserae), Length(tesserae), Bytes(index),
                                         Length(index), Bytes(data), Length(data), 0);
    for (std::string& frame : frames) CZelvarVideoServer::Write(h, Bytes(frame), 0);
    CZelvarVideoServer::Flush(h);
    CZelvarVideoServer::Destroy(h);
    best = std::min(best, Seconds(Clock::now() - start));
    bestCpu = std::min(bestCpu, CpuSeconds() - cpuStart);
  }
  std::printf("pack: faster of 2 runs %.2f s, index %ju bytes, data %ju bytes\n", best,
              static_cast<std::uintmax_t>(std::filesystem::file_size(index)),
              static_cast<std::uintmax_t>(std::filesystem::file_size(data)));
  std::printf("pack: %.1f frames per second (goal >= 30)\n", count / best);
  // The machine may be shared: CPU time shows what the pack itself needs.
  std::printf("pack: %.2f s of CPU time, %.1f frames per CPU-second; load average now %s\n",
              bestCpu, count / bestCpu, LoadAverage().c_str());

  // The luma grids of the first 30 frames' tiles.
  std::vector<std::vector<double>> grids;
  for (int n = 0; n < std::min(count, 30); ++n) {
    const auto frame = zelvarpack::testing::Decode(
        zelvarpack::testing::ReadBytes(frames[static_cast<std::size_t>(n)]));
    for (int ty = 0; ty < 15; ++ty) {
      for (int tx = 0; tx < 15; ++tx) {
        std::vector<double> grid(kCells);
        VideoFingerprint::LumaGrid(frame.At(tx * 128, ty * 72), 1920 * 4, grid.data());
        grids.push_back(std::move(grid));
      }
    }
  }
  VideoFingerprint ours;
  std::vector<double> re(kCells), im(kCells), tre(kCells), tim(kCells);
  fftw_complex* in = fftw_alloc_complex(kCells);
  fftw_complex* out = fftw_alloc_complex(kCells);
  // FFTW's row-major n0 x n1: 8 rows of 16.
  fftw_plan plan = fftw_plan_dft_2d(kH, kW, in, out, FFTW_FORWARD, FFTW_MEASURE);
  double worst = 0.0;
  for (const auto& grid : grids) {
    re = grid;
    std::fill(im.begin(), im.end(), 0.0);
    tre = re;
    tim = im;
    ours.Transform(re.data(), im.data());
    zelvarpack::reference::TextbookFft2D(tre.data(), tim.data(), kW, kH);
    if (re != tre || im != tim) {
      std::printf("transform: MISMATCH with the textbook loop\n");
      return 1;
    }
    for (int i = 0; i < kCells; ++i) {
      in[i][0] = grid[static_cast<std::size_t>(i)];
      in[i][1] = 0.0;
    }
    fftw_execute(plan);
    for (int i = 0; i < kCells; ++i) {
      worst = std::max(worst, std::fabs(out[i][0] / kCells - re[static_cast<std::size_t>(i)]));
      worst = std::max(worst, std::fabs(out[i][1] / kCells - im[static_cast<std::size_t>(i)]));
    }
  }
  std::printf(
      "transform: %zu tiles' 16 x 8 luma grids; ours bit-identical to the textbook loop; largest "
      "difference from FFTW %.1e (luma units)\n",
      grids.size(), worst);
  const double oursRate = Rate(grids, [&](const std::vector<double>& grid) {
    std::copy(grid.begin(), grid.end(), re.begin());
    std::fill(im.begin(), im.end(), 0.0);
    ours.Transform(re.data(), im.data());
  });
  const double textbookRate = Rate(grids, [&](const std::vector<double>& grid) {
    std::copy(grid.begin(), grid.end(), re.begin());
    std::fill(im.begin(), im.end(), 0.0);
    zelvarpack::reference::TextbookFft2D(re.data(), im.data(), kW, kH);
  });
  const double fftwRate = Rate(grids, [&](const std::vector<double>& grid) {
    for (int i = 0; i < kCells; ++i) {
      in[i][0] = grid[static_cast<std::size_t>(i)];
      in[i][1] = 0.0;
    }
    fftw_execute(plan);
  });
  std::printf("transform: ours       %10.0f per second\n", oursRate);
  std::printf("transform: textbook   %10.0f per second\n", textbookRate);
  std::printf("transform: FFTW       %10.0f per second\n", fftwRate);
  std::printf("transform: ours takes %.2f x FFTW's time (goal <= 3)\n", fftwRate / oursRate);
  fftw_destroy_plan(plan);
  fftw_free(in);
  fftw_free(out);
  return 0;
}
