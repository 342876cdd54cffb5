// The spectral fingerprint that sorts video tiles into 256 tesserae, so that
// tiles that look alike are kept in the same mosaic.
//
// A tile is 128 x 72 pixels. Its luma, Y = (77 R + 150 G + 29 B) / 256
// (the BT.601 weights in 8-bit fixed point), is averaged over cells of 8 x 9
// pixels into a grid of 16 columns by 8 rows, and the grid goes through the
// two-dimensional forward transform of core/radix2_fft.h (each 16-point row,
// then each 8-point column, every output divided by the points). With that
// scaling X[0][0] is the tile's mean luma and, by Parseval, the energy of
// all other outputs is the variance of the cell means: sigma, their
// standard deviation, measures texture. Cells of 8 x 9 keep every feature
// larger than about a sixteenth of the tile, which is what tells tiles
// apart at a glance, and make the transform a few hundred operations.
//
// The bucket, eight bits, from most to least significant:
//   brightness (3 bits): min(7, floor(X[0][0] / 32));
//   texture (3 bits):    the number of thresholds 2, 4, 7, 11, 17, 26, 40
//                        that sigma reaches;
//   the last 2 bits:     for a textured tile (texture >= 1), its
//                        orientation: the share r of the AC energy in
//                        frequencies that vary faster across the tile than
//                        down it (|kx| / 128 > |ky| / 72 in cycles per
//                        pixel; equal rates count half to each side),
//                        min(3, floor(4 r)): 0 for horizontal stripes, 3
//                        for vertical ones;
//                        for a flat tile (texture 0), orientation means
//                        nothing and the two bits refine brightness
//                        instead: floor((X[0][0] mod 32) / 8).
// Tiles of like brightness, texture and grain therefore meet; brightness
// comes first because a JPEG's DC coding gains most from it, and flat tiles,
// the cheapest to code, are sorted finest by it.
//
// Thread safety: a VideoFingerprint holds its working grid; use one object
// per thread.
#ifndef ZELVARPACK_MEDIA_VIDEO_FINGERPRINT_H_
#define ZELVARPACK_MEDIA_VIDEO_FINGERPRINT_H_

#include <cstddef>
#include <cstdint>

#include "core/radix2_fft.h"

namespace zelvarpack {

class VideoFingerprint {
 public:
  static constexpr int kTileWidth = 128;
  static constexpr int kTileHeight = 72;
  static constexpr int kGridWidth = 16;
  static constexpr int kGridHeight = 8;
  static constexpr int kCellWidth = kTileWidth / kGridWidth;     // 8
  static constexpr int kCellHeight = kTileHeight / kGridHeight;  // 9
  static constexpr int kCells = kGridWidth * kGridHeight;
  static constexpr int kBuckets = 256;

  VideoFingerprint();
  VideoFingerprint(const VideoFingerprint&) = delete;
  VideoFingerprint& operator=(const VideoFingerprint&) = delete;

  // The bucket of the tile whose top-left RGBA pixel is at `rgba`, rows
  // `stride` bytes apart.
  int BucketOf(const std::uint8_t* rgba, std::size_t stride);

  // The steps alone, for tests and benchmarks: the cell means of the tile
  // (row-major, kGridWidth across); the 2-D transform in place; the bucket
  // of a transformed grid.
  static void LumaGrid(const std::uint8_t* rgba, std::size_t stride, double* grid);
  void Transform(double* real, double* imaginary) const;
  static int BucketOfSpectrum(const double* real, const double* imaginary);

 private:
  Radix2Fft across_;
  Radix2Fft down_;
  double real_[kCells];
  double imaginary_[kCells];
};

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_VIDEO_FINGERPRINT_H_
