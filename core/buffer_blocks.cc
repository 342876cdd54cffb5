#include "core/buffer_blocks.h"

#if !defined(_WIN32)
#include <sys/mman.h>
#endif

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <new>
#include <vector>

namespace {

struct KeptBlock {
  unsigned char* block;
  std::size_t size;
};

// Large blocks kept for reuse; never destroyed, so buffers destroyed at exit
// can still give theirs back.
struct KeptBlocks {
  std::mutex mutex;
  std::vector<KeptBlock> blocks;  // guarded by mutex
  std::size_t bytes = 0;          // guarded by mutex
};

KeptBlocks& Kept() {
  static auto* kept = new KeptBlocks;
  return *kept;
}

// The smallest kept block of at least `size` bytes that wastes no more than
// half as much again, or null.
unsigned char* TakeKept(std::size_t size, std::size_t* allocated) {
  KeptBlocks& kept = Kept();
  std::lock_guard<std::mutex> lock(kept.mutex);
  auto best = kept.blocks.end();
  for (auto it = kept.blocks.begin(); it != kept.blocks.end(); ++it) {
    if (it->size >= size && it->size - size <= size / 2 &&
        (best == kept.blocks.end() || it->size < best->size)) {
      best = it;
    }
  }
  if (best == kept.blocks.end()) return nullptr;
  unsigned char* block = best->block;
  *allocated = best->size;
  kept.bytes -= best->size;
  kept.blocks.erase(best);
  return block;
}

// A block of `size` bytes (a multiple of kHugePage) aligned to
// kBlockAlignment that std::free and std::realloc accept; null when memory
// is short.
void* AllocateLarge(std::size_t size) {
#if defined(_WIN32)
  return std::malloc(size);
#else
  void* block = nullptr;
  if (posix_memalign(&block, ZelvarBufferBlocks::kHugePage, size) != 0) return nullptr;
  // Advice only: without huge pages the block is simply made of small ones.
  madvise(block, size, MADV_HUGEPAGE);
  return block;
#endif
}

}  // namespace

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
  if (unsigned char* kept = TakeKept(rounded, allocated)) return kept;
  void* block = AllocateLarge(rounded);
  if (block == nullptr) throw std::bad_alloc();
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

void ZelvarBufferBlocks::Release(unsigned char* block, std::size_t allocated) {
  // Only whole aligned huge pages, as Allocate makes them: a block that
  // realloc has moved or resized since is not one.
  if (block != nullptr && allocated >= kHugeThreshold && allocated % kHugePage == 0 &&
      reinterpret_cast<std::uintptr_t>(block) % kBlockAlignment == 0) {
    KeptBlocks& kept = Kept();
    std::lock_guard<std::mutex> lock(kept.mutex);
    if (kept.blocks.size() < kKeptBlocks && kept.bytes + allocated <= kKeptBytes) {
      kept.blocks.push_back({block, allocated});
      kept.bytes += allocated;
      return;
    }
  }
  std::free(block);
}
