#include "store/gzip_prefix.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "net/zlib_codec.h"

namespace {

using zelvarpack::store::GzipPrefix;
using Bytes = std::vector<unsigned char>;

// The engine's gzip helper's output, checked against its settings written
// out plainly (best compression, memory level 9, gzip wrapper, 16384-byte
// input pieces, the last one with Z_FINISH) and to gunzip back to the input.
Bytes Whole(const Bytes& bytes) {
  z_stream z{};
  EXPECT_EQ(deflateInit2(&z, 9, Z_DEFLATED, 31, 9, Z_DEFAULT_STRATEGY), Z_OK);
  gz_header unix{};  // the system byte says Unix on every platform
  unix.os = 3;
  EXPECT_EQ(deflateSetHeader(&z, &unix), Z_OK);
  Bytes out;
  unsigned char area[16384];
  std::size_t at = 0;
  int status = Z_OK;
  do {
    const std::size_t piece = std::min<std::size_t>(16384, bytes.size() - at);
    const bool last = at + piece == bytes.size();
    z.next_in = const_cast<unsigned char*>(bytes.data() + at);
    z.avail_in = static_cast<uInt>(piece);
    do {
      z.next_out = area;
      z.avail_out = sizeof area;
      status = deflate(&z, last ? Z_FINISH : Z_NO_FLUSH);
      out.insert(out.end(), area, area + (sizeof area - z.avail_out));
    } while (z.avail_out == 0);
    at += piece;
  } while (at < bytes.size());
  deflateEnd(&z);
  EXPECT_EQ(status, Z_STREAM_END);
  std::unique_ptr<CZelvarBuffer> back = zelvarpack::net::Decompress(
      out.data(), out.size(), zelvarpack::net::ZlibFormat::kGzip, bytes.size() + 1);
  EXPECT_TRUE(back != nullptr &&
              Bytes(back->GetValue(), back->GetValue() + back->GetValueLength()) == bytes);
  std::unique_ptr<CZelvarBuffer> helper =
      zelvarpack::net::Compress(bytes.data(), bytes.size(), zelvarpack::net::ZlibFormat::kGzip);
  EXPECT_TRUE(Bytes(helper->GetValue(), helper->GetValue() + helper->GetValueLength()) == out);
  return out;
}

// Text-like bytes with long repeats (so matches cross every boundary),
// mixed with runs of noise.
Bytes Mixed(unsigned seed, std::size_t count) {
  std::mt19937 generator(seed);
  const std::string words[] = {
      "<div class=\"section\">", "the ", "composite ", "</p>\n", "deflate ", "window ",
      "<a href=\"#x\">",         "\t\t"};
  Bytes bytes;
  while (bytes.size() < count) {
    if (generator() % 5 == 0) {
      for (unsigned n = generator() % 300; n > 0; --n) {
        bytes.push_back(static_cast<unsigned char>(generator()));
      }
    } else if (generator() % 3 == 0 && bytes.size() > 40000) {
      const std::size_t from = generator() % (bytes.size() - 1000);
      const std::size_t length = 100 + generator() % 900;
      for (std::size_t i = 0; i < length; ++i) bytes.push_back(bytes[from + i]);
    } else {
      const std::string& w = words[generator() % std::size(words)];
      bytes.insert(bytes.end(), w.begin(), w.end());
    }
  }
  bytes.resize(count);
  return bytes;
}

// Grows `all` by the given cut points, continuing the stream each time, and
// checks every intermediate gzip form against compressing from scratch.
void GrowAndCompare(const Bytes& all, const std::vector<std::size_t>& ends) {
  std::unique_ptr<GzipPrefix> prefix = GzipPrefix::Start();
  ASSERT_NE(prefix, nullptr);
  for (std::size_t end : ends) {
    const Bytes part(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(end));
    Bytes gzip;
    std::unique_ptr<GzipPrefix> next;
    ASSERT_TRUE(prefix->Finish(part.data(), part.size(), gzip, &next)) << end;
    ASSERT_EQ(gzip, Whole(part)) << "after " << end << " bytes";
    ASSERT_LE(next->consumed(), end);
    ASSERT_EQ(next->consumed() % 4096, 0u);
    // Finishing again from the same stream gives the same answer, and so
    // does compressing from nothing.
    Bytes again;
    ASSERT_TRUE(prefix->Finish(part.data(), part.size(), again, nullptr));
    ASSERT_EQ(again, gzip);
    std::unique_ptr<GzipPrefix> fresh;
    ASSERT_TRUE(GzipPrefix::Compress(part.data(), part.size(), again, &fresh));
    ASSERT_EQ(again, gzip);
    ASSERT_EQ(fresh->consumed(), next->consumed());
    prefix = std::move(next);
  }
}

TEST(GzipPrefix, ChunkAppendsGiveTheSameBytesAsCompressingTheWhole) {
  const Bytes all = Mixed(1, 25 * 4096);
  std::vector<std::size_t> ends;
  for (std::size_t end = 4096; end <= all.size(); end += 4096) ends.push_back(end);
  GrowAndCompare(all, ends);
}

TEST(GzipPrefix, RandomCutPointsIncludingPieceBoundaries) {
  for (unsigned seed = 2; seed < 8; ++seed) {
    const Bytes all = Mixed(seed, 100000 + seed * 37);
    std::mt19937 generator(seed);
    std::vector<std::size_t> ends;
    for (std::size_t end = 1 + generator() % 5000; end < all.size();
         end += 1 + generator() % 9000) {
      ends.push_back(end);
    }
    // Exact piece boundaries and their neighbours.
    for (std::size_t edge : {4095u, 4096u, 16383u, 16384u, 16385u, 32767u, 32768u, 49152u, 65536u})
      ends.push_back(edge);
    ends.push_back(all.size());
    std::sort(ends.begin(), ends.end());
    ends.erase(std::unique(ends.begin(), ends.end()), ends.end());
    GrowAndCompare(all, ends);
  }
}

TEST(GzipPrefix, RealTextAndIncompressibleBytes) {
  std::ifstream in("/usr/share/common-licenses/GPL-3", std::ios::binary);
  Bytes text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(text.size(), 30000u);
  std::mt19937 generator(9);
  Bytes noise(70000);
  for (unsigned char& b : noise) b = static_cast<unsigned char>(generator());
  Bytes all = text;
  all.insert(all.end(), noise.begin(), noise.end());
  std::vector<std::size_t> ends;
  for (std::size_t end = 1; end < all.size(); end += 4096) ends.push_back(end);
  ends.push_back(all.size());
  GrowAndCompare(all, ends);
}

// Mostly incompressible bytes make deflate store blocks, and whether a
// block may be stored depends on where the window slid: the continued
// stream must slide where the helper's own 16384-byte feeding does.
TEST(GzipPrefix, StoredBlocksAcrossWindowSlides) {
  for (unsigned seed = 20; seed < 26; ++seed) {
    std::mt19937 generator(seed);
    const Bytes text = Mixed(seed, 8000);
    Bytes all;
    while (all.size() < 25 * 4096) {
      for (unsigned n = 3000 + generator() % 20000; n > 0; --n) {
        all.push_back(static_cast<unsigned char>(generator()));
      }
      const std::size_t length = 200 + generator() % 3000;
      all.insert(all.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
    }
    all.resize(25 * 4096 - seed);
    std::vector<std::size_t> ends;
    for (std::size_t end = 1234 + seed; end < all.size(); end += 4096) ends.push_back(end);
    ends.push_back(all.size());
    GrowAndCompare(all, ends);
  }
}

// A stream with one owner is continued in place; one with another owner is
// copied, and that owner's stream must be left exactly as it was.
TEST(GzipPrefix, SharedStreamsContinueInPlaceOnlyForTheirLastOwner) {
  const Bytes all = Mixed(31, 25 * 4096 - 77);
  std::shared_ptr<const GzipPrefix> sole = GzipPrefix::Start();
  std::shared_ptr<const GzipPrefix> shared = GzipPrefix::Start();
  for (std::size_t end = 1000; end < all.size(); end += 6000) {
    const Bytes part(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(end));
    const Bytes expected = Whole(part);
    Bytes gzip;
    std::unique_ptr<GzipPrefix> next;
    const std::size_t consumed = shared->consumed();
    std::shared_ptr<const GzipPrefix> other = shared;  // a second owner
    ASSERT_TRUE(GzipPrefix::Finish(std::move(other), part.data(), part.size(), gzip, &next));
    ASSERT_EQ(gzip, expected) << end;
    ASSERT_EQ(shared->consumed(), consumed);
    Bytes again;
    ASSERT_TRUE(shared->Finish(part.data(), part.size(), again, nullptr));
    ASSERT_EQ(again, expected) << "the other owner's stream changed at " << end;
    shared = std::move(next);

    ASSERT_TRUE(GzipPrefix::Finish(std::move(sole), part.data(), part.size(), gzip, &next));
    ASSERT_EQ(gzip, expected) << end;
    ASSERT_EQ(next->consumed(), end / 4096 * 4096);
    sole = std::move(next);
  }
  // Without a stream to keep, and the last bytes finish it.
  Bytes gzip;
  ASSERT_TRUE(GzipPrefix::Finish(std::move(sole), all.data(), all.size(), gzip, nullptr));
  EXPECT_EQ(gzip, Whole(all));
  EXPECT_FALSE(GzipPrefix::Finish(nullptr, all.data(), all.size(), gzip, nullptr));
}

TEST(GzipPrefix, RefusesBytesNoLongerThanWhatItConsumed) {
  const Bytes all = Mixed(3, 40000);
  std::unique_ptr<GzipPrefix> prefix = GzipPrefix::Start();
  Bytes gzip;
  std::unique_ptr<GzipPrefix> next;
  ASSERT_TRUE(prefix->Finish(all.data(), all.size(), gzip, &next));
  EXPECT_EQ(next->consumed(), 36864u);
  EXPECT_FALSE(next->Finish(all.data(), 36864, gzip, nullptr));
  EXPECT_FALSE(prefix->Finish(all.data(), 0, gzip, nullptr));
  std::shared_ptr<const GzipPrefix> sole = std::move(next);
  EXPECT_FALSE(GzipPrefix::Finish(std::move(sole), all.data(), 36864, gzip, nullptr));
}

}  // namespace
