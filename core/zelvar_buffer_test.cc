#include "zelvarpack/zelvar_buffer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string Contents(CZelvarBuffer& buffer) {
  return std::string(reinterpret_cast<char*>(buffer.GetValue()),
                     static_cast<std::size_t>(buffer.GetValueLength()));
}

TEST(ZelvarBuffer, StartsEmptyWithFiftyZeroBytes) {
  CZelvarBuffer buffer;
  EXPECT_EQ(buffer.GetValueLength(), 0);
  EXPECT_EQ(buffer.GetCapacity(), 50);
  ASSERT_NE(buffer.GetValue(), nullptr);
  EXPECT_EQ(buffer.GetValue()[0], 0);
}

TEST(ZelvarBuffer, GrowsToExactNeedPlusFiftyOne) {
  CZelvarBuffer buffer;
  const std::string fortyNine(49, 'x');
  buffer.AddValue(fortyNine.data(), 49);
  EXPECT_EQ(buffer.GetCapacity(), 50) << "49 bytes plus the terminator fit";
  buffer.AddValue("y", 1);
  EXPECT_EQ(buffer.GetCapacity(), 101);
  EXPECT_EQ(buffer.GetValueLength(), 50);

  // A large append grows to exactly its need plus 51, with no doubling.
  const std::string big(1000, 'z');
  buffer.AddValue(big.data(), 1000);
  EXPECT_EQ(buffer.GetCapacity(), 1050 + 51);
  buffer.AddValue(big.data(), 50);
  EXPECT_EQ(buffer.GetCapacity(), 1101) << "1100 + 1 still fits";
  buffer.AddValue("!", 1);
  EXPECT_EQ(buffer.GetCapacity(), 1101 + 51);
}

TEST(ZelvarBuffer, ZeroCountOnlyRewritesTerminator) {
  CZelvarBuffer buffer;
  buffer.AddValue("abc", 3);
  buffer.AddValue("", 0);
  EXPECT_EQ(Contents(buffer), "abc");
  EXPECT_EQ(buffer.GetValue()[3], 0);
  EXPECT_EQ(buffer.GetCapacity(), 50);
}

TEST(ZelvarBuffer, KeepsContentAndTerminatorAcrossManyAppends) {
  std::mt19937 random(7);
  CZelvarBuffer buffer;
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    std::string piece(random() % 300, '\0');
    for (char& c : piece) c = static_cast<char>(random());
    buffer.AddValue(piece.data(), static_cast<std::int32_t>(piece.size()));
    expected += piece;
    ASSERT_EQ(buffer.GetValue()[buffer.GetValueLength()], 0);
    ASSERT_GE(buffer.GetCapacity(), buffer.GetValueLength() + 1);
  }
  EXPECT_EQ(Contents(buffer), expected);
}

TEST(ZelvarBuffer, RefusesLengthsBeyondThirtyTwoBits) {
  CZelvarBuffer buffer;
  buffer.AddValue("abc", 3);
  EXPECT_THROW(buffer.AddValue("x", -1), std::bad_alloc);
  EXPECT_THROW(buffer.AddValue("x", 0x7FFFFFF0), std::bad_alloc);
  EXPECT_EQ(Contents(buffer), "abc");
}

}  // namespace
