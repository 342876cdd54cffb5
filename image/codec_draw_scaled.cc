// Drawing into a sheet where none of the image libraries draws (libpng,
// libjpeg and giflib only decode and encode): images are copied, or scaled
// bilinearly, here. The Windows build draws through GDI+
// (image/codec_gdiplus.cc).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "image/codec.h"

namespace zelvarpack::image {

namespace {

// For each destination column (or row) of a scaled draw: the two source
// columns it blends and the weight of the second.
struct Tap {
  std::int32_t first;
  std::int32_t second;
  float weight;
};

// Pixel centres are matched (destination centre d + 0.5 maps to source
// (d + 0.5) * source / destination); positions past the first or last
// centre take that edge pixel, which is what mirroring the source at its
// edges gives for a two-tap filter.
std::vector<Tap> Taps(std::int32_t sourceSize, std::int32_t destinationSize) {
  std::vector<Tap> taps(static_cast<std::size_t>(destinationSize));
  const double scale = static_cast<double>(sourceSize) / destinationSize;
  for (std::int32_t d = 0; d < destinationSize; ++d) {
    const double at = std::clamp((d + 0.5) * scale - 0.5, 0.0, sourceSize - 1.0);
    const auto first = static_cast<std::int32_t>(std::floor(at));
    taps[static_cast<std::size_t>(d)] = {first, std::min(first + 1, sourceSize - 1),
                                         static_cast<float>(at - first)};
  }
  return taps;
}

}  // namespace

void DrawScaled(RgbaImage& sheet, const RgbaImage& source, std::int32_t x, std::int32_t y,
                std::int32_t width, std::int32_t height) {
  if (source.width <= 0 || source.height <= 0 || width <= 0 || height <= 0) return;
  const auto [left, top, right, bottom] = VisiblePart(sheet, x, y, width, height);
  if (left >= right || top >= bottom) return;
  const auto columns = static_cast<std::size_t>(right - left);

  if (width == source.width && height == source.height) {
    for (std::int64_t row = top; row < bottom; ++row) {
      std::memcpy(sheet.At(static_cast<std::int32_t>(x + left), static_cast<std::int32_t>(y + row)),
                  source.At(static_cast<std::int32_t>(left), static_cast<std::int32_t>(row)),
                  columns * 4);
    }
    return;
  }

  // Bilinear on premultiplied colour, so that transparent pixels lend no
  // colour to their neighbours.
  const std::vector<Tap> across = Taps(source.width, width);
  const std::vector<Tap> down = Taps(source.height, height);
  for (std::int64_t row = top; row < bottom; ++row) {
    const Tap& v = down[static_cast<std::size_t>(row)];
    std::uint8_t* out =
        sheet.At(static_cast<std::int32_t>(x + left), static_cast<std::int32_t>(y + row));
    for (std::int64_t column = left; column < right; ++column, out += 4) {
      const Tap& h = across[static_cast<std::size_t>(column)];
      const std::uint8_t* corners[4] = {source.At(h.first, v.first), source.At(h.second, v.first),
                                        source.At(h.first, v.second),
                                        source.At(h.second, v.second)};
      const float weights[4] = {(1 - h.weight) * (1 - v.weight), h.weight * (1 - v.weight),
                                (1 - h.weight) * v.weight, h.weight * v.weight};
      float sum[4] = {0, 0, 0, 0};
      for (int k = 0; k < 4; ++k) {
        const float alpha = corners[k][3] * weights[k];
        sum[0] += corners[k][0] * alpha;
        sum[1] += corners[k][1] * alpha;
        sum[2] += corners[k][2] * alpha;
        sum[3] += alpha;
      }
      if (sum[3] <= 0) {
        std::memset(out, 0, 4);
        continue;
      }
      for (int c = 0; c < 3; ++c) {
        out[c] = static_cast<std::uint8_t>(std::clamp(sum[c] / sum[3] + 0.5f, 0.0f, 255.0f));
      }
      out[3] = static_cast<std::uint8_t>(std::clamp(sum[3] + 0.5f, 0.0f, 255.0f));
    }
  }
}

}  // namespace zelvarpack::image
