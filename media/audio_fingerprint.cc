#include "media/audio_fingerprint.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
// A four-lane stage for processors with AVX, chosen at run time.
#define ZP_HAVE_AVX_STAGE 1
#endif

// Every product and sum below must round exactly as the step-by-step loop
// does; a fused multiply-add would change the last bits (the build also
// passes -ffp-contract=off for this file).
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace zelvarpack {

namespace {

constexpr double kScale = 1.0 / AudioFingerprint::kPoints;  // exact: a power of two

}  // namespace

AudioFingerprint::AudioFingerprint(bool allowWideVectors) {
#if defined(ZP_HAVE_AVX_STAGE)
  wideVectors_ = allowWideVectors && __builtin_cpu_supports("avx");
#else
  wideVectors_ = false;
#endif
  // The half-angle recurrence: (c1, c2) starts at (-1, 0), the rotation of a
  // half turn; after each stage it is halved in angle, c2 negated for the
  // forward direction. Within a stage the twiddle u starts at (1, 0) and is
  // multiplied by (c1, c2) once per butterfly group.
  double c1 = -1.0;
  double c2 = 0.0;
  twiddleReal_[0] = 0.0;
  twiddleImaginary_[0] = 0.0;
  for (int half = 1; half < kPoints; half *= 2) {
    double u1 = 1.0;
    double u2 = 0.0;
    for (int j = 0; j < half; ++j) {
      twiddleReal_[half + j] = u1;
      twiddleImaginary_[half + j] = u2;
      const double z = u1 * c1 - u2 * c2;
      u2 = u1 * c2 + u2 * c1;
      u1 = z;
    }
    c2 = -std::sqrt((1.0 - c1) / 2.0);
    c1 = std::sqrt((1.0 + c1) / 2.0);
  }
  for (int i = 0; i < kPoints; ++i) {
    int r = 0;
    for (int bit = 0; bit < kStages; ++bit) r |= ((i >> bit) & 1) << (kStages - 1 - bit);
    reversed_[i] = static_cast<std::uint16_t>(r);
  }
  int swaps = 0;
  for (int i = 0; i < kPoints; ++i) {
    if (i < reversed_[i]) {
      swaps_[swaps][0] = static_cast<std::uint16_t>(i);
      swaps_[swaps][1] = reversed_[i];
      ++swaps;
    }
  }
}

namespace {

// One butterfly stage for half >= 4 (every group holds a multiple of four
// butterflies). A butterfly on points i and i1 = i + half with twiddle u:
//   t1 = u1 * x[i1] - u2 * y[i1],  t2 = u1 * y[i1] + u2 * x[i1],
//   x[i1] = x[i] - t1,  y[i1] = y[i] - t2,  x[i] += t1,  y[i] += t2.
// The butterflies of one stage touch disjoint points, so running them group
// by group instead of twiddle by twiddle changes no value, and neither does
// running them two or four lanes at a time: each lane rounds as the scalar
// operation does. The last stage may also apply the final 1/1024 scaling to
// what it stores: the same multiplication a separate pass would make.
template <bool kScaled>
void Stage(double* x, double* y, const double* wr, const double* wi, int half, int points) {
#if defined(__SSE2__)
  const __m128d scale = _mm_set1_pd(kScale);
#endif
  for (int base = 0; base < points; base += 2 * half) {
    double* xa = x + base;
    double* ya = y + base;
    double* xb = xa + half;
    double* yb = ya + half;
#if defined(__SSE2__)
    for (int j = 0; j < half; j += 2) {
      const __m128d u1 = _mm_loadu_pd(wr + j);
      const __m128d u2 = _mm_loadu_pd(wi + j);
      const __m128d x1 = _mm_loadu_pd(xb + j);
      const __m128d y1 = _mm_loadu_pd(yb + j);
      const __m128d x0 = _mm_loadu_pd(xa + j);
      const __m128d y0 = _mm_loadu_pd(ya + j);
      const __m128d t1 = _mm_sub_pd(_mm_mul_pd(u1, x1), _mm_mul_pd(u2, y1));
      const __m128d t2 = _mm_add_pd(_mm_mul_pd(u1, y1), _mm_mul_pd(u2, x1));
      __m128d xb1 = _mm_sub_pd(x0, t1), yb1 = _mm_sub_pd(y0, t2);
      __m128d xa1 = _mm_add_pd(x0, t1), ya1 = _mm_add_pd(y0, t2);
      if constexpr (kScaled) {
        xb1 = _mm_mul_pd(xb1, scale);
        yb1 = _mm_mul_pd(yb1, scale);
        xa1 = _mm_mul_pd(xa1, scale);
        ya1 = _mm_mul_pd(ya1, scale);
      }
      _mm_storeu_pd(xb + j, xb1);
      _mm_storeu_pd(yb + j, yb1);
      _mm_storeu_pd(xa + j, xa1);
      _mm_storeu_pd(ya + j, ya1);
    }
#else
    for (int j = 0; j < half; ++j) {
      const double t1 = wr[j] * xb[j] - wi[j] * yb[j];
      const double t2 = wr[j] * yb[j] + wi[j] * xb[j];
      xb[j] = xa[j] - t1;
      yb[j] = ya[j] - t2;
      xa[j] += t1;
      ya[j] += t2;
      if constexpr (kScaled) {
        xb[j] *= kScale;
        yb[j] *= kScale;
        xa[j] *= kScale;
        ya[j] *= kScale;
      }
    }
#endif
  }
}

#if defined(ZP_HAVE_AVX_STAGE)
// The same stage four lanes wide, for processors with AVX. Plain multiplies
// and adds only: no fused multiply-add.
template <bool kScaled>
__attribute__((target("avx"))) void StageAvx(double* x, double* y, const double* wr,
                                             const double* wi, int half, int points) {
  const __m256d scale = _mm256_set1_pd(kScale);
  for (int base = 0; base < points; base += 2 * half) {
    double* xa = x + base;
    double* ya = y + base;
    double* xb = xa + half;
    double* yb = ya + half;
    for (int j = 0; j < half; j += 4) {
      const __m256d u1 = _mm256_loadu_pd(wr + j);
      const __m256d u2 = _mm256_loadu_pd(wi + j);
      const __m256d x1 = _mm256_loadu_pd(xb + j);
      const __m256d y1 = _mm256_loadu_pd(yb + j);
      const __m256d x0 = _mm256_loadu_pd(xa + j);
      const __m256d y0 = _mm256_loadu_pd(ya + j);
      const __m256d t1 = _mm256_sub_pd(_mm256_mul_pd(u1, x1), _mm256_mul_pd(u2, y1));
      const __m256d t2 = _mm256_add_pd(_mm256_mul_pd(u1, y1), _mm256_mul_pd(u2, x1));
      __m256d xb1 = _mm256_sub_pd(x0, t1), yb1 = _mm256_sub_pd(y0, t2);
      __m256d xa1 = _mm256_add_pd(x0, t1), ya1 = _mm256_add_pd(y0, t2);
      if constexpr (kScaled) {
        xb1 = _mm256_mul_pd(xb1, scale);
        yb1 = _mm256_mul_pd(yb1, scale);
        xa1 = _mm256_mul_pd(xa1, scale);
        ya1 = _mm256_mul_pd(ya1, scale);
      }
      _mm256_storeu_pd(xb + j, xb1);
      _mm256_storeu_pd(yb + j, yb1);
      _mm256_storeu_pd(xa + j, xa1);
      _mm256_storeu_pd(ya + j, ya1);
    }
  }
}
#endif

}  // namespace

// The ten stages over a frame already in bit-reversed order, ending with
// every output scaled by 1/1024.
void AudioFingerprint::Butterflies(double* x, double* y) const {
  // Stages one and two together, four points at a time. Their twiddles are
  // exactly (1, 0) and, in stage two, (0, -1): multiplying by them yields
  // the other operand itself (up to the sign of a zero, which no later sum
  // or square can see), so the products are left out.
  for (int i = 0; i < kPoints; i += 4) {
    const double a0 = x[i] + x[i + 1], a1 = x[i] - x[i + 1];
    const double a2 = x[i + 2] + x[i + 3], a3 = x[i + 2] - x[i + 3];
    const double b0 = y[i] + y[i + 1], b1 = y[i] - y[i + 1];
    const double b2 = y[i + 2] + y[i + 3], b3 = y[i + 2] - y[i + 3];
    // Points 0 and 2, u = (1, 0): t = (a2, b2).
    x[i] = a0 + a2;
    x[i + 2] = a0 - a2;
    y[i] = b0 + b2;
    y[i + 2] = b0 - b2;
    // Points 1 and 3, u = (0, -1): t1 = b3, t2 = -a3.
    x[i + 1] = a1 + b3;
    x[i + 3] = a1 - b3;
    y[i + 1] = b1 - a3;
    y[i + 3] = b1 + a3;
  }
  constexpr int kLast = kPoints / 2;
#if defined(ZP_HAVE_AVX_STAGE)
  if (wideVectors_) {
    for (int half = 4; half < kLast; half *= 2) {
      StageAvx<false>(x, y, twiddleReal_ + half, twiddleImaginary_ + half, half, kPoints);
    }
    StageAvx<true>(x, y, twiddleReal_ + kLast, twiddleImaginary_ + kLast, kLast, kPoints);
    return;
  }
#endif
  for (int half = 4; half < kLast; half *= 2) {
    Stage<false>(x, y, twiddleReal_ + half, twiddleImaginary_ + half, half, kPoints);
  }
  Stage<true>(x, y, twiddleReal_ + kLast, twiddleImaginary_ + kLast, kLast, kPoints);
}

void AudioFingerprint::Transform(double* real, double* imaginary) const {
  for (int p = 0; p < kSwaps; ++p) {
    const int i = swaps_[p][0], r = swaps_[p][1];
    std::swap(real[i], real[r]);
    std::swap(imaginary[i], imaginary[r]);
  }
  Butterflies(real, imaginary);
}

double AudioFingerprint::Of(const unsigned char* piece, std::int64_t length) {
  const std::int64_t used = std::min(length, kFrameBytes);
  std::memset(frameReal_, 0, sizeof frameReal_);
  std::memset(frameImaginary_, 0, sizeof frameImaginary_);
  // Samples go straight to their bit-reversed places.
  int k = 0;
  for (std::int64_t offset = 0; offset < used; offset += 2, ++k) {
    const unsigned high = offset + 1 < used ? piece[offset + 1] : 0u;
    const auto sample =
        static_cast<std::int16_t>(static_cast<std::uint16_t>(piece[offset] | (high << 8)));
    frameReal_[reversed_[k]] = sample * 0.5;
  }
  Butterflies(frameReal_, frameImaginary_);
  // Summed in index order, as the loop does: a different order would round
  // differently.
  double sum = 0.0;
  for (const double value : frameReal_) sum += value * value;
  const std::int64_t divisor = std::max<std::int64_t>(used / 2, 1);
  return std::sqrt(sum / static_cast<double>(divisor));
}

std::int32_t AudioFingerprint::BucketOf(double fingerprint) {
  const double scaled = fingerprint * 100.0;
  if (!(scaled > 0.0)) return 0;  // also NaN
  if (scaled >= kBuckets - 1) return kBuckets - 1;
  return static_cast<std::int32_t>(scaled);
}

std::int32_t PiecesInBlock(std::int64_t n) {
  if (n % 10 == 0) return 10;
  for (std::int32_t d = 9; d > 1; --d) {
    if (n % d == 0) return d;
  }
  return 1;
}

}  // namespace zelvarpack
