// The PNG writer against libpng as the reader: every layout it emits, at
// widths that leave part of a byte or of a filter step over, decodes to
// exactly the pixels given, and the file is well formed chunk by chunk.
#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "image/codec.h"
#include "tests/codec_samples.h"

namespace zelvarpack::image {
namespace {

using samples::Bytes;
using samples::Photo;

std::uint32_t BigEndian32(const std::string& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[at])) << 24 |
         static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[at + 1])) << 16 |
         static_cast<std::uint32_t>(static_cast<std::uint8_t>(bytes[at + 2])) << 8 |
         static_cast<std::uint8_t>(bytes[at + 3]);
}

// The chunk types in file order; fails the test on a bad CRC or a chunk
// running past the end.
std::vector<std::string> ChunkTypes(const std::string& png) {
  std::vector<std::string> types;
  EXPECT_EQ(png.compare(0, 8, "\x89PNG\r\n\x1A\n"), 0);
  for (std::size_t at = 8; at < png.size();) {
    EXPECT_LE(at + 12, png.size());
    if (at + 12 > png.size()) break;
    const std::size_t length = BigEndian32(png, at);
    EXPECT_LE(at + 12 + length, png.size());
    if (at + 12 + length > png.size()) break;
    const auto crc = crc32(crc32(0, Z_NULL, 0), Bytes(png) + at + 4, static_cast<uInt>(length + 4));
    types.push_back(png.substr(at + 4, 4));
    EXPECT_EQ(BigEndian32(png, at + 8 + length), crc) << types.back();
    at += 12 + length;
  }
  return types;
}

// The filter type byte of each row, from the inflated image data.
std::vector<int> RowFilters(const std::string& png, std::size_t rowBytes) {
  std::string data;
  for (std::size_t at = 8; at + 12 <= png.size();) {
    const std::size_t length = BigEndian32(png, at);
    if (png.compare(at + 4, 4, "IDAT") == 0) data += png.substr(at + 8, length);
    at += 12 + length;
  }
  const std::size_t height = BigEndian32(png, 20);
  std::vector<std::uint8_t> raw(height * (rowBytes + 1));
  uLongf size = raw.size();
  std::vector<int> filters;
  if (uncompress(raw.data(), &size, Bytes(data), data.size()) != Z_OK || size != raw.size()) {
    ADD_FAILURE() << "image data does not inflate to the expected size";
    return filters;
  }
  for (std::size_t y = 0; y < height; ++y) filters.push_back(raw[y * (rowBytes + 1)]);
  return filters;
}

// Decoded by libpng's own reader into RGBA; false on any error it reports.
bool ReadWithLibpng(const std::string& png, RgbaImage& out) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) return false;
  image.format = PNG_FORMAT_RGBA;
  out.width = static_cast<std::int32_t>(image.width);
  out.height = static_cast<std::int32_t>(image.height);
  out.pixels.assign(PNG_IMAGE_SIZE(image), 0);
  const bool ok = png_image_finish_read(&image, nullptr, out.pixels.data(), 0, nullptr) != 0;
  png_image_free(&image);
  return ok;
}

// `colours` distinct colours spread over the image; the first `translucent`
// of them are not opaque (one fully transparent).
RgbaImage Indexed(std::int32_t width, std::int32_t height, int colours, int translucent) {
  RgbaImage image;
  image.width = width;
  image.height = height;
  image.pixels.resize(static_cast<std::size_t>(width) * height * 4);
  for (std::int32_t y = 0; y < height; ++y) {
    for (std::int32_t x = 0; x < width; ++x) {
      const int index = (y * width + x) % colours;
      std::uint8_t* p = image.At(x, y);
      p[0] = static_cast<std::uint8_t>(index * 37);
      p[1] = static_cast<std::uint8_t>(index);
      p[2] = static_cast<std::uint8_t>(255 - index);
      p[3] = index < translucent ? static_cast<std::uint8_t>(index * 50) : 255;
    }
  }
  return image;
}

struct Layout {
  const char* name;
  int colours;  // 0: a photo, more than 256 colours
  bool alpha;
  std::uint8_t bitDepth;
  std::uint8_t colourType;
};

constexpr Layout kLayouts[] = {
    {"palette of 2", 2, true, 1, 3},
    {"palette of 4", 4, false, 2, 3},
    {"palette of 16", 16, true, 4, 3},
    {"palette of 17", 17, true, 8, 3},
    {"palette of 256", 256, false, 8, 3},
    {"RGB", 0, false, 8, 2},
    {"RGBA", 0, true, 8, 6},
};

