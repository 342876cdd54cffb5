// The textbook radix-2 loop, step by step, as the reference that tests and
// benchmarks hold the engine's transform (core/radix2_fft.h) to: the
// bit-reversal swap walk, the twiddle recurrence run inside the butterfly
// loop, then a division by N. Written for clarity, not speed; the engine's
// transform must match it bit for bit. (The build targets plain x86-64, which
// has no fused multiply-add, so the compiler rounds each step separately.)
#ifndef ZELVARPACK_TESTS_TEXTBOOK_FFT_H_
#define ZELVARPACK_TESTS_TEXTBOOK_FFT_H_

#include <cmath>
#include <utility>
#include <vector>

namespace zelvarpack::reference {

// In place over x[0..n) and y[0..n). REQUIRES: n a power of two, n >= 2.
inline void TextbookFft(double* x, double* y, int n) {
  for (int i = 0, j = 0; i < n - 1; ++i) {
    if (i < j) {
      std::swap(x[i], x[j]);
      std::swap(y[i], y[j]);
    }
    int k = n >> 1;
    while (k <= j) {
      j -= k;
      k >>= 1;
    }
    j += k;
  }
  double c1 = -1.0, c2 = 0.0;
  for (int l1 = 1; l1 < n; l1 *= 2) {
    const int l2 = 2 * l1;
    double u1 = 1.0, u2 = 0.0;
    for (int j = 0; j < l1; ++j) {
      for (int i = j; i < n; i += l2) {
        const int i1 = i + l1;
        const double t1 = u1 * x[i1] - u2 * y[i1];
        const double t2 = u1 * y[i1] + u2 * x[i1];
        x[i1] = x[i] - t1;
        y[i1] = y[i] - t2;
        x[i] += t1;
        y[i] += t2;
      }
      const double z = u1 * c1 - u2 * c2;
      u2 = u1 * c2 + u2 * c1;
      u1 = z;
    }
    c2 = -std::sqrt((1.0 - c1) / 2.0);
    c1 = std::sqrt((1.0 + c1) / 2.0);
  }
  for (int i = 0; i < n; ++i) {
    x[i] /= n;
    y[i] /= n;
  }
}

// The two-dimensional transform of a row-major grid `width` x `height`:
// every row, then every column (gathered, transformed, put back).
inline void TextbookFft2D(double* x, double* y, int width, int height) {
  for (int row = 0; row < height; ++row) TextbookFft(x + row * width, y + row * width, width);
  std::vector<double> cx(static_cast<std::size_t>(height)), cy(static_cast<std::size_t>(height));
  for (int column = 0; column < width; ++column) {
    for (int row = 0; row < height; ++row) {
      cx[static_cast<std::size_t>(row)] = x[row * width + column];
      cy[static_cast<std::size_t>(row)] = y[row * width + column];
    }
    TextbookFft(cx.data(), cy.data(), height);
    for (int row = 0; row < height; ++row) {
      x[row * width + column] = cx[static_cast<std::size_t>(row)];
      y[row * width + column] = cy[static_cast<std::size_t>(row)];
    }
  }
}

}  // namespace zelvarpack::reference

#endif  // ZELVARPACK_TESTS_TEXTBOOK_FFT_H_
