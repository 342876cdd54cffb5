#include "core/radix2_fft.h"

#include <cmath>
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

Radix2Fft::Radix2Fft(int points, bool allowWideVectors)
    : points_(points),
      twiddleReal_(static_cast<std::size_t>(points)),
      twiddleImaginary_(static_cast<std::size_t>(points)),
      reversed_(static_cast<std::size_t>(points)) {
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
  for (int half = 1; half < points; half *= 2) {
    double u1 = 1.0;
    double u2 = 0.0;
    for (int j = 0; j < half; ++j) {
      twiddleReal_[static_cast<std::size_t>(half + j)] = u1;
      twiddleImaginary_[static_cast<std::size_t>(half + j)] = u2;
      const double z = u1 * c1 - u2 * c2;
      u2 = u1 * c2 + u2 * c1;
      u1 = z;
    }
    c2 = -std::sqrt((1.0 - c1) / 2.0);
    c1 = std::sqrt((1.0 + c1) / 2.0);
  }
  int stages = 0;
  while ((1 << stages) < points) ++stages;
  for (int i = 0; i < points; ++i) {
    std::uint32_t r = 0;
    for (int bit = 0; bit < stages; ++bit) {
      r |= static_cast<std::uint32_t>((i >> bit) & 1) << (stages - 1 - bit);
    }
    reversed_[static_cast<std::size_t>(i)] = r;
    if (static_cast<std::uint32_t>(i) < r) {
      swaps_.push_back(static_cast<std::uint32_t>(i));
      swaps_.push_back(r);
    }
  }
}

namespace {

// One butterfly stage for half >= 2 over `points` points with twiddles
// wr[j], wi[j] (j < half). The last stage may also apply the final 1/N
// scaling to what it stores: the same multiplication a separate pass would
// make.
template <bool kScaled>
void Stage(double* x, double* y, const double* wr, const double* wi, int half, int points,
           double scale) {
#if defined(__SSE2__)
  const __m128d factor = _mm_set1_pd(scale);
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
        xb1 = _mm_mul_pd(xb1, factor);
        yb1 = _mm_mul_pd(yb1, factor);
        xa1 = _mm_mul_pd(xa1, factor);
        ya1 = _mm_mul_pd(ya1, factor);
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
        xb[j] *= scale;
        yb[j] *= scale;
        xa[j] *= scale;
        ya[j] *= scale;
      }
    }
#endif
  }
}

#if defined(ZP_HAVE_AVX_STAGE)
// The same stage four lanes wide, for processors with AVX (half >= 4).
// Plain multiplies and adds only: no fused multiply-add.
template <bool kScaled>
__attribute__((target("avx"))) void StageAvx(double* x, double* y, const double* wr,
                                             const double* wi, int half, int points, double scale) {
  const __m256d factor = _mm256_set1_pd(scale);
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
        xb1 = _mm256_mul_pd(xb1, factor);
        yb1 = _mm256_mul_pd(yb1, factor);
        xa1 = _mm256_mul_pd(xa1, factor);
        ya1 = _mm256_mul_pd(ya1, factor);
      }
      _mm256_storeu_pd(xb + j, xb1);
      _mm256_storeu_pd(yb + j, yb1);
      _mm256_storeu_pd(xa + j, xa1);
      _mm256_storeu_pd(ya + j, ya1);
    }
  }
}
#endif

// The column transform works on whole rows: lane c of row i is point i of
// column c. Each lane rounds as the scalar operation on that column would.
//
// Stages one and two over four rows at a time, as Butterflies does them
// (their twiddles (1, 0) and (0, -1) need no products).
void LanesFirstTwo(double* x, double* y, std::size_t w, std::size_t c0, std::size_t c1) {
  for (std::size_t c = c0; c < c1; ++c) {
    double* p = x + c;
    double* q = y + c;
    const double a0 = p[0] + p[w], a1 = p[0] - p[w];
    const double a2 = p[2 * w] + p[3 * w], a3 = p[2 * w] - p[3 * w];
    const double b0 = q[0] + q[w], b1 = q[0] - q[w];
    const double b2 = q[2 * w] + q[3 * w], b3 = q[2 * w] - q[3 * w];
    p[0] = a0 + a2;
    p[2 * w] = a0 - a2;
    q[0] = b0 + b2;
    q[2 * w] = b0 - b2;
    p[w] = a1 + b3;
    p[3 * w] = a1 - b3;
    q[w] = b1 - a3;
    q[3 * w] = b1 + a3;
  }
}

