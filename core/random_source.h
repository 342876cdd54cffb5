// Platform seam for random bytes (the GUID source).
#ifndef ZELVARPACK_CORE_RANDOM_SOURCE_H_
#define ZELVARPACK_CORE_RANDOM_SOURCE_H_

#include <cstddef>

namespace zelvarpack {

// Fills `out` with bytes from the operating system's random generator.
void FillRandom(unsigned char* out, std::size_t count);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_RANDOM_SOURCE_H_
