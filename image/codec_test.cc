#include "image/codec.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "tests/codec_samples.h"

namespace zelvarpack::image {
namespace {

using namespace samples;

bool Decode(const std::string& bytes, RgbaImage& out, ImageFormat* format = nullptr,
            DecodeLimits limits = {}) {
  ImageFormat sniffed;
  const bool ok = DecodeImage(Bytes(bytes), bytes.size(), limits, sniffed, out);
  if (format != nullptr) *format = sniffed;
  return ok;
}

// Two colours and transparency: exact through every lossless path.
RgbaImage Checker(std::int32_t width, std::int32_t height) {
  RgbaImage image = Solid(width, height, 0);
  for (std::int32_t y = 0; y < height; ++y) {
    for (std::int32_t x = 0; x < width; ++x) {
      const std::uint32_t colour = (x + y) % 3 == 0   ? 0
                                   : (x + y) % 3 == 1 ? 0xCC2200FF
                                                      : 0x0033AAFF;
      const std::uint8_t rgba[4] = {
          static_cast<std::uint8_t>(colour >> 24), static_cast<std::uint8_t>(colour >> 16),
          static_cast<std::uint8_t>(colour >> 8), static_cast<std::uint8_t>(colour)};
      std::memcpy(image.At(x, y), rgba, 4);
    }
  }
  return image;
}

TEST(ImageCodec, DecodesGifPngAndJpegMadeByTheLibraries) {
  const RgbaImage checker = Checker(13, 7);
  RgbaImage out;
  ImageFormat format;
  ASSERT_TRUE(Decode(MakeGif(checker), out, &format));
  EXPECT_EQ(format, ImageFormat::kGif);
  EXPECT_EQ(out.pixels, checker.pixels);
  ASSERT_TRUE(Decode(MakePng(checker), out, &format));
  EXPECT_EQ(format, ImageFormat::kPng);
  EXPECT_EQ(out.pixels, checker.pixels);

  const RgbaImage photo = Photo(40, 30, 1);
  std::string jpeg;
  ASSERT_TRUE(EncodeJpeg(photo, 95, jpeg));
  ASSERT_TRUE(Decode(jpeg, out, &format));
  EXPECT_EQ(format, ImageFormat::kJpeg);
  ASSERT_EQ(out.width, 40);
  ASSERT_EQ(out.height, 30);
  double error = 0;
  for (std::size_t i = 0; i < out.pixels.size(); ++i)
    error += std::abs(out.pixels[i] - photo.pixels[i]);
  EXPECT_LT(error / out.pixels.size(), 4.0);
}

// Apache's icons give their transparent index a colour (light cyan); it
// must not leak into the pixels, or sheets would differ between platforms.
TEST(ImageCodec, TransparentGifPixelsHaveNoColour) {
  for (const char* name : {"a.gif", "folder.gif", "back.gif"}) {
    SCOPED_TRACE(name);
    RgbaImage out;
    ASSERT_TRUE(Decode(ReadIcon(name), out));
    std::size_t transparent = 0;
    for (std::size_t i = 0; i < out.pixels.size(); i += 4) {
      if (out.pixels[i + 3] == 255) continue;
      EXPECT_EQ(out.pixels[i + 3], 0);
      EXPECT_EQ(out.pixels[i] | out.pixels[i + 1] | out.pixels[i + 2], 0) << i;
      ++transparent;
    }
    EXPECT_GT(transparent, 0u);
  }
}

TEST(ImageCodec, PngEncodingIsLosslessInEachLayout) {
  RgbaImage many = Photo(20, 20, 2);  // more than 256 colours, opaque
  RgbaImage translucent = many;
  translucent.At(3, 4)[3] = 0;
  translucent.At(5, 4)[3] = 77;
  for (const RgbaImage* image : {&many, &translucent}) {
    const RgbaImage checker = Checker(9, 5);
    for (const RgbaImage* each : {image, &checker}) {
      std::string png;
      ASSERT_TRUE(EncodePng(*each, png));
      RgbaImage out;
      ASSERT_TRUE(Decode(png, out));
      EXPECT_EQ(out.pixels, each->pixels);
    }
  }
}

TEST(ImageCodec, RejectsAnimatedCorruptTruncatedAndUnknownInput) {
  const RgbaImage checker = Checker(16, 16);
  RgbaImage out;
  EXPECT_FALSE(Decode(MakeGif(checker, 2), out));
  EXPECT_TRUE(out.pixels.empty());

  std::string jpeg;
  ASSERT_TRUE(EncodeJpeg(Photo(64, 64, 3), 90, jpeg));
  for (const std::string& whole : {MakeGif(checker), MakePng(Photo(32, 32, 4)), jpeg}) {
    // Cut in the middle of the pixel data.
    EXPECT_FALSE(Decode(whole.substr(0, whole.size() * 2 / 3), out)) << whole.substr(0, 4);
    EXPECT_FALSE(Decode(whole.substr(0, 12), out));
  }
  std::string badCrc = MakePng(checker);
  badCrc[29] ^= 1;  // the header chunk's check
  EXPECT_FALSE(Decode(badCrc, out));
  EXPECT_FALSE(Decode("BM\x36\0\0\0\0\0\0\0\x36\0\0\0", out));
  EXPECT_FALSE(Decode("", out));
}

TEST(ImageCodec, RefusesOversizedImagesFromTheirHeaders) {
  const DecodeLimits small{8, 40};
  RgbaImage out;
  EXPECT_TRUE(Decode(MakePng(Solid(8, 5, 0xFF)), out, nullptr, small));
  EXPECT_FALSE(Decode(MakePng(Solid(9, 1, 0xFF)), out, nullptr, small));
  EXPECT_FALSE(Decode(MakeGif(Solid(7, 7, 0xFF)), out, nullptr, small));  // 49 pixels
  std::string jpeg;
  ASSERT_TRUE(EncodeJpeg(Solid(1, 9, 0xFF), 80, jpeg));
  EXPECT_FALSE(Decode(jpeg, out, nullptr, small));
  // The default limits: 4096 on a side.
  EXPECT_FALSE(Decode(MakePng(Solid(4097, 1, 0xFF)), out));
}

// At its own size an image is copied: every pixel, alpha included, clipped
// at the sheet's edges. (A fully transparent pixel has no colour to keep:
// GDI+ draws premultiplied.)
TEST(ImageCodec, UnscaledDrawingCopiesEveryPixel) {
  RgbaImage source = Photo(17, 11, 3);
  for (std::size_t i = 3; i < source.pixels.size(); i += 4) {
    source.pixels[i] = static_cast<std::uint8_t>(i / 4 % 5 == 0 ? 0 : i * 7);
  }
  const std::uint32_t background = 0x10203040;
  RgbaImage sheet = Solid(40, 30, background);
  const std::pair<std::int32_t, std::int32_t> corners[] = {{5, 5}, {-3, 25}, {30, -4}};
  for (const auto& [x, y] : corners) DrawScaled(sheet, source, x, y, 17, 11);
  for (std::int32_t y = 0; y < 30; ++y) {
    for (std::int32_t x = 0; x < 40; ++x) {
      const std::uint8_t* expected = nullptr;
      for (const auto& [left, top] : corners) {
        if (x >= left && x < left + 17 && y >= top && y < top + 11) {
          expected = source.At(x - left, y - top);
        }
      }
      const std::uint8_t* p = sheet.At(x, y);
      const std::uint32_t got =
          static_cast<std::uint32_t>(p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3]);
      if (expected == nullptr) {
        EXPECT_EQ(got, background) << x << "," << y;
      } else if (expected[3] == 0) {
        EXPECT_EQ(p[3], 0) << x << "," << y;
      } else {
        EXPECT_EQ(std::memcmp(p, expected, 4), 0) << x << "," << y;
      }
    }
  }
}

TEST(ImageCodec, ScaledDrawingStaysInsideItsRectangle) {
  RgbaImage sheet = Solid(12, 4, 0xFFFFFF00);
  const RgbaImage red = Solid(2, 2, 0xFF0000FF);
  const RgbaImage blue = Solid(3, 1, 0x0000FFFF);
  DrawScaled(sheet, red, 0, 0, 5, 4);
  DrawScaled(sheet, blue, 5, 1, 4, 2);
  // Half off the sheet: clipped, never written outside.
  DrawScaled(sheet, red, 10, 3, 4, 4);
  for (std::int32_t y = 0; y < 4; ++y) {
    for (std::int32_t x = 0; x < 12; ++x) {
      std::uint32_t expected = 0xFFFFFF00;
      if (x < 5) expected = 0xFF0000FF;
      if (x >= 5 && x < 9 && y >= 1 && y < 3) expected = 0x0000FFFF;
      if (x >= 10 && y >= 3) expected = 0xFF0000FF;
      const std::uint8_t* p = sheet.At(x, y);
      EXPECT_EQ(static_cast<std::uint32_t>(p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3]), expected)
          << x << "," << y;
    }
  }
  // A two-colour source scaled up keeps its edge pixels at the edges.
  RgbaImage halves = Solid(2, 1, 0xFF0000FF);
  std::memcpy(halves.At(1, 0), "\x00\x00\xFF\xFF", 4);
  RgbaImage wide = Solid(8, 1, 0);
  DrawScaled(wide, halves, 0, 0, 8, 1);
  EXPECT_EQ(std::memcmp(wide.At(0, 0), "\xFF\x00\x00\xFF", 4), 0);
  EXPECT_EQ(std::memcmp(wide.At(7, 0), "\x00\x00\xFF\xFF", 4), 0);
  EXPECT_GT(wide.At(4, 0)[2], 0);  // blended in between
}

