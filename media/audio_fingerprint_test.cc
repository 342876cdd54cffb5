#include "media/audio_fingerprint.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/textbook_fft.h"

namespace zelvarpack {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes Le16(const std::vector<int>& samples) {
  Bytes out;
  for (const int s : samples) {
    out.push_back(static_cast<unsigned char>(s & 0xFF));
    out.push_back(static_cast<unsigned char>((s >> 8) & 0xFF));
  }
  return out;
}

Bytes LcgBytes(std::uint32_t seed, int count) {
  Bytes out;
  for (int i = 0; i < count; ++i) {
    seed = seed * 1103515245u + 12345u;
    out.push_back(static_cast<unsigned char>((seed >> 16) & 0xFF));
  }
  return out;
}

struct Expected {
  const char* name;
  Bytes piece;
  double fingerprint;
  std::int32_t bucket;
};

// Expected values from a separate step-by-step implementation of the loop
// (bit-reversal swap walk, twiddle-by-twiddle butterflies, division by 1024)
// run once in double precision; hexadecimal so that they are exact.
std::vector<Expected> Cases() {
  std::vector<int> square, dc, nyquist, saw;
  for (int i = 0; i < 800; ++i) square.push_back((i / 20) % 2 == 0 ? 8000 : -8000);
  for (int i = 0; i < 1024; ++i) dc.push_back(-32768);
  for (int i = 0; i < 1024; ++i) nyquist.push_back(i % 2 == 0 ? 32767 : -32767);
  for (int i = 0; i < 8820; ++i) saw.push_back((i * 37) % 4001 - 2000);
  return {
      {"silence", Bytes(1600, 0), 0.0, 0},
      {"square wave", Le16(square), 0x1.9dd2d9ac5e2dfp+6, 10345},
      {"noise", LcgBytes(7, 1778), 0x1.b0213b1d13ce2p+7, 21606},
      {"odd length: last high byte 0", LcgBytes(99, 11), 0x1.5ce5b8583b10ap+7, 17444},
      {"one byte: divisor 1", Bytes{0xFF}, 0x1.fe00000000000p+1, 398},
      {"full-scale DC", Le16(dc), 0x1.0000000000000p+9, 51200},
      {"alternating full scale", Le16(nyquist), 0x1.fffc000000000p+8, 51198},
      {"long piece: first 2048 bytes", Le16(saw), 0x1.f5702d07cf44bp+3, 1566},
  };
}

TEST(AudioFingerprint, MatchesIndependentlyComputedValues) {
  AudioFingerprint fingerprint;
  for (const Expected& c : Cases()) {
    SCOPED_TRACE(c.name);
    const double f = fingerprint.Of(c.piece.data(), static_cast<std::int64_t>(c.piece.size()));
    EXPECT_EQ(f, c.fingerprint);
    EXPECT_EQ(AudioFingerprint::BucketOf(f), c.bucket);
  }
}

TEST(AudioFingerprint, PieceLongerThanFrameUsesOnlyItsFirst2048Bytes) {
  AudioFingerprint fingerprint;
  Bytes piece = LcgBytes(3, 17640);
  const double whole = fingerprint.Of(piece.data(), 17640);
  for (std::size_t i = 2048; i < piece.size(); ++i) piece[i] = 0x7F;
  EXPECT_EQ(fingerprint.Of(piece.data(), 17640), whole);
  EXPECT_EQ(fingerprint.Of(piece.data(), 2048), whole);
}

TEST(AudioFingerprint, BucketIsTruncatedAndClamped) {
  EXPECT_EQ(AudioFingerprint::BucketOf(0.0), 0);
  EXPECT_EQ(AudioFingerprint::BucketOf(2.559999), 255);
  EXPECT_EQ(AudioFingerprint::BucketOf(2.56), 256);
  EXPECT_EQ(AudioFingerprint::BucketOf(655.349), 65534);
  EXPECT_EQ(AudioFingerprint::BucketOf(655.36), 65535);
  EXPECT_EQ(AudioFingerprint::BucketOf(1e300), 65535);
  EXPECT_EQ(AudioFingerprint::BucketOf(INFINITY), 65535);
  EXPECT_EQ(AudioFingerprint::BucketOf(NAN), 0);
  EXPECT_EQ(AudioFingerprint::BucketOf(-1.0), 0);
}

TEST(AudioFingerprint, TransformIsBitIdenticalToTextbookLoop) {
  for (const bool wide : {true, false}) {
    SCOPED_TRACE(wide ? "widest vectors" : "two-lane vectors");
    AudioFingerprint fingerprint(wide);
    std::mt19937 random(20240607);
    std::uniform_real_distribution<double> value(-20000.0, 20000.0);
    for (int round = 0; round < 20; ++round) {
      std::vector<double> x(1024), y(1024);
      for (int i = 0; i < 1024; ++i) {
        x[i] = value(random);
        y[i] = round % 2 == 0 ? 0.0 : value(random);
      }
      std::vector<double> fx = x, fy = y;
      reference::TextbookFft(x.data(), y.data(), 1024);
      fingerprint.Transform(fx.data(), fy.data());
      for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(fx[i], x[i]) << "round " << round << " real " << i;
        ASSERT_EQ(fy[i], y[i]) << "round " << round << " imaginary " << i;
      }
    }
  }
}

TEST(PiecesInBlock, CutsByTenOrLargestDivisorBelowTen) {
  const struct {
    std::int64_t n;
    std::int32_t parts;
  } kCases[] = {{16000, 10}, {16002, 9}, {22, 2}, {17, 1}, {1, 1},      {10, 10},
                {88200, 10}, {49, 7},    {64, 8}, {81, 9}, {2 * 11, 2}, {176401, 1}};
  for (const auto& c : kCases) {
    EXPECT_EQ(PiecesInBlock(c.n), c.parts) << c.n;
  }
}

}  // namespace
}  // namespace zelvarpack
