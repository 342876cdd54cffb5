// Identifier makers. Both give the 38-character braced, upper-case
// hexadecimal GUID text, e.g. {6B29FC40-CA47-1067-B31D-00DD010662DA}.
// Pure apart from the random source; safe from any thread.
#ifndef ZELVARPACK_CORE_IDENTIFIERS_H_
#define ZELVARPACK_CORE_IDENTIFIERS_H_

#include <cstddef>
#include <cstdint>
#include <string>

// A new random (version 4) GUID.
std::string NewGuidString();

// The 32-bit collate hash of a byte string: h = rotl(h, 8) + c for each byte,
// with c taken as a signed byte, modulo 2^32. Stored content is named by it.
std::int32_t CollateHash(const unsigned char* bytes, std::size_t count);

// A GUID-shaped text computed from n alone: the first group is n in eight
// hexadecimal digits, the rest a deterministic scramble of it.
std::string IdFromNumber(std::int32_t n);

// The identifier under which the stores keep `bytes`: IdFromNumber of their
// collate hash.
std::string ContentId(const unsigned char* bytes, std::size_t count);

// True for exactly the shape both makers produce: "{", 8-4-4-4-12 upper-case
// hexadecimal digits with dashes, "}". Anything else must never reach a path.
bool IsGuidShaped(const std::string& text);

#endif  // ZELVARPACK_CORE_IDENTIFIERS_H_
