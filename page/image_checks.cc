#include "page/image_checks.h"

#include <cstdint>

namespace zelvarpack::page {

namespace {

constexpr std::string_view kPngSignature("\x89PNG\r\n\x1a\n", 8);

std::uint32_t BigEndian32(std::string_view bytes, std::size_t at) {
  return (std::uint32_t{static_cast<unsigned char>(bytes[at])} << 24) |
         (std::uint32_t{static_cast<unsigned char>(bytes[at + 1])} << 16) |
         (std::uint32_t{static_cast<unsigned char>(bytes[at + 2])} << 8) |
         std::uint32_t{static_cast<unsigned char>(bytes[at + 3])};
}

}  // namespace

bool PngWouldLoseTransparency(std::string_view bytes) {
  // The header chunk: length, "IHDR", width, height, bit depth, colour type.
  if (bytes.size() < 33 || bytes.substr(0, 8) != kPngSignature) return false;
  const unsigned char colourType = static_cast<unsigned char>(bytes[25]);
  bool transparent = colourType == 4 || colourType == 6;
  // The chunks after the header, up to IEND or the end of the data.
  std::size_t at = 8;
  while (at + 12 <= bytes.size()) {
    const std::uint32_t length = BigEndian32(bytes, at);
    const std::string_view type = bytes.substr(at + 4, 4);
    if (type == "IEND" || length > bytes.size()) break;
    if (type == "bKGD" && length > 0) return false;  // packed with alpha
    if (type == "tRNS") transparent = true;
    at += 12 + static_cast<std::size_t>(length);
  }
  return transparent;
}

}  // namespace zelvarpack::page
