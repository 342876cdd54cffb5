#include "store/chunk_fingerprint.h"

#include <algorithm>
#include <array>
#include <cmath>

// Every product and sum must round as the step-by-step loop does; the build
// also passes -ffp-contract=off for this file.
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace zelvarpack::store {

namespace {

constexpr int kPoints = 16;
constexpr int kStages = 4;
constexpr double kScale = 0.0625;           // 1/16, exact
constexpr double kCellWeight = 0.00390625;  // 1/256, exact

struct Twiddles {
  // Twiddle j of the stage whose butterflies span 2 * h points sits at
  // index h + j (h = 1, 2, 4, 8).
  std::array<double, kPoints> real{};
  std::array<double, kPoints> imaginary{};
  std::array<int, kPoints> reversed{};

  Twiddles() {
    double c1 = -1.0;
    double c2 = 0.0;
    for (int half = 1; half < kPoints; half *= 2) {
      double u1 = 1.0;
      double u2 = 0.0;
      for (int j = 0; j < half; ++j) {
        real[half + j] = u1;
        imaginary[half + j] = u2;
        const double z = u1 * c1 - u2 * c2;
        u2 = u1 * c2 + u2 * c1;
        u1 = z;
      }
      c2 = -std::sqrt((1.0 - c1) / 2.0);  // negative: the forward direction
      c1 = std::sqrt((1.0 + c1) / 2.0);
    }
    for (int i = 0; i < kPoints; ++i) {
      int r = 0;
      for (int bit = 0; bit < kStages; ++bit) r |= ((i >> bit) & 1) << (kStages - 1 - bit);
      reversed[i] = r;
    }
  }
};

const Twiddles& TheTwiddles() {
  static const Twiddles twiddles;
  return twiddles;
}

// In place over x[0..15] and y[0..15].
void Transform16(double* x, double* y, const Twiddles& w) {
  for (int i = 0; i < kPoints; ++i) {
    const int r = w.reversed[i];
    if (i < r) {
      std::swap(x[i], x[r]);
      std::swap(y[i], y[r]);
    }
  }
  for (int half = 1; half < kPoints; half *= 2) {
    for (int j = 0; j < half; ++j) {
      const double u1 = w.real[half + j];
      const double u2 = w.imaginary[half + j];
      for (int i = j; i < kPoints; i += 2 * half) {
        double& xa = x[i];
        double& ya = y[i];
        double& xb = x[i + half];
        double& yb = y[i + half];
        const double t1 = u1 * xb - u2 * yb;
        const double t2 = u1 * yb + u2 * xb;
        xb = xa - t1;
        yb = ya - t2;
        xa += t1;
        ya += t2;
      }
    }
  }
  for (int i = 0; i < kPoints; ++i) {
    x[i] *= kScale;
    y[i] *= kScale;
  }
}

}  // namespace

double ChunkFingerprint(const unsigned char* bytes, std::size_t count) {
  const Twiddles& w = TheTwiddles();
  double real[kPoints * kPoints];
  double imaginary[kPoints * kPoints] = {};
  for (std::size_t cell = 0; cell < kPoints * kPoints; ++cell) {
    const std::size_t first = cell * 4;
    const std::size_t taken = first < count ? std::min<std::size_t>(4, count - first) : 0;
    unsigned sum = 0;
    for (std::size_t k = 0; k < taken; ++k) sum += bytes[first + k];
    real[cell] = taken == 0 ? 0.0 : static_cast<double>(sum / static_cast<unsigned>(taken));
  }
  for (int row = 0; row < kPoints; ++row) {
    Transform16(real + row * kPoints, imaginary + row * kPoints, w);
  }
  for (int column = 0; column < kPoints; ++column) {
    double x[kPoints];
    double y[kPoints];
    for (int row = 0; row < kPoints; ++row) {
      x[row] = real[row * kPoints + column];
      y[row] = imaginary[row * kPoints + column];
    }
    Transform16(x, y, w);
    for (int row = 0; row < kPoints; ++row) {
      real[row * kPoints + column] = x[row];
      imaginary[row * kPoints + column] = y[row];
    }
  }
  double sum = 0.0;
  for (const double value : real) sum += value * value;
  return std::sqrt(sum * kCellWeight);
}

}  // namespace zelvarpack::store