TEST(PngWriter, EveryLayoutDecodesToTheExactPixels) {
  const std::pair<std::int32_t, std::int32_t> sizes[] = {{1, 1}, {1, 9},   {7, 1},  {3, 5},
                                                         {9, 4}, {33, 17}, {64, 40}};
  for (const Layout& layout : kLayouts) {
    for (const auto& [width, height] : sizes) {
      SCOPED_TRACE(std::string(layout.name) + " " + std::to_string(width) + "x" +
                   std::to_string(height));
      RgbaImage image;
      if (layout.colours == 0) {
        image = Photo(width, height, static_cast<std::uint32_t>(width * height));
        // Small photos may repeat colours; a ramp makes them more than 256.
        for (std::int32_t i = 0; i < width * height; ++i) {
          image.pixels[4 * static_cast<std::size_t>(i) + 2] = static_cast<std::uint8_t>(i);
          image.pixels[4 * static_cast<std::size_t>(i) + 1] = static_cast<std::uint8_t>(i >> 8);
        }
        if (layout.alpha) image.pixels[3] = 100;
        if (width * height <= 256) continue;  // cannot have more than 256 colours
      } else {
        if (width * height < layout.colours) continue;  // not every colour would appear
        image = Indexed(width, height, layout.colours, layout.alpha ? layout.colours / 2 : 0);
      }
      std::string png;
      ASSERT_TRUE(EncodePng(image, png));
      ASSERT_GT(png.size(), 26u);
      EXPECT_EQ(static_cast<std::uint8_t>(png[24]), layout.bitDepth);
      EXPECT_EQ(static_cast<std::uint8_t>(png[25]), layout.colourType);
      const std::vector<std::string> types = ChunkTypes(png);
      ASSERT_GE(types.size(), 3u);
      EXPECT_EQ(types.front(), "IHDR");
      EXPECT_EQ(types.back(), "IEND");
      EXPECT_EQ(std::count(types.begin(), types.end(), "PLTE"), layout.colourType == 3 ? 1 : 0);
      RgbaImage back;
      ASSERT_TRUE(ReadWithLibpng(png, back));
      ASSERT_EQ(back.width, width);
      ASSERT_EQ(back.height, height);
      EXPECT_EQ(back.pixels, image.pixels);
    }
  }
}

TEST(PngWriter, EachRowFilterRoundTrips) {
  // Odd widths, so that a row is no whole number of words; RGB and RGBA, so
  // that the filters step back by 3 and by 4 bytes.
  RgbaImage translucent = Photo(37, 19, 21);
  translucent.At(5, 5)[3] = 0;
  translucent.At(36, 18)[3] = 99;
  RgbaImage opaque = Photo(51, 17, 22);
  for (const RgbaImage* image : {&translucent, &opaque}) {
    const std::size_t rowBytes =
        static_cast<std::size_t>(image->width) * (image == &opaque ? 3 : 4);
    for (int filter = 0; filter <= 4; ++filter) {
      SCOPED_TRACE(filter);
      std::string png;
      ASSERT_TRUE(EncodePngFiltered(*image, filter, png));
      EXPECT_EQ(png[25], image == &opaque ? 2 : 6);
      EXPECT_EQ(RowFilters(png, rowBytes), std::vector<int>(image->height, filter));
      RgbaImage back;
      ASSERT_TRUE(ReadWithLibpng(png, back));
      EXPECT_EQ(back.pixels, image->pixels);
    }
  }
  // The sampled choice: a ramp along each row, rows unrelated, takes sub.
  RgbaImage ramp = Photo(301, 21, 23);
  for (std::int32_t y = 0; y < ramp.height; ++y) {
    for (std::int32_t x = 0; x < ramp.width; ++x) {
      for (int c = 0; c < 3; ++c)
        ramp.At(x, y)[c] = static_cast<std::uint8_t>(y * 53 * (c + 1) + x);
    }
  }
  std::string png;
  ASSERT_TRUE(EncodePng(ramp, png));
  EXPECT_EQ(RowFilters(png, 301 * 3), std::vector<int>(21, 1));
}

TEST(PngWriter, RefusesAnEmptyImage) {
  std::string png = "left over";
  EXPECT_FALSE(EncodePng(RgbaImage{}, png));
  EXPECT_TRUE(png.empty());
  RgbaImage noRows;
  noRows.width = 5;
  EXPECT_FALSE(EncodePng(noRows, png));
}

}  // namespace
}  // namespace zelvarpack::image
