#include "image/image_header.h"

#include <cstdint>

namespace zelvarpack::image {

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

bool ReadImageSize(std::string_view bytes, int& width, int& height) {
  auto byte = [&bytes](std::size_t at) { return static_cast<unsigned char>(bytes[at]); };
  if (bytes.size() >= 24 && bytes.substr(0, 8) == kPngSignature) {
    width = static_cast<int>(BigEndian32(bytes, 16) & 0x7fffffff);
    height = static_cast<int>(BigEndian32(bytes, 20) & 0x7fffffff);
    return true;
  }
  if (bytes.size() >= 10 && (bytes.substr(0, 6) == "GIF87a" || bytes.substr(0, 6) == "GIF89a")) {
    width = byte(6) | (byte(7) << 8);
    height = byte(8) | (byte(9) << 8);
    return true;
  }
  if (bytes.size() < 4 || byte(0) != 0xFF || byte(1) != 0xD8) return false;
  // JPEG: walk the marker segments to the first start-of-frame.
  std::size_t at = 2;
  while (at + 4 <= bytes.size()) {
    if (byte(at) != 0xFF) return false;
    const unsigned char marker = byte(at + 1);
    if (marker == 0xFF) {
      ++at;
      continue;
    }
    const std::size_t length = (std::size_t{byte(at + 2)} << 8) | byte(at + 3);
    const bool startOfFrame =
        marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (startOfFrame) {
      if (at + 9 > bytes.size()) return false;
      height = (byte(at + 5) << 8) | byte(at + 6);
      width = (byte(at + 7) << 8) | byte(at + 8);
      return true;
    }
    if (marker == 0xD9 || marker == 0xDA || length < 2) return false;
    at += 2 + length;
  }
  return false;
}

}  // namespace zelvarpack::image
