#include "store/background_compressor.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "net/zlib_codec.h"

namespace {

using zelvarpack::store::BackgroundCompressor;
using zelvarpack::store::Bytes;
using zelvarpack::store::GzipPrefix;
using zelvarpack::store::StoredForm;

// HTML-like text with repeats reaching back across chunk boundaries.
Bytes Text(unsigned seed, std::size_t count) {
  std::mt19937 generator(seed);
  const std::string words[] = {"<p class=\"x\">", "store ", "chunk ", "</p>\n", "composite "};
  Bytes bytes;
  while (bytes.size() < count) {
    if (bytes.size() > 5000 && generator() % 4 == 0) {
      const std::size_t from = generator() % (bytes.size() - 600);
      for (std::size_t i = 0; i < 500; ++i) bytes.push_back(bytes[from + i]);
    } else {
      const std::string& w = words[generator() % std::size(words)];
      bytes.insert(bytes.end(), w.begin(), w.end());
    }
  }
  bytes.resize(count);
  return bytes;
}

Bytes Gzip(const Bytes& plain) {
  std::unique_ptr<CZelvarBuffer> out =
      zelvarpack::net::Compress(plain.data(), plain.size(), zelvarpack::net::ZlibFormat::kGzip);
  return Bytes(out->GetValue(), out->GetValue() + out->GetValueLength());
}

Bytes FormBytes(const StoredForm& form) { return Bytes(form.bytes(), form.bytes() + form.count()); }

// A composite that grows after its job was submitted (the writer guessed
// wrong) is submitted again; each later job continues the stream the one
// before it kept, and the owner can continue a stale result's stream.
TEST(BackgroundCompressor, LaterJobsOfOneCompositeContinueTheStreamTheLastOneKept) {
  const Bytes all = Text(7, 20 * 4096 + 321);
  // Generation 1 starts from a stream that consumed the first 4 chunks.
  std::unique_ptr<GzipPrefix> first;
  Bytes ignored;
  ASSERT_TRUE(GzipPrefix::Compress(all.data(), 4 * 4096 + 10, ignored, &first));
  std::shared_ptr<const GzipPrefix> prefix = std::move(first);

  BackgroundCompressor compressor;
  const std::vector<std::size_t> ends = {6 * 4096 + 5, 9 * 4096, 13 * 4096 + 4000, all.size()};
  std::vector<std::shared_ptr<const Bytes>> plains;
  for (std::size_t g = 0; g < ends.size(); ++g) {
    plains.push_back(std::make_shared<const Bytes>(all.begin(), all.begin() + ends[g]));
    const bool last = g + 1 == ends.size();
    if (!compressor.Submit(3, g + 1, plains.back(), prefix, !last, g > 0)) {
      GTEST_SKIP() << "no helper thread here";
    }
    EXPECT_EQ(prefix, nullptr) << "the job took the stream over";
  }
  // One more composite that is never continued.
  const auto other = std::make_shared<const Bytes>(Text(8, 5000));
  std::shared_ptr<const GzipPrefix> none;
  ASSERT_TRUE(compressor.Submit(4, 1, other, none, true, false));

  std::map<std::int32_t, BackgroundCompressor::Result> done = compressor.Drain();
  ASSERT_EQ(done.size(), 2u);
  const BackgroundCompressor::Result& result = done[3];
  ASSERT_TRUE(result.ok);
  EXPECT_EQ(result.generation, ends.size());
  EXPECT_EQ(result.plain, plains.back());
  ASSERT_TRUE(result.form.compressed());
  EXPECT_EQ(FormBytes(result.form), Gzip(all));
  ASSERT_TRUE(done[4].ok);
  EXPECT_EQ(FormBytes(done[4].form), Gzip(*other));
  std::unique_ptr<GzipPrefix> kept = done[4].form.TakePrefix();
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->consumed(), 4096u);

  // The owner continues the stale result's stream for bytes grown since.
  Bytes more = *other;
  const Bytes tail = Text(9, 7000);
  more.insert(more.end(), tail.begin(), tail.end());
  StoredForm form;
  ASSERT_TRUE(form.Make(more, std::move(kept), false));
  EXPECT_EQ(FormBytes(form), Gzip(more));
  EXPECT_EQ(form.TakePrefix(), nullptr);
}

}  // namespace
