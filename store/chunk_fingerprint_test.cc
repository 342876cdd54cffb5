#include "store/chunk_fingerprint.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tests/textbook_fft.h"

namespace {

double Of(const std::vector<unsigned char>& bytes) {
  return zelvarpack::store::ChunkFingerprint(bytes.data(), bytes.size());
}

std::vector<unsigned char> Pattern() {
  std::vector<unsigned char> bytes(4096);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 % 251);
  return bytes;
}

// Expected values from an independent transcription of the rule (and, to
// the last digit, a direct two-dimensional DFT).
TEST(ChunkFingerprint, MatchesIndependentlyComputedValues) {
  struct Case {
    const char* name;
    std::vector<unsigned char> bytes;
    double expected;
  };
  std::vector<unsigned char> truncated;
  for (int i = 0; i < 8; ++i) truncated.insert(truncated.end(), {1, 2, 2, 2});  // means 1.75 -> 1
  truncated.push_back(9);  // a last cell of one byte: 9 / 1
  const Case cases[] = {
      {"uniform 255", std::vector<unsigned char>(4096, 255), 15.9375},
      {"one byte", {200}, 0.78125},
      {"pattern", Pattern(), 8.48224355996377},
      {"truncated means", truncated, 0.036119613298646346},
      {"hello", {'h', 'e', 'l', 'l', 'o'}, 0.512083898822833},
      {"184 x 57", std::vector<unsigned char>(184, 57), 1.2396975339113712},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_DOUBLE_EQ(Of(c.bytes), c.expected);
  }
}

TEST(ChunkFingerprint, OnlyTheFirst1024BytesCount) {
  std::vector<unsigned char> changed = Pattern();
  for (std::size_t i = 1024; i < changed.size(); ++i) changed[i] ^= 0x5A;
  EXPECT_EQ(Of(changed), Of(Pattern()));
  changed[1023] ^= 0x5A;
  EXPECT_NE(Of(changed), Of(Pattern()));
}

}  // namespace

namespace {

// The rule, step by step, over the textbook 2-D transform: the store's
// fingerprint must be the same double, bit for bit, for any chunk.
double ByTheRule(const std::vector<unsigned char>& bytes) {
  std::vector<double> x(256, 0.0), y(256, 0.0);
  for (std::size_t cell = 0; cell < 256; ++cell) {
    unsigned sum = 0, taken = 0;
    for (std::size_t k = cell * 4; k < cell * 4 + 4 && k < bytes.size(); ++k, ++taken) {
      sum += bytes[k];
    }
    x[cell] = taken == 0 ? 0.0 : static_cast<double>(sum / taken);
  }
  zelvarpack::reference::TextbookFft2D(x.data(), y.data(), 16, 16);
  double sum = 0.0;
  for (const double value : x) sum += value * value;
  return std::sqrt(sum * 0.00390625);
}

TEST(ChunkFingerprint, IsBitIdenticalToTheTextbookTransform) {
  std::mt19937 random(41);
  for (int round = 0; round < 200; ++round) {
    std::vector<unsigned char> bytes(random() % 1100);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(random());
    ASSERT_EQ(Of(bytes), ByTheRule(bytes)) << "round " << round << ", " << bytes.size() << " bytes";
  }
}

}  // namespace
