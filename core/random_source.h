// Platform seam for random bytes and new GUIDs. Safe from any thread.
#ifndef ZELVARPACK_CORE_RANDOM_SOURCE_H_
#define ZELVARPACK_CORE_RANDOM_SOURCE_H_

#include <cstddef>
#include <string>

namespace zelvarpack {

// Fills `out` with bytes from the operating system's random generator.
void FillRandom(unsigned char* out, std::size_t count);

// A new random (version 4) GUID as 38 characters: braces, upper-case
// hexadecimal digits in groups of 8-4-4-4-12, e.g.
// {6B29FC40-CA47-4067-B31D-00DD010662DA}.
std::string NewGuidText();

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_RANDOM_SOURCE_H_
