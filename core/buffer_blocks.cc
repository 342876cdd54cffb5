#include "core/buffer_blocks.h"

#include <sys/mman.h>

#include <cstdlib>
#include <limits>
#include <new>

unsigned char* ZelvarBufferBlocks::Allocate(std::size_t size, std::size_t* allocated) {
  if (size == 0) size = 1;
  if (size < kHugeThreshold) {
    void* block = std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    *allocated = size;
    return static_cast<unsigned char*>(block);
  }
  if (size > std::numeric_limits<std::size_t>::max() - kHugePage) throw std::bad_alloc();
  const std::size_t rounded = (size + kHugePage - 1) / kHugePage * kHugePage;
  void* block = nullptr;
  if (posix_memalign(&block, kHugePage, rounded) != 0) throw std::bad_alloc();
  // Advice only: without huge pages the block is simply made of small ones.
  madvise(block, rounded, MADV_HUGEPAGE);
  *allocated = rounded;
  return static_cast<unsigned char*>(block);
}

std::size_t ZelvarBufferBlocks::CapacityFor(std::size_t length) {
  const auto initial = static_cast<std::size_t>(CZelvarBuffer::kInitialCapacity);
  return length + 1 > initial ? length + CZelvarBuffer::kSlack : initial;
}

void ZelvarBufferBlocks::Adopt(CZelvarBuffer& buffer, unsigned char* block, std::size_t length,
                               std::size_t allocated) {
  constexpr auto kMax = static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
  const std::size_t capacity = CapacityFor(length);
  if (block == nullptr || allocated < capacity || capacity > kMax) throw std::bad_alloc();
  std::free(buffer.data);
  buffer.data = block;
  buffer.length = static_cast<std::int32_t>(length);
  buffer.capacity = static_cast<std::int32_t>(capacity);
  // The buffer's real size is a 32-bit count; a larger block is used only up
  // to that.
  buffer.allocated_ = static_cast<std::int32_t>(allocated < kMax ? allocated : kMax);
  block[length] = 0;
}
