#include "media/video_fingerprint.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "media/video_test_frames.h"
#include "tests/textbook_fft.h"

namespace zelvarpack {
namespace {

constexpr std::size_t kStride = 4 * VideoFingerprint::kTileWidth;

// A tile whose pixels are grey(x, y).
template <typename F>
std::vector<std::uint8_t> Tile(F grey) {
  std::vector<std::uint8_t> tile(kStride * VideoFingerprint::kTileHeight);
  for (int y = 0; y < VideoFingerprint::kTileHeight; ++y) {
    for (int x = 0; x < VideoFingerprint::kTileWidth; ++x) {
      std::uint8_t* p = tile.data() + kStride * static_cast<std::size_t>(y) + 4 * x;
      p[0] = p[1] = p[2] = static_cast<std::uint8_t>(grey(x, y));
      p[3] = 255;
    }
  }
  return tile;
}

int Bucket(const std::vector<std::uint8_t>& tile) {
  VideoFingerprint fingerprint;
  return fingerprint.BucketOf(tile.data(), kStride);
}

TEST(VideoFingerprint, SpectrumIsBitIdenticalToTextbookTransform) {
  VideoFingerprint fingerprint;
  std::mt19937 random(3);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int round = 0; round < 50; ++round) {
    std::vector<std::uint8_t> tile = Tile([&](int, int) { return byte(random); });
    std::vector<double> x(VideoFingerprint::kCells), y(VideoFingerprint::kCells, 0.0);
    VideoFingerprint::LumaGrid(tile.data(), kStride, x.data());
    std::vector<double> ex = x, ey = y;
    reference::TextbookFft2D(ex.data(), ey.data(), 16, 8);
    fingerprint.Transform(x.data(), y.data());
    ASSERT_EQ(x, ex) << round;
    ASSERT_EQ(y, ey) << round;
  }
}

TEST(VideoFingerprint, LumaGridAveragesCellsOfEightByNine) {
  // Luma of (R, G, B) = (255, 0, 0) is 77 * 255 / 256 = 76 (truncated).
  std::vector<std::uint8_t> tile(kStride * 72, 0);
  for (int y = 0; y < 9; ++y) {
    for (int x = 0; x < 8; ++x) {
      tile[kStride * static_cast<std::size_t>(y) + 4 * x] = 255;
    }
  }
  std::vector<double> grid(VideoFingerprint::kCells);
  VideoFingerprint::LumaGrid(tile.data(), kStride, grid.data());
  EXPECT_EQ(grid[0], 76.0);
  for (std::size_t i = 1; i < grid.size(); ++i) EXPECT_EQ(grid[i], 0.0) << i;
}

TEST(VideoFingerprint, LumaGridTruncatesEachPixelThenAverages) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<std::uint8_t> tile(kStride * 72);
  for (std::uint8_t& b : tile) b = static_cast<std::uint8_t>(byte(random));
  std::vector<double> grid(VideoFingerprint::kCells);
  VideoFingerprint::LumaGrid(tile.data(), kStride, grid.data());
  for (int cy = 0; cy < 8; ++cy) {
    for (int cx = 0; cx < 16; ++cx) {
      unsigned sum = 0;
      for (int y = cy * 9; y < cy * 9 + 9; ++y) {
        for (int x = cx * 8; x < cx * 8 + 8; ++x) {
          const std::uint8_t* p = tile.data() + kStride * static_cast<std::size_t>(y) + 4 * x;
          sum += (77u * p[0] + 150u * p[1] + 29u * p[2]) / 256;
        }
      }
      EXPECT_EQ(grid[static_cast<std::size_t>(cy * 16 + cx)], sum / 72.0) << cx << ", " << cy;
    }
  }
}

TEST(VideoFingerprint, FlatTilesSortByBrightnessAlone) {
  // Brightness in the top three bits, texture 0, then a finer brightness.
  EXPECT_EQ(Bucket(Tile([](int, int) { return 0; })), 0);
  EXPECT_EQ(Bucket(Tile([](int, int) { return 100; })), 3 << 5 | 0);
  EXPECT_EQ(Bucket(Tile([](int, int) { return 120; })), 3 << 5 | 3);
  EXPECT_EQ(Bucket(Tile([](int, int) { return 255; })), 7 << 5 | 3);
}

TEST(VideoFingerprint, TextureAndOrientationSeparateStripes) {
  // Stripes 16 pixels wide across the tile, and 18 rows tall down it.
  const int across = Bucket(Tile([](int x, int) { return (x / 16) % 2 ? 200 : 40; }));
  const int down = Bucket(Tile([](int, int y) { return (y / 18) % 2 ? 200 : 40; }));
  EXPECT_EQ(across >> 5, 120 / 32);
  EXPECT_EQ(down >> 5, 120 / 32);
  EXPECT_EQ(across >> 2 & 7, 7) << "sigma 80 is the strongest texture";
  EXPECT_EQ(down >> 2 & 7, 7);
  EXPECT_EQ(across & 3, 3) << "varies across: vertical stripes";
  EXPECT_EQ(down & 3, 0) << "varies down: horizontal stripes";
  // A faint gradient: some texture, less than the stripes.
  const int faint = Bucket(Tile([](int x, int) { return 100 + x / 16; }));
  EXPECT_GT(faint >> 2 & 7, 0);
  EXPECT_LT(faint >> 2 & 7, 7);
}

// Tiles alike meet: a photograph's tiles keep their bucket under slight
// noise (as from re-encoding) for almost every tile.
TEST(VideoFingerprint, SlightNoiseKeepsPhotoTilesInTheirBucket) {
  if (!testing::HavePhotos()) GTEST_SKIP() << "lomiri-wallpapers-20.04 missing";
  image::RgbaImage frame = testing::PhotoFrame(0);
  image::RgbaImage noisy = frame;
  std::mt19937 random(11);
  std::uniform_int_distribution<int> noise(-1, 1);
  for (std::size_t i = 0; i < noisy.pixels.size(); ++i) {
    if (i % 4 == 3) continue;
    noisy.pixels[i] =
        static_cast<std::uint8_t>(std::clamp(noisy.pixels[i] + noise(random), 0, 255));
  }
  VideoFingerprint fingerprint;
  int same = 0;
  std::vector<int> used(256, 0);
  for (int ty = 0; ty < 15; ++ty) {
    for (int tx = 0; tx < 15; ++tx) {
      const int a = fingerprint.BucketOf(frame.At(tx * 128, ty * 72), 1920 * 4);
      const int b = fingerprint.BucketOf(noisy.At(tx * 128, ty * 72), 1920 * 4);
      same += a == b ? 1 : 0;
      used[static_cast<std::size_t>(a)] = 1;
    }
  }
#ifdef _WIN32
  // GDI+ draws the test frame with its two-tap filter, which keeps more of
  // the photograph's fine detail (aliased) when it halves it: more tiles lie
  // near a bucket's edge.
  constexpr int kAtLeast = 205;
#else
  constexpr int kAtLeast = 215;
#endif
  EXPECT_GE(same, kAtLeast) << "of 225";
  int buckets = 0;
  for (const int u : used) buckets += u;
  EXPECT_GE(buckets, 10) << "a photograph spreads over many tesserae";
}

}  // namespace
}  // namespace zelvarpack