// One butterfly on rows a and b with twiddle (u1, u2), lanes c0..c1.
template <bool kScaled>
void LanesButterfly(double* xa, double* ya, double* xb, double* yb, double u1, double u2,
                    double scale, std::size_t c0, std::size_t c1) {
  for (std::size_t c = c0; c < c1; ++c) {
    const double t1 = u1 * xb[c] - u2 * yb[c];
    const double t2 = u1 * yb[c] + u2 * xb[c];
    double xb1 = xa[c] - t1, yb1 = ya[c] - t2, xa1 = xa[c] + t1, ya1 = ya[c] + t2;
    if constexpr (kScaled) {
      xb1 *= scale;
      yb1 *= scale;
      xa1 *= scale;
      ya1 *= scale;
    }
    xb[c] = xb1;
    yb[c] = yb1;
    xa[c] = xa1;
    ya[c] = ya1;
  }
}

#if defined(__SSE2__)
// The same two kernels two lanes at a time; they return the lanes done.
std::size_t LanesFirstTwoSse(double* x, double* y, std::size_t w) {
  std::size_t c = 0;
  for (; c + 2 <= w; c += 2) {
    double* p = x + c;
    double* q = y + c;
    const __m128d p0 = _mm_loadu_pd(p), p1 = _mm_loadu_pd(p + w);
    const __m128d p2 = _mm_loadu_pd(p + 2 * w), p3 = _mm_loadu_pd(p + 3 * w);
    const __m128d q0 = _mm_loadu_pd(q), q1 = _mm_loadu_pd(q + w);
    const __m128d q2 = _mm_loadu_pd(q + 2 * w), q3 = _mm_loadu_pd(q + 3 * w);
    const __m128d a0 = _mm_add_pd(p0, p1), a1 = _mm_sub_pd(p0, p1);
    const __m128d a2 = _mm_add_pd(p2, p3), a3 = _mm_sub_pd(p2, p3);
    const __m128d b0 = _mm_add_pd(q0, q1), b1 = _mm_sub_pd(q0, q1);
    const __m128d b2 = _mm_add_pd(q2, q3), b3 = _mm_sub_pd(q2, q3);
    _mm_storeu_pd(p, _mm_add_pd(a0, a2));
    _mm_storeu_pd(p + 2 * w, _mm_sub_pd(a0, a2));
    _mm_storeu_pd(q, _mm_add_pd(b0, b2));
    _mm_storeu_pd(q + 2 * w, _mm_sub_pd(b0, b2));
    _mm_storeu_pd(p + w, _mm_add_pd(a1, b3));
    _mm_storeu_pd(p + 3 * w, _mm_sub_pd(a1, b3));
    _mm_storeu_pd(q + w, _mm_sub_pd(b1, a3));
    _mm_storeu_pd(q + 3 * w, _mm_add_pd(b1, a3));
  }
  return c;
}

template <bool kScaled>
std::size_t LanesButterflySse(double* xa, double* ya, double* xb, double* yb, double u1, double u2,
                              double scale, std::size_t w) {
  const __m128d w1 = _mm_set1_pd(u1), w2 = _mm_set1_pd(u2), factor = _mm_set1_pd(scale);
  std::size_t c = 0;
  for (; c + 2 <= w; c += 2) {
    const __m128d x1 = _mm_loadu_pd(xb + c), y1 = _mm_loadu_pd(yb + c);
    const __m128d x0 = _mm_loadu_pd(xa + c), y0 = _mm_loadu_pd(ya + c);
    const __m128d t1 = _mm_sub_pd(_mm_mul_pd(w1, x1), _mm_mul_pd(w2, y1));
    const __m128d t2 = _mm_add_pd(_mm_mul_pd(w1, y1), _mm_mul_pd(w2, x1));
    __m128d xb1 = _mm_sub_pd(x0, t1), yb1 = _mm_sub_pd(y0, t2);
    __m128d xa1 = _mm_add_pd(x0, t1), ya1 = _mm_add_pd(y0, t2);
    if constexpr (kScaled) {
      xb1 = _mm_mul_pd(xb1, factor);
      yb1 = _mm_mul_pd(yb1, factor);
      xa1 = _mm_mul_pd(xa1, factor);
      ya1 = _mm_mul_pd(ya1, factor);
    }
    _mm_storeu_pd(xb + c, xb1);
    _mm_storeu_pd(yb + c, yb1);
    _mm_storeu_pd(xa + c, xa1);
    _mm_storeu_pd(ya + c, ya1);
  }
  return c;
}
#endif

