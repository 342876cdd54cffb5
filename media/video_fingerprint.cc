#include "media/video_fingerprint.h"

#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
#if defined(__SSE2__)
  // Four pixels at a time: widened to 16 bits, multiplied by (77, 150, 29, 0)
  // and summed in pairs (madd), the two halves of each pixel added, shifted
  // right by 8; the same integers as the scalar loop below.
  const __m128i zero = _mm_setzero_si128();
  const __m128i weights = _mm_setr_epi16(77, 150, 29, 0, 77, 150, 29, 0);
  const __m128i even = _mm_setr_epi32(-1, 0, -1, 0);
  const auto luma = [&](__m128i half) {
    const __m128i m = _mm_madd_epi16(half, weights);
    return _mm_and_si128(_mm_srli_epi32(_mm_add_epi32(m, _mm_srli_epi64(m, 32)), 8), even);
  };
  for (int band = 0; band < kGridHeight; ++band) {
    __m128i acc[kGridWidth];
    for (__m128i& a : acc) a = zero;
    for (int y = band * kCellHeight; y < (band + 1) * kCellHeight; ++y) {
      const std::uint8_t* p = rgba + stride * static_cast<std::size_t>(y);
      for (int cell = 0; cell < kGridWidth; ++cell, p += 4 * kCellWidth) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
        acc[cell] = _mm_add_epi32(acc[cell], _mm_add_epi32(luma(_mm_unpacklo_epi8(a, zero)),
                                                           luma(_mm_unpackhi_epi8(a, zero))));
        acc[cell] = _mm_add_epi32(acc[cell], _mm_add_epi32(luma(_mm_unpacklo_epi8(b, zero)),
                                                           luma(_mm_unpackhi_epi8(b, zero))));
      }
    }
    for (int cell = 0; cell < kGridWidth; ++cell) {
      alignas(16) std::uint32_t lanes[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(lanes), acc[cell]);
      sums[band * kGridWidth + cell] = lanes[0] + lanes[2];
    }
  }
#else
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
#endif
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
