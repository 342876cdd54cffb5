#include "store/chunk_fingerprint.h"

#include <algorithm>
#include <cmath>

#include "core/radix2_fft.h"

// Every product and sum must round as the step-by-step loop does; the build
// also passes -ffp-contract=off for this file.
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace zelvarpack::store {

namespace {

constexpr int kPoints = 16;
constexpr double kCellWeight = 0.00390625;  // 1/256, exact

const Radix2Fft& TheTransform() {
  static const Radix2Fft transform(kPoints);
  return transform;
}

}  // namespace

double ChunkFingerprint(const unsigned char* bytes, std::size_t count) {
  double real[kPoints * kPoints];
  double imaginary[kPoints * kPoints] = {};
  for (std::size_t cell = 0; cell < kPoints * kPoints; ++cell) {
    const std::size_t first = cell * 4;
    const std::size_t taken = first < count ? std::min<std::size_t>(4, count - first) : 0;
    unsigned sum = 0;
    for (std::size_t k = 0; k < taken; ++k) sum += bytes[first + k];
    real[cell] = taken == 0 ? 0.0 : static_cast<double>(sum / static_cast<unsigned>(taken));
  }
  Transform2D(TheTransform(), TheTransform(), real, imaginary);
  double sum = 0.0;
  for (const double value : real) sum += value * value;
  return std::sqrt(sum * kCellWeight);
}

}  // namespace zelvarpack::store