// A JPEG has no alpha: a transparent pixel drawn into a JPEG sheet shows
// the colour it was stored with, never a black hole.
TEST(ImageCodec, JpegSheetsShowTheStoredColourOfTransparentPixels) {
  const RgbaImage clear = Solid(16, 16, 0x2080C000);
  std::string jpeg;
  ASSERT_TRUE(EncodeJpegSheet(32, 16, {{&clear, 0, 0, 16, 16}}, 95, jpeg));
  RgbaImage sheet;
  ASSERT_TRUE(Decode(jpeg, sheet));
  for (const auto& [x, expected] : {std::pair{4, 0x2080C0u}, std::pair{27, 0xFFFFFFu}}) {
    const std::uint8_t* p = sheet.At(x, 8);
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(p[c], (expected >> (16 - 8 * c)) & 0xFF, 6) << x << " channel " << c;
    }
  }
}

// Drawing band by band inside the encoder gives the bytes of drawing the
// whole sheet first: placements across band edges, scaled, translucent,
// partly outside the sheet, and sheets whose last band is short.
TEST(ImageCodec, JpegSheetDrawnInBandsEqualsTheWholeCanvas) {
  RgbaImage translucent = Photo(13, 40, 31);
  for (std::size_t i = 3; i < translucent.pixels.size(); i += 28) translucent.pixels[i] = 0;
  const RgbaImage photo = Photo(50, 33, 32);
  const RgbaImage checker = Checker(7, 9);
  for (const auto& [width, height] : {std::pair{64, 31}, std::pair{64, 32}, std::pair{91, 97}}) {
    SCOPED_TRACE(height);
    const std::vector<Placement> placements = {
        {&photo, 0, 0, 50, 33},   {&translucent, 52, 20, 13, 40},   {&checker, 2, 35, 30, 50},
        {&photo, 40, 60, 70, 45}, {&checker, -3, height - 4, 7, 9},
    };
    RgbaImage canvas = NewCanvas(width, height, 255, 255, 255, 0);
    for (const Placement& p : placements) {
      DrawScaled(canvas, *p.source, p.x, p.y, p.width, p.height);
    }
    for (const int quality : {85, 0}) {
      std::string whole, banded;
      ASSERT_TRUE(EncodeJpeg(canvas, quality, whole));
      ASSERT_TRUE(EncodeJpegSheet(width, height, placements, quality, banded));
      EXPECT_EQ(whole, banded);
    }
  }
  std::string out = "left over";
  EXPECT_FALSE(EncodeJpegSheet(0, 5, {}, 80, out));
  EXPECT_TRUE(out.empty());
}

}  // namespace
}  // namespace zelvarpack::image
