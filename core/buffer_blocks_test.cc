#include "core/buffer_blocks.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

std::string Contents(CZelvarBuffer& buffer) {
  return std::string(reinterpret_cast<char*>(buffer.GetValue()),
                     static_cast<std::size_t>(buffer.GetValueLength()));
}

TEST(BufferBlocks, CapacityIsWhatOneAppendToANewBufferGives) {
  for (const std::int32_t length : {0, 1, 48, 49, 50, 51, 1000}) {
    SCOPED_TRACE(length);
    CZelvarBuffer appended;
    const std::string bytes(static_cast<std::size_t>(length), 'x');
    appended.AddValue(bytes.data(), length);
    EXPECT_EQ(ZelvarBufferBlocks::CapacityFor(static_cast<std::size_t>(length)),
              static_cast<std::size_t>(appended.GetCapacity()));
  }
}

TEST(BufferBlocks, SmallBlocksAreExactAndLargeOnesWholeAlignedHugePages) {
  std::size_t allocated = 0;
  unsigned char* small = ZelvarBufferBlocks::Allocate(1000, &allocated);
  EXPECT_EQ(allocated, 1000u);
  std::free(small);

  constexpr std::size_t kHuge = ZelvarBufferBlocks::kHugePage;
  for (const std::size_t size : {ZelvarBufferBlocks::kHugeThreshold,
                                 ZelvarBufferBlocks::kHugeThreshold + 1, 5 * kHuge - 7}) {
    SCOPED_TRACE(size);
    unsigned char* large = ZelvarBufferBlocks::Allocate(size, &allocated);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(large) % ZelvarBufferBlocks::kBlockAlignment, 0u);
    EXPECT_GE(allocated, size);
    EXPECT_LT(allocated - size, kHuge);
    EXPECT_EQ(allocated % kHuge, 0u);
    // Every byte is usable, and the block resizes like any other.
    std::memset(large, 0xA5, allocated);
    auto* grown = static_cast<unsigned char*>(std::realloc(large, allocated + kHuge));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(grown[allocated - 1], 0xA5);
    std::free(grown);
  }
}

TEST(BufferBlocks, AdoptedBlockGrowsAndIsFreedByTheBuffer) {
  for (const std::size_t length : {std::size_t{10}, std::size_t{5} << 20}) {
    SCOPED_TRACE(length);
    std::size_t allocated = 0;
    unsigned char* block =
        ZelvarBufferBlocks::Allocate(ZelvarBufferBlocks::CapacityFor(length), &allocated);
    std::memset(block, 'a', allocated);
    CZelvarBuffer buffer;
    ZelvarBufferBlocks::Adopt(buffer, block, length, allocated);
    EXPECT_EQ(buffer.GetValue(), block);
    EXPECT_EQ(static_cast<std::size_t>(buffer.GetValueLength()), length);
    EXPECT_EQ(static_cast<std::size_t>(buffer.GetCapacity()),
              ZelvarBufferBlocks::CapacityFor(length));
    EXPECT_EQ(buffer.GetValue()[length], 0) << "the terminator is written";

    // The growth rule holds from there, through the slack and past the block.
    const std::string tail(3 * ZelvarBufferBlocks::kHugePage, 'b');
    buffer.AddValue("b", 1);
    EXPECT_EQ(static_cast<std::size_t>(buffer.GetCapacity()),
              ZelvarBufferBlocks::CapacityFor(length))
        << "the slack takes one more byte";
    buffer.AddValue(tail.data(), static_cast<std::int32_t>(tail.size()));
    EXPECT_EQ(static_cast<std::size_t>(buffer.GetCapacity()),
              length + 1 + tail.size() + CZelvarBuffer::kSlack);
    const std::string expected = std::string(length, 'a') + "b" + tail;
    EXPECT_EQ(Contents(buffer), expected);
    EXPECT_EQ(buffer.GetValue()[buffer.GetValueLength()], 0);
  }
}

TEST(BufferBlocks, TooSmallBlockIsRefusedAndStaysTheCallers) {
  std::size_t allocated = 0;
  unsigned char* block = ZelvarBufferBlocks::Allocate(100, &allocated);
  CZelvarBuffer buffer;
  buffer.AddValue("keep", 4);
  // 60 bytes of content need 111 bytes under the growth rule.
  EXPECT_THROW(ZelvarBufferBlocks::Adopt(buffer, block, 60, allocated), std::bad_alloc);
  EXPECT_EQ(Contents(buffer), "keep");
  std::free(block);
}

}  // namespace

namespace {

TEST(BufferBlocks, ALargeBlockGivenBackByItsBufferIsHandedOutAgain) {
  constexpr std::size_t kSize = std::size_t{10} << 20;
  std::size_t allocated = 0;
  unsigned char* block = ZelvarBufferBlocks::Allocate(kSize, &allocated);
  {
    CZelvarBuffer buffer;
    ZelvarBufferBlocks::Adopt(buffer, block, kSize - 1000, allocated);
  }
  // The same block for the same size or a somewhat smaller one; a much
  // smaller request gets a block of its own.
  std::size_t again = 0;
  unsigned char* small = ZelvarBufferBlocks::Allocate(ZelvarBufferBlocks::kHugeThreshold, &again);
  EXPECT_NE(small, block);
  unsigned char* reused = ZelvarBufferBlocks::Allocate(kSize - (1 << 20), &again);
  EXPECT_EQ(reused, block);
  EXPECT_EQ(again, allocated);
  ZelvarBufferBlocks::Release(reused, again);
  EXPECT_EQ(ZelvarBufferBlocks::Allocate(kSize, &again), block);
  std::free(block);
  std::free(small);
}

TEST(BufferBlocks, OnlyWholeAlignedHugePagesAreKept) {
  constexpr std::size_t kSize = std::size_t{8} << 20;
  // A block of the right size that malloc placed (not page-aligned).
  auto* plain = static_cast<unsigned char*>(std::malloc(kSize + 16));
  ASSERT_NE(plain, nullptr);
  unsigned char* unaligned = plain;
  if (reinterpret_cast<std::uintptr_t>(plain) % ZelvarBufferBlocks::kBlockAlignment == 0) {
    std::free(plain);
    GTEST_SKIP() << "malloc returned a block as aligned as Allocate makes them";
  }
  ZelvarBufferBlocks::Release(unaligned, kSize);  // freed
  std::size_t allocated = 0;
  unsigned char* fresh = ZelvarBufferBlocks::Allocate(kSize, &allocated);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(fresh) % ZelvarBufferBlocks::kBlockAlignment, 0u);
  // A small block is freed too, whatever its address.
  ZelvarBufferBlocks::Release(static_cast<unsigned char*>(std::malloc(64)), 64);
  ZelvarBufferBlocks::Release(nullptr, 0);
  std::free(fresh);
}

}  // namespace
