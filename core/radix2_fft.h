// The forward radix-2 complex FFT behind every spectral fingerprint of the
// engine: the audio pieces, the stored chunks and the video tiles.
//
// The transform is the classic loop, and every output is bit for bit what
// that loop computes:
//   1. the bit-reversal permutation;
//   2. log2(N) butterfly stages; the stage whose butterflies span 2h points
//      uses the twiddles u_j (j = 0..h-1) made by the half-angle recurrence:
//      (c1, c2) starts at (-1, 0) and, after each stage, becomes
//      (sqrt((1 + c1) / 2), -sqrt((1 - c1) / 2)); u_0 = (1, 0) and
//      u_{j+1} = u_j x (c1, c2). A butterfly on points i and k = i + h:
//        t1 = u1 x[k] - u2 y[k],  t2 = u1 y[k] + u2 x[k],
//        x[k] = x[i] - t1,  y[k] = y[i] - t2,  x[i] += t1,  y[i] += t2;
//   3. every output times 1/N.
// The twiddles are made once, by that same recurrence; the butterflies of a
// stage touch disjoint points, so running them group by group, or several
// lanes at a time, changes no value. The first two stages skip their
// products by (1, 0) and (0, -1), which changes at most the sign of a zero
// (invisible to any later sum, product or square). Files that use these
// results must be built without fused multiply-add (-ffp-contract=off): the
// build sets it for them.
//
// Thread safety: a Radix2Fft is read-only after construction and may be
// shared by any number of threads; the transforms work in the caller's
// arrays.
#ifndef ZELVARPACK_CORE_RADIX2_FFT_H_
#define ZELVARPACK_CORE_RADIX2_FFT_H_

#include <cstdint>
#include <vector>

namespace zelvarpack {

class Radix2Fft {
 public:
  static constexpr int kMinPoints = 4;
  static constexpr int kMaxPoints = 1 << 16;

  // REQUIRES: `points` is a power of two from kMinPoints to kMaxPoints.
  // `allowWideVectors` false keeps the stages on two-lane vectors even where
  // AVX is available (the results are the same either way).
  explicit Radix2Fft(int points, bool allowWideVectors = true);

  int Points() const { return points_; }
  // Where point i goes in the bit-reversal permutation.
  int Reversed(int i) const { return static_cast<int>(reversed_[static_cast<unsigned>(i)]); }

  // The whole transform, in place over `real` and `imaginary` (Points()
  // values each).
  void Transform(double* real, double* imaginary) const;
  // Steps 2 and 3 alone, for a frame its caller already put in bit-reversed
  // order (a fingerprint can place its samples there directly).
  void Butterflies(double* real, double* imaginary) const;

  // Transform over `rows` transforms stored one after another (the rows of
  // a row-major grid Points() wide), each exactly as Transform would.
  void TransformRows(double* real, double* imaginary, int rows) const;

  // The same stages over `width` interleaved transforms: point i of
  // transform c is element i * width + c, so the columns of a row-major
  // grid `width` wide are transformed together, each exactly as Transform
  // would. REQUIRES: width >= 1.
  void TransformColumns(double* real, double* imaginary, int width) const;

 private:
  void ButterfliesOver(double* real, double* imaginary, int total) const;

  int points_;
  bool wideVectors_;
  // Twiddle j of the stage whose butterflies span 2h points sits at index
  // h + j (h = 1, 2, 4, ..., N / 2); index 0 is unused.
  std::vector<double> twiddleReal_;
  std::vector<double> twiddleImaginary_;
  std::vector<std::uint32_t> reversed_;
  // The pairs (i, reversed i) with i < reversed i: the permutation as swaps.
  std::vector<std::uint32_t> swaps_;
};

// The two-dimensional transform of a row-major grid of across.Points()
// columns and down.Points() rows: every row through `across`, then every
// column through `down`. REQUIRES: the arrays hold the whole grid.
void Transform2D(const Radix2Fft& across, const Radix2Fft& down, double* real, double* imaginary);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_RADIX2_FFT_H_
