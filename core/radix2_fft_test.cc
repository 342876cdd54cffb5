#include "core/radix2_fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "tests/textbook_fft.h"

namespace zelvarpack {
namespace {

std::vector<double> Random(std::mt19937& random, std::size_t n, bool zero) {
  std::uniform_real_distribution<double> value(-300.0, 300.0);
  std::vector<double> out(n);
  for (double& v : out) v = zero ? 0.0 : value(random);
  return out;
}

// Every size the engine uses (4 to 1024) and then some, both vector widths,
// real and complex input: bit for bit the textbook loop.
TEST(Radix2Fft, TransformIsBitIdenticalToTextbookLoop) {
  std::mt19937 random(17);
  for (int n = Radix2Fft::kMinPoints; n <= 4096; n *= 2) {
    for (const bool wide : {true, false}) {
      const Radix2Fft fft(n, wide);
      for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(testing::Message()
                     << "n " << n << (wide ? " wide" : " narrow") << " round " << round);
        std::vector<double> x = Random(random, static_cast<std::size_t>(n), false);
        std::vector<double> y = Random(random, static_cast<std::size_t>(n), round % 2 == 0);
        std::vector<double> ex = x, ey = y;
        reference::TextbookFft(ex.data(), ey.data(), n);
        fft.Transform(x.data(), y.data());
        for (int i = 0; i < n; ++i) {
          ASSERT_EQ(x[static_cast<std::size_t>(i)], ex[static_cast<std::size_t>(i)]) << i;
          ASSERT_EQ(y[static_cast<std::size_t>(i)], ey[static_cast<std::size_t>(i)]) << i;
        }
      }
    }
  }
}

// A unit impulse at 1 gives e^{-2 pi i k / N} / N: checks the direction and
// the scaling, which bit-identity with the loop alone would not.
TEST(Radix2Fft, ImpulseGivesForwardTwiddlesScaledByOneOverN) {
  const int n = 64;
  const Radix2Fft fft(n);
  std::vector<double> x(n, 0.0), y(n, 0.0);
  x[1] = 1.0;
  fft.Transform(x.data(), y.data());
  for (int k = 0; k < n; ++k) {
    const double angle = -2.0 * std::numbers::pi * k / n;
    EXPECT_NEAR(x[static_cast<std::size_t>(k)], std::cos(angle) / n, 1e-15) << k;
    EXPECT_NEAR(y[static_cast<std::size_t>(k)], std::sin(angle) / n, 1e-15) << k;
  }
}

TEST(Radix2Fft, TwoDimensionalIsBitIdenticalToRowsThenColumns) {
  std::mt19937 random(29);
  const int shapes[][2] = {{16, 16}, {16, 8}, {8, 16}, {4, 4}, {32, 4}, {4, 64}};
  for (const auto& shape : shapes) {
    const int width = shape[0], height = shape[1];
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    const Radix2Fft across(width), down(height);
    const auto cells = static_cast<std::size_t>(width * height);
    std::vector<double> x = Random(random, cells, false), y = Random(random, cells, false);
    std::vector<double> ex = x, ey = y;
    reference::TextbookFft2D(ex.data(), ey.data(), width, height);
    Transform2D(across, down, x.data(), y.data());
    for (std::size_t i = 0; i < cells; ++i) {
      ASSERT_EQ(x[i], ex[i]) << i;
      ASSERT_EQ(y[i], ey[i]) << i;
    }
  }
}

}  // namespace
}  // namespace zelvarpack
