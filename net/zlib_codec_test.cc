#include "net/zlib_codec.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <memory>
#include <string>

#include "zelvarpack/zelvar_utils.h"

namespace {

using zelvarpack::net::ZlibFormat;

std::string Text(CZelvarBuffer& buffer) {
  return std::string(reinterpret_cast<char*>(buffer.GetValue()),
                     static_cast<std::size_t>(buffer.GetValueLength()));
}

std::string Compress(const std::string& bytes, bool raw, bool gzip) {
  std::unique_ptr<CZelvarBuffer> out(CZelvarUtils::CompressBuffer(
      reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
      static_cast<std::int32_t>(bytes.size()), raw, gzip));
  return Text(*out);
}

std::string Decompress(const std::string& bytes, bool raw) {
  std::unique_ptr<CZelvarBuffer> out(CZelvarUtils::DecompressBuffer(
      reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
      static_cast<std::int32_t>(bytes.size()), raw));
  return Text(*out);
}

std::string Lines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += "The quick brown fox jumps over the lazy dog " + std::to_string(i) + "\n";
  return text;
}

// Sizes around the 16384-byte pieces, compressible and not.
TEST(Zlib, RoundTripsAcrossPieceBoundaries) {
  std::string noise;
  std::uint32_t x = 1;
  for (int i = 0; i < 70000; ++i)
    noise.push_back(static_cast<char>((x = x * 1103515245 + 12345) >> 24));
  for (const std::size_t size : {0u, 1u, 16383u, 16384u, 16385u, 32768u, 70000u}) {
    for (const std::string& source : {Lines(3000), noise}) {
      const std::string input = source.substr(0, size);
      SCOPED_TRACE(size);
      const std::string gzip = Compress(input, false, true);
      ASSERT_GE(gzip.size(), 18u);
      EXPECT_EQ(gzip.substr(0, 2), "\x1f\x8b");
      EXPECT_EQ(Decompress(gzip, false), input);
      EXPECT_EQ(Decompress(Compress(input, true, false), true), input);
      EXPECT_EQ(Decompress(Compress(input, true, true), true), input);  // raw wins over gzip
    }
  }
}

// Level 9 output of the system zlib (1.2.13), gzip and raw: a wrong level or
// window shows here.
TEST(Zlib, CompressesAtLevelNine) {
  const std::string input = Lines(3000);
  ASSERT_EQ(input.size(), 145890u);
  const std::string gzip = Compress(input, false, true);
  const std::string raw = Compress(input, true, false);
  EXPECT_EQ(gzip.size(), 7623u);
  EXPECT_EQ(crc32(0, reinterpret_cast<const Bytef*>(gzip.data()), static_cast<uInt>(gzip.size())),
            0x2ac9b4c6u);
  EXPECT_EQ(raw.size(), 7605u);
  EXPECT_EQ(Compress(input, false, false), "");
}

// The gzip header is the same ten bytes on every platform: no name, no time,
// "maximum compression", and the Unix system code (zlib built for Windows
// would write its own), so stored twins do not depend on where they were made.
TEST(Zlib, GzipHeaderIsTheSameOnEveryPlatform) {
  for (const std::string& input : {std::string(), Lines(1), Lines(2000)}) {
    EXPECT_EQ(Compress(input, false, true).substr(0, 10),
              std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03", 10));
  }
}

TEST(Zlib, CorruptDataGivesEmptyAndTruncatedGivesAPrefix) {
  const std::string input = Lines(3000);
  std::string gzip = Compress(input, false, true);
  EXPECT_EQ(Decompress("not compressed at all", false), "");
  EXPECT_EQ(Decompress(gzip, true), "");  // a gzip header is no raw deflate block
  std::string damaged = gzip;
  damaged[damaged.size() / 2] ^= 0x55;
  damaged[damaged.size() / 2 + 1] ^= 0x55;
  EXPECT_EQ(Decompress(damaged, false), "");

  const std::string cut = Decompress(gzip.substr(0, gzip.size() / 2), false);
  EXPECT_GT(cut.size(), 0u);
  EXPECT_LT(cut.size(), input.size());
  EXPECT_EQ(input.compare(0, cut.size(), cut), 0);
  EXPECT_EQ(Decompress(gzip + "trailing bytes", false), input);
  EXPECT_EQ(Decompress("", false), "");
}

TEST(Zlib, OutputOverTheLimitGivesEmpty) {
  const std::string input = Lines(3000);
  const std::string gzip = Compress(input, false, true);
  const auto* bytes = reinterpret_cast<const unsigned char*>(gzip.data());
  EXPECT_EQ(zelvarpack::net::Decompress(bytes, gzip.size(), ZlibFormat::kGzip, input.size())
                ->GetValueLength(),
            static_cast<std::int32_t>(input.size()));
  EXPECT_EQ(zelvarpack::net::Decompress(bytes, gzip.size(), ZlibFormat::kGzip, input.size() - 1)
                ->GetValueLength(),
            0);
}

}  // namespace
