#include "core/identifiers.h"

#include <cstdio>

#include "core/random_source.h"

namespace {

// The decimal text of x as a signed 32-bit number, hashed.
std::uint32_t HashOfDecimal(std::uint32_t x) {
  char text[16];
  const int count = std::snprintf(text, sizeof text, "%d", static_cast<std::int32_t>(x));
  return static_cast<std::uint32_t>(
      CollateHash(reinterpret_cast<const unsigned char*>(text), static_cast<std::size_t>(count)));
}

}  // namespace

std::int32_t CollateHash(const unsigned char* bytes, std::size_t count) {
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const auto c =
        static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(bytes[i])));
    h = ((h << 8) | (h >> 24)) + c;
  }
  return static_cast<std::int32_t>(h);
}

std::string IdFromNumber(std::int32_t n) {
  const std::uint32_t h1 = HashOfDecimal(static_cast<std::uint32_t>(n));
  const std::uint32_t h2 = HashOfDecimal(h1);
  unsigned b[8];
  std::uint32_t h = h2;
  for (unsigned& byte : b) {
    h = HashOfDecimal(h);
    byte = h & 0xFF;
  }
  char text[39];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<std::uint32_t>(n), h1 & 0xFFFF, h2 & 0xFFFF, b[0], b[1], b[2], b[3],
                b[4], b[5], b[6], b[7]);
  return text;
}

std::string ContentId(const unsigned char* bytes, std::size_t count) {
  return IdFromNumber(CollateHash(bytes, count));
}

std::string NewGuidString() { return zelvarpack::NewGuidText(); }

bool IsGuidShaped(const std::string& text) {
  static constexpr char kShape[] = "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}";
  if (text.size() != sizeof kShape - 1) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (kShape[i] == 'X') {
      if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
    } else if (c != kShape[i]) {
      return false;
    }
  }
  return true;
}
