// The spectral fingerprint that sorts pieces of sound into tesserae, and the
// rule that cuts a one-second block into pieces.
//
// The fingerprint of a piece of L bytes: the piece read as signed 16-bit
// little-endian samples (channels not separated), each sample x 0.5 put into
// the real part of a 1024-point complex frame, a forward radix-2 FFT with
// bit-reversal and twiddle factors made by the half-angle recurrence starting
// from -1, every output scaled by 1/1024, then
//   F = sqrt(sum of the squared real parts / (L / 2))   (L / 2 in integers).
// The transform is the engine's shared one (core/radix2_fft.h), bit for bit
// the step-by-step loop.
//
// Bounds this engine adds where the rule has no answer:
//  - a piece of odd length: its last sample has a high byte of 0;
//  - a piece longer than 2048 bytes: only its first 2048 bytes (1024
//    samples, what the frame holds) are fingerprinted, and L is taken as 2048;
//  - a one-byte piece: the divisor L / 2 is taken as 1, not 0;
//  - the bucket F x 100 is clamped to 0..65535.
//
// Thread safety: an AudioFingerprint holds its working frame; use one object
// per thread.
#ifndef ZELVARPACK_MEDIA_AUDIO_FINGERPRINT_H_
#define ZELVARPACK_MEDIA_AUDIO_FINGERPRINT_H_

#include <cstdint>

#include "core/radix2_fft.h"

namespace zelvarpack {

class AudioFingerprint {
 public:
  static constexpr int kPoints = 1024;
  static constexpr int kStages = 10;
  // Bytes of a piece that fit into the frame.
  static constexpr std::int64_t kFrameBytes = 2 * kPoints;
  static constexpr std::int32_t kBuckets = 65536;

  // `allowWideVectors` false keeps the transform on two-lane vectors even
  // where AVX is available (the results are the same either way).
  explicit AudioFingerprint(bool allowWideVectors = true);
  AudioFingerprint(const AudioFingerprint&) = delete;
  AudioFingerprint& operator=(const AudioFingerprint&) = delete;

  // F for `length` bytes at `piece`. REQUIRES: length >= 1.
  double Of(const unsigned char* piece, std::int64_t length);

  // The tessera a fingerprint falls into: F x 100 truncated toward zero,
  // clamped to 0..65535 (a NaN goes to 0).
  static std::int32_t BucketOf(double fingerprint);

  // The forward transform alone, in place: bit-reversal permutation, the ten
  // butterfly stages and the 1/1024 scaling. For benchmarks and tests.
  void Transform(double* real, double* imaginary) const;

 private:
  Radix2Fft fft_;
  double frameReal_[kPoints];
  double frameImaginary_[kPoints];
};

// How many pieces a block of n bytes is cut into: 10 when 10 divides n,
// otherwise the largest of 9..1 that divides n. REQUIRES: n >= 1.
std::int32_t PiecesInBlock(std::int64_t n);

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_AUDIO_FINGERPRINT_H_
