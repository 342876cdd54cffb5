// The GDI+ codec's own parts: the row-by-row JPEG writer it builds from
// whole-bitmap encoding, and the encoders found by MIME type.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "image/codec.h"
#include "tests/codec_samples.h"

namespace zelvarpack::image {
namespace {

using namespace samples;

double MeanError(const RgbaImage& a, const RgbaImage& b) {
  double error = 0;
  for (std::size_t i = 0; i < a.pixels.size(); i += 4) {
    for (int c = 0; c < 3; ++c) error += std::abs(a.pixels[i + c] - b.pixels[i + c]);
  }
  return error / static_cast<double>(a.pixels.size() / 4 * 3);
}

TEST(GdiplusCodec, RowEncoderGivesTheWholeImageInPieces) {
  const RgbaImage photo = Photo(300, 200, 7);
  JpegRowEncoder encoder;
  std::string bytes;
  std::vector<std::size_t> pieces;
  ASSERT_TRUE(encoder.Start(300, 200, 90, [&](const std::uint8_t* data, std::size_t count) {
    bytes.append(reinterpret_cast<const char*>(data), count);
    pieces.push_back(count);
    return true;
  }));
  for (std::int32_t y = 0; y < 200; y += 16) {
    const std::int32_t rows = std::min(16, 200 - y);
    ASSERT_TRUE(encoder.WriteRows(photo.At(0, y), rows, 300 * 4));
  }
  ASSERT_TRUE(encoder.Finish());
  for (std::size_t i = 0; i + 1 < pieces.size(); ++i) EXPECT_EQ(pieces[i], 16u * 1024);
  RgbaImage out;
  ImageFormat format;
  ASSERT_TRUE(DecodeImage(Bytes(bytes), bytes.size(), {}, format, out));
  EXPECT_EQ(format, ImageFormat::kJpeg);
  ASSERT_EQ(out.width, 300);
  ASSERT_EQ(out.height, 200);
  EXPECT_LT(MeanError(out, photo), 6.0);
}

TEST(GdiplusCodec, RowEncoderRefusesMisuseAndStopsWhenTheSinkDoes) {
  const RgbaImage photo = Photo(32, 16, 1);
  auto keep = [](const std::uint8_t*, std::size_t) { return true; };
  JpegRowEncoder tooMany;
  ASSERT_TRUE(tooMany.Start(32, 16, 80, keep));
  EXPECT_FALSE(tooMany.WriteRows(photo.At(0, 0), 17, 32 * 4));
  EXPECT_FALSE(tooMany.Finish());

  JpegRowEncoder tooFew;
  ASSERT_TRUE(tooFew.Start(32, 16, 80, keep));
  ASSERT_TRUE(tooFew.WriteRows(photo.At(0, 0), 8, 32 * 4));
  EXPECT_FALSE(tooFew.Finish());

  JpegRowEncoder refused;
  ASSERT_TRUE(refused.Start(32, 16, 80, [](const std::uint8_t*, std::size_t) { return false; }));
  ASSERT_TRUE(refused.WriteRows(photo.At(0, 0), 16, 32 * 4));
  EXPECT_FALSE(refused.Finish());

  JpegRowEncoder empty;
  EXPECT_FALSE(empty.Start(0, 16, 80, keep));
  EXPECT_FALSE(empty.Start(16, -1, 80, keep));
}

// GDI+ starts once, from whichever thread comes first; many threads
// decoding and encoding at once get the same results as one.
TEST(GdiplusCodec, ThreadsDecodeAndEncodeAtOnce) {
  const RgbaImage photo = Photo(64, 48, 3);
  const std::string png = MakePng(photo);
  std::string expected;
  ASSERT_TRUE(EncodePng(photo, expected));
  std::vector<std::thread> threads;
  std::vector<int> good(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round) {
        RgbaImage out;
        std::string again;
        if (DecodePng(Bytes(png), png.size(), {}, out) && out.pixels == photo.pixels &&
            EncodePng(out, again) && again == expected) {
          ++good[static_cast<std::size_t>(t)];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int count : good) EXPECT_EQ(count, 10);
}

TEST(GdiplusCodec, OpaqueSheetsAreStoredWithoutAlphaAndTranslucentOnesWithIt) {
  RgbaImage opaque = Photo(20, 10, 5);
  RgbaImage translucent = opaque;
  translucent.At(2, 3)[3] = 0;
  translucent.At(4, 3)[3] = 128;
  for (const RgbaImage* image : {&opaque, &translucent}) {
    std::string png;
    ASSERT_TRUE(EncodePng(*image, png));
    ASSERT_GT(png.size(), 26u);
    // The colour type in the header chunk: 2 is RGB, 6 is RGBA.
    EXPECT_EQ(png[25], image == &opaque ? 2 : 6);
    RgbaImage out;
    ASSERT_TRUE(DecodePng(Bytes(png), png.size(), {}, out));
    EXPECT_EQ(out.pixels, image->pixels);
  }
}

}  // namespace
}  // namespace zelvarpack::image
