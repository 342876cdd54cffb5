// The spectral fingerprint of a stored chunk, by which the store gathers
// alike chunks into one composite.
//
// The first 1024 bytes of the chunk are reduced to a 16 x 16 grid, row by
// row: each cell is the mean of the next (up to) four bytes, truncated to an
// integer; cells past the end of the chunk are 0. Every row and then every
// column goes through the forward 16-point radix-2 transform of
// core/radix2_fft.h (bit-reversal, four butterfly stages whose twiddle
// factors come from the half-angle recurrence starting at cos = -1,
// sin = 0, then every output x 1/16). The
// fingerprint is sqrt(sum of the 256 squared real parts x 1/256), the sum
// taken row by row.
//
// Pure function; safe from any thread.
#ifndef ZELVARPACK_STORE_CHUNK_FINGERPRINT_H_
#define ZELVARPACK_STORE_CHUNK_FINGERPRINT_H_

#include <cstddef>

namespace zelvarpack::store {

inline constexpr std::size_t kChunkBytes = 4096;

// REQUIRES: count <= kChunkBytes (bytes past 1024 do not count anyway).
double ChunkFingerprint(const unsigned char* bytes, std::size_t count);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_CHUNK_FINGERPRINT_H_