#if defined(ZP_HAVE_AVX_STAGE)
// And four lanes at a time, for processors with AVX.
__attribute__((target("avx"))) std::size_t LanesFirstTwoAvx(double* x, double* y, std::size_t w) {
  std::size_t c = 0;
  for (; c + 4 <= w; c += 4) {
    double* p = x + c;
    double* q = y + c;
    const __m256d p0 = _mm256_loadu_pd(p), p1 = _mm256_loadu_pd(p + w);
    const __m256d p2 = _mm256_loadu_pd(p + 2 * w), p3 = _mm256_loadu_pd(p + 3 * w);
    const __m256d q0 = _mm256_loadu_pd(q), q1 = _mm256_loadu_pd(q + w);
    const __m256d q2 = _mm256_loadu_pd(q + 2 * w), q3 = _mm256_loadu_pd(q + 3 * w);
    const __m256d a0 = _mm256_add_pd(p0, p1), a1 = _mm256_sub_pd(p0, p1);
    const __m256d a2 = _mm256_add_pd(p2, p3), a3 = _mm256_sub_pd(p2, p3);
    const __m256d b0 = _mm256_add_pd(q0, q1), b1 = _mm256_sub_pd(q0, q1);
    const __m256d b2 = _mm256_add_pd(q2, q3), b3 = _mm256_sub_pd(q2, q3);
    _mm256_storeu_pd(p, _mm256_add_pd(a0, a2));
    _mm256_storeu_pd(p + 2 * w, _mm256_sub_pd(a0, a2));
    _mm256_storeu_pd(q, _mm256_add_pd(b0, b2));
    _mm256_storeu_pd(q + 2 * w, _mm256_sub_pd(b0, b2));
    _mm256_storeu_pd(p + w, _mm256_add_pd(a1, b3));
    _mm256_storeu_pd(p + 3 * w, _mm256_sub_pd(a1, b3));
    _mm256_storeu_pd(q + w, _mm256_sub_pd(b1, a3));
    _mm256_storeu_pd(q + 3 * w, _mm256_add_pd(b1, a3));
  }
  return c;
}

template <bool kScaled>
__attribute__((target("avx"))) std::size_t LanesButterflyAvx(double* xa, double* ya, double* xb,
                                                             double* yb, double u1, double u2,
                                                             double scale, std::size_t w) {
  const __m256d w1 = _mm256_set1_pd(u1), w2 = _mm256_set1_pd(u2);
  const __m256d factor = _mm256_set1_pd(scale);
  std::size_t c = 0;
  for (; c + 4 <= w; c += 4) {
    const __m256d x1 = _mm256_loadu_pd(xb + c), y1 = _mm256_loadu_pd(yb + c);
    const __m256d x0 = _mm256_loadu_pd(xa + c), y0 = _mm256_loadu_pd(ya + c);
    const __m256d t1 = _mm256_sub_pd(_mm256_mul_pd(w1, x1), _mm256_mul_pd(w2, y1));
    const __m256d t2 = _mm256_add_pd(_mm256_mul_pd(w1, y1), _mm256_mul_pd(w2, x1));
    __m256d xb1 = _mm256_sub_pd(x0, t1), yb1 = _mm256_sub_pd(y0, t2);
    __m256d xa1 = _mm256_add_pd(x0, t1), ya1 = _mm256_add_pd(y0, t2);
    if constexpr (kScaled) {
      xb1 = _mm256_mul_pd(xb1, factor);
      yb1 = _mm256_mul_pd(yb1, factor);
      xa1 = _mm256_mul_pd(xa1, factor);
      ya1 = _mm256_mul_pd(ya1, factor);
    }
    _mm256_storeu_pd(xb + c, xb1);
    _mm256_storeu_pd(yb + c, yb1);
    _mm256_storeu_pd(xa + c, xa1);
    _mm256_storeu_pd(ya + c, ya1);
  }
  return c;
}
#endif

// Stages one and two over all lanes of rows i..i+3.
void FirstTwoRows(double* x, double* y, std::size_t w, bool wide) {
  std::size_t done = 0;
#if defined(ZP_HAVE_AVX_STAGE)
  if (wide) done = LanesFirstTwoAvx(x, y, w);
#endif
#if defined(__SSE2__)
  done += LanesFirstTwoSse(x + done, y + done, w - done);
#endif
  (void)wide;
  LanesFirstTwo(x, y, w, done, w);
}

template <bool kScaled>
void ButterflyRows(double* xa, double* ya, double* xb, double* yb, double u1, double u2,
                   double scale, std::size_t w, bool wide) {
  std::size_t done = 0;
#if defined(ZP_HAVE_AVX_STAGE)
  if (wide) done = LanesButterflyAvx<kScaled>(xa, ya, xb, yb, u1, u2, scale, w);
#endif
#if defined(__SSE2__)
  done += LanesButterflySse<kScaled>(xa + done, ya + done, xb + done, yb + done, u1, u2, scale,
                                     w - done);
#endif
  (void)wide;
  LanesButterfly<kScaled>(xa, ya, xb, yb, u1, u2, scale, done, w);
}

}  // namespace

