#include "media/audio_fingerprint.h"

#include <algorithm>
#include <cmath>
#include <cstring>

// Every product and sum below must round exactly as the step-by-step loop
// does (the build passes -ffp-contract=off for this file).
#if defined(__clang__)
#pragma STDC FP_CONTRACT OFF
#endif

namespace zelvarpack {

AudioFingerprint::AudioFingerprint(bool allowWideVectors) : fft_(kPoints, allowWideVectors) {}

void AudioFingerprint::Transform(double* real, double* imaginary) const {
  fft_.Transform(real, imaginary);
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
    frameReal_[fft_.Reversed(k)] = sample * 0.5;
  }
  fft_.Butterflies(frameReal_, frameImaginary_);
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
