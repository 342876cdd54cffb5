#include "media/video_fingerprint.h"

#include <cmath>
#include <cstring>

// The spectrum must be the same on every machine, so that a tile always
// falls into the same bucket: no fused multiply-add (the build passes
// -ffp-contract=off for this file).
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace zelvarpack {

namespace {

constexpr double kTextureThresholds[] = {2, 4, 7, 11, 17, 26, 40};

// Frequency index k of an n-point transform as a signed number of cycles.
int Signed(int k, int n) { return k < n / 2 ? k : k - n; }

}  // namespace

VideoFingerprint::VideoFingerprint() : across_(kGridWidth), down_(kGridHeight) {}

void VideoFingerprint::LumaGrid(const std::uint8_t* rgba, std::size_t stride, double* grid) {
  std::uint32_t sums[kCells] = {};
  for (int y = 0; y < kTileHeight; ++y) {
    const std::uint8_t* p = rgba + stride * static_cast<std::size_t>(y);
    std::uint32_t* row = sums + (y / kCellHeight) * kGridWidth;
    for (int cell = 0; cell < kGridWidth; ++cell, p += 4 * kCellWidth) {
      std::uint32_t sum = 0;
      for (int x = 0; x < kCellWidth; ++x) {
        sum += (77u * p[4 * x] + 150u * p[4 * x + 1] + 29u * p[4 * x + 2]) >> 8;
      }
      row[cell] += sum;
    }
  }
  constexpr double kPerCell = kCellWidth * kCellHeight;
  for (int i = 0; i < kCells; ++i) grid[i] = sums[i] / kPerCell;
}

void VideoFingerprint::Transform(double* real, double* imaginary) const {
  Transform2D(across_, down_, real, imaginary);
}

int VideoFingerprint::BucketOfSpectrum(const double* real, const double* imaginary) {
  const double mean = real[0];
  double across = 0.0, down = 0.0;
  for (int ky = 0; ky < kGridHeight; ++ky) {
    // Cycles per pixel, compared as |kx| * 72 against |ky| * 128.
    const int rateDown = std::abs(Signed(ky, kGridHeight)) * kTileWidth;
    for (int kx = 0; kx < kGridWidth; ++kx) {
      if (kx == 0 && ky == 0) continue;
      const int i = ky * kGridWidth + kx;
      const double energy = real[i] * real[i] + imaginary[i] * imaginary[i];
      const int rateAcross = std::abs(Signed(kx, kGridWidth)) * kTileHeight;
      if (rateAcross > rateDown) {
        across += energy;
      } else if (rateAcross < rateDown) {
        down += energy;
      } else {
        across += energy / 2;
        down += energy / 2;
      }
    }
  }
  const double sigma = std::sqrt(across + down);
  int texture = 0;
  for (const double threshold : kTextureThresholds) texture += sigma >= threshold ? 1 : 0;
  int brightness = mean >= 224.0 ? 7 : static_cast<int>(mean / 32.0);
  if (brightness < 0) brightness = 0;
  int low;
  if (texture == 0) {
    low = static_cast<int>((mean - 32.0 * brightness) / 8.0);
  } else {
    low = static_cast<int>(4.0 * across / (across + down));
  }
  low = low < 0 ? 0 : (low > 3 ? 3 : low);
  return brightness << 5 | texture << 2 | low;
}

int VideoFingerprint::BucketOf(const std::uint8_t* rgba, std::size_t stride) {
  LumaGrid(rgba, stride, real_);
  std::memset(imaginary_, 0, sizeof imaginary_);
  Transform(real_, imaginary_);
  return BucketOfSpectrum(real_, imaginary_);
}

}  // namespace zelvarpack
