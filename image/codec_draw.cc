// The library-free part of the codec seam: format sniffing, dispatch and
// blank canvases.
#include <algorithm>
#include <cstring>

#include "image/codec.h"

namespace zelvarpack::image {

ImageFormat SniffImageFormat(const std::uint8_t* bytes, std::size_t count) {
  auto starts = [&](const char* prefix, std::size_t n) {
    return count >= n && std::memcmp(bytes, prefix, n) == 0;
  };
  if (starts("GIF87a", 6) || starts("GIF89a", 6)) return ImageFormat::kGif;
  if (starts("\xFF\xD8\xFF", 3)) return ImageFormat::kJpeg;
  if (starts("\x89PNG\r\n\x1A\n", 8)) return ImageFormat::kPng;
  return ImageFormat::kUnknown;
}

bool DecodeImage(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
                 ImageFormat& format, RgbaImage& out) {
  format = SniffImageFormat(bytes, count);
  switch (format) {
    case ImageFormat::kGif:
      return DecodeGif(bytes, count, limits, out);
    case ImageFormat::kJpeg:
      return DecodeJpeg(bytes, count, limits, out);
    case ImageFormat::kPng:
      return DecodePng(bytes, count, limits, out);
    case ImageFormat::kUnknown:
      break;
  }
  out = RgbaImage{};
  return false;
}

RgbaImage NewCanvas(std::int32_t width, std::int32_t height, std::uint8_t r, std::uint8_t g,
                    std::uint8_t b, std::uint8_t a) {
  RgbaImage canvas;
  canvas.width = std::max(width, 0);
  canvas.height = std::max(height, 0);
  const std::size_t count = static_cast<std::size_t>(canvas.width) * canvas.height;
  canvas.pixels.resize(count * 4);
  if (count == 0) return canvas;
  // One pixel, then the filled part doubled until the canvas is full.
  const std::uint8_t colour[4] = {r, g, b, a};
  std::uint8_t* const bytes = canvas.pixels.data();
  std::memcpy(bytes, colour, 4);
  for (std::size_t filled = 4, total = count * 4; filled < total; filled *= 2) {
    std::memcpy(bytes + filled, bytes, std::min(filled, total - filled));
  }
  return canvas;
}

VisibleRectangle VisiblePart(const RgbaImage& sheet, std::int32_t x, std::int32_t y,
                             std::int32_t width, std::int32_t height) {
  return {std::max<std::int64_t>(0, -static_cast<std::int64_t>(x)),
          std::max<std::int64_t>(0, -static_cast<std::int64_t>(y)),
          std::min<std::int64_t>(width, static_cast<std::int64_t>(sheet.width) - x),
          std::min<std::int64_t>(height, static_cast<std::int64_t>(sheet.height) - y)};
}

}  // namespace zelvarpack::image
