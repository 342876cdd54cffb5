#include "image/image_header.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/temp_dir.h"

namespace {

using zelvarpack::image::PngWouldLoseTransparency;

std::string Chunk(const std::string& type, const std::string& data) {
  std::string out;
  const auto n = static_cast<std::uint32_t>(data.size());
  out += static_cast<char>(n >> 24);
  out += static_cast<char>(n >> 16);
  out += static_cast<char>(n >> 8);
  out += static_cast<char>(n);
  return out + type + data + std::string(4, '\0');  // the check sum is not read
}

std::string Png(char colourType, const std::string& more) {
  std::string header("\0\0\0\x10\0\0\0\x10\x08", 9);
  header += colourType;
  header += std::string(3, '\0');
  return std::string("\x89PNG\r\n\x1a\n", 8) + Chunk("IHDR", header) + more + Chunk("IDAT", "xx") +
         Chunk("IEND", "");
}

TEST(ImageChecks, TransparentPngsBoundForOpaqueSheetsAreKept) {
  EXPECT_TRUE(PngWouldLoseTransparency(Png(6, "")));
  EXPECT_TRUE(PngWouldLoseTransparency(Png(4, "")));
  EXPECT_TRUE(PngWouldLoseTransparency(Png(3, Chunk("tRNS", std::string(1, '\0')))));
  EXPECT_FALSE(PngWouldLoseTransparency(Png(3, "")));
  EXPECT_FALSE(PngWouldLoseTransparency(Png(2, "")));
  // A bKGD chunk sends the image to the sheet with alpha.
  EXPECT_FALSE(PngWouldLoseTransparency(Png(6, Chunk("bKGD", std::string("\0\0", 2)))));
  EXPECT_FALSE(PngWouldLoseTransparency("GIF89a"));
  EXPECT_FALSE(PngWouldLoseTransparency(Png(3, "").substr(0, 20)));
}

TEST(ImageChecks, ReadsTheDeclaredSizeOfEachFormat) {
  const std::string site = std::string(ZP_SOURCE_DIR) + "/testdata/page/site/img/";
  int width = 0, height = 0;
  ASSERT_TRUE(zelvarpack::image::ReadImageSize(ReadWholeFile(site + "folder.gif"), width, height));
  EXPECT_EQ(width, 20);
  EXPECT_EQ(height, 22);
  ASSERT_TRUE(zelvarpack::image::ReadImageSize(ReadWholeFile(site + "a.png"), width, height));
  EXPECT_EQ(width, 20);
  EXPECT_EQ(height, 22);
  ASSERT_TRUE(zelvarpack::image::ReadImageSize(ReadWholeFile(site + "photo.jpg"), width, height));
  EXPECT_EQ(width, 320);
  EXPECT_EQ(height, 200);
  const std::string jpeg = ReadWholeFile(site + "icon.jpg");
  EXPECT_FALSE(zelvarpack::image::ReadImageSize(jpeg.substr(0, 20), width, height));
  EXPECT_FALSE(zelvarpack::image::ReadImageSize("not an image", width, height));
}

TEST(ImageChecks, RealIconsAreJudgedByTheirChunks) {
  const std::string site = std::string(ZP_SOURCE_DIR) + "/testdata/site/img/";
  EXPECT_TRUE(PngWouldLoseTransparency(ReadWholeFile(site + "apache_pb.png")));
}

}  // namespace