void Radix2Fft::Butterflies(double* x, double* y) const { ButterfliesOver(x, y, points_); }

// The stages over `total` points, a whole number of transforms one after
// another: the stages' butterfly groups simply continue into the next
// transform, with the same twiddles.
void Radix2Fft::ButterfliesOver(double* x, double* y, int total) const {
  const double scale = 1.0 / points_;  // exact: a power of two
  // Stages one and two together, four points at a time. Their twiddles are
  // exactly (1, 0) and, in stage two, (0, -1): multiplying by them yields
  // the other operand itself (up to the sign of a zero), so the products
  // are left out.
  for (int i = 0; i < total; i += 4) {
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
  if (points_ == 4) {
    for (int i = 0; i < total; ++i) {
      x[i] *= scale;
      y[i] *= scale;
    }
    return;
  }
  const int last = points_ / 2;
  const double* wr = twiddleReal_.data();
  const double* wi = twiddleImaginary_.data();
#if defined(ZP_HAVE_AVX_STAGE)
  if (wideVectors_) {
    for (int half = 4; half < last; half *= 2) {
      StageAvx<false>(x, y, wr + half, wi + half, half, total, scale);
    }
    StageAvx<true>(x, y, wr + last, wi + last, last, total, scale);
    return;
  }
#endif
  for (int half = 4; half < last; half *= 2) {
    Stage<false>(x, y, wr + half, wi + half, half, total, scale);
  }
  Stage<true>(x, y, wr + last, wi + last, last, total, scale);
}

void Radix2Fft::Transform(double* real, double* imaginary) const {
  for (std::size_t p = 0; p < swaps_.size(); p += 2) {
    const std::uint32_t i = swaps_[p], r = swaps_[p + 1];
    std::swap(real[i], real[r]);
    std::swap(imaginary[i], imaginary[r]);
  }
  Butterflies(real, imaginary);
}

void Radix2Fft::TransformColumns(double* x, double* y, int width) const {
  const auto w = static_cast<std::size_t>(width);
  for (std::size_t p = 0; p < swaps_.size(); p += 2) {
    double* a = x + swaps_[p] * w;
    double* b = x + swaps_[p + 1] * w;
    double* c = y + swaps_[p] * w;
    double* d = y + swaps_[p + 1] * w;
    for (std::size_t k = 0; k < w; ++k) {
      std::swap(a[k], b[k]);
      std::swap(c[k], d[k]);
    }
  }
  const double scale = 1.0 / points_;
  for (int i = 0; i < points_; i += 4) {
    const std::size_t at = static_cast<std::size_t>(i) * w;
    FirstTwoRows(x + at, y + at, w, wideVectors_);
  }
  if (points_ == 4) {
    for (std::size_t k = 0; k < 4 * w; ++k) {
      x[k] *= scale;
      y[k] *= scale;
    }
    return;
  }
  // The later stages; the last also applies the 1/N scaling.
  for (int half = 4; half < points_; half *= 2) {
    const bool last = 2 * half == points_;
    for (int base = 0; base < points_; base += 2 * half) {
      for (int j = 0; j < half; ++j) {
        const std::size_t a = static_cast<std::size_t>(base + j) * w;
        const std::size_t b = a + static_cast<std::size_t>(half) * w;
        const double u1 = twiddleReal_[static_cast<std::size_t>(half + j)];
        const double u2 = twiddleImaginary_[static_cast<std::size_t>(half + j)];
        if (last) {
          ButterflyRows<true>(x + a, y + a, x + b, y + b, u1, u2, scale, w, wideVectors_);
        } else {
          ButterflyRows<false>(x + a, y + a, x + b, y + b, u1, u2, scale, w, wideVectors_);
        }
      }
    }
  }
}

void Radix2Fft::TransformRows(double* real, double* imaginary, int rows) const {
  for (int row = 0; row < rows; ++row) {
    double* x = real + static_cast<std::size_t>(row) * static_cast<std::size_t>(points_);
    double* y = imaginary + static_cast<std::size_t>(row) * static_cast<std::size_t>(points_);
    for (std::size_t p = 0; p < swaps_.size(); p += 2) {
      const std::uint32_t i = swaps_[p], r = swaps_[p + 1];
      std::swap(x[i], x[r]);
      std::swap(y[i], y[r]);
    }
  }
  ButterfliesOver(real, imaginary, rows * points_);
}

void Transform2D(const Radix2Fft& across, const Radix2Fft& down, double* real, double* imaginary) {
  across.TransformRows(real, imaginary, down.Points());
  down.TransformColumns(real, imaginary, across.Points());
}

}  // namespace zelvarpack
