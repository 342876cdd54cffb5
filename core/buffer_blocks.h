// Blocks of memory for CZelvarBuffer that are filled outside the buffer and
// then handed to it without a copy: the stylesheet minifier writes its output
// text and its copies of the sheets straight into such blocks.
//
// A block of 4 MB or more is 2 MB-aligned, rounded up to whole 2 MB pages and
// marked for transparent huge pages, so that filling it takes a page fault
// per 2 MB instead of one per 4 KB. Windows has no aligned allocation whose
// blocks std::free and std::realloc accept, so there such a block is only
// rounded up, with malloc's own alignment (kBlockAlignment). Every block, whatever its size, is
// freed and resized with std::free and std::realloc, like the buffer's own blocks.
//
// A few such large blocks are kept when their buffers are destroyed (at most
// kKeptBlocks, kKeptBytes in all, for the whole process) and handed out again
// by Allocate: a page's sheets are copied and minified into blocks of much
// the same size every time, and a kept block's pages need no fresh zeroing
// by the kernel.
#ifndef ZELVARPACK_CORE_BUFFER_BLOCKS_H_
#define ZELVARPACK_CORE_BUFFER_BLOCKS_H_

#include <cstddef>
#include <cstdint>

#include "zelvarpack/zelvar_buffer.h"

class ZelvarBufferBlocks {
 public:
  static constexpr std::size_t kHugePage = std::size_t{2} << 20;
  static constexpr std::size_t kHugeThreshold = std::size_t{4} << 20;
#if defined(_WIN32)
  static constexpr std::size_t kBlockAlignment = alignof(std::max_align_t);
#else
  static constexpr std::size_t kBlockAlignment = kHugePage;
#endif
  static constexpr std::size_t kKeptBlocks = 4;
  static constexpr std::size_t kKeptBytes = std::size_t{64} << 20;

  // A block of at least `size` bytes (at least one); `*allocated` receives
  // the usable size. Throws std::bad_alloc when memory is short.
  static unsigned char* Allocate(std::size_t size, std::size_t* allocated);

  // The capacity CZelvarBuffer reports after one append of `length` bytes to
  // a new buffer; a block given to Adopt needs at least this many bytes.
  static std::size_t CapacityFor(std::size_t length);

  // Gives `block` (from Allocate or std::malloc/realloc, `allocated` bytes,
  // its first `length` bytes the content) to `buffer`, which frees its own
  // block. The buffer then reads as if the content had been appended to a
  // new buffer: same length and capacity, the byte after the content 0.
  // REQUIRES: allocated >= CapacityFor(length) and allocated fits in 32 bits;
  // otherwise throws std::bad_alloc and `block` still belongs to the caller.
  // Frees a buffer's block (`allocated` bytes), or keeps it for a later
  // Allocate when it is a large block as Allocate makes them and there is
  // room.
  static void Release(unsigned char* block, std::size_t allocated);

  static void Adopt(CZelvarBuffer& buffer, unsigned char* block, std::size_t length,
                    std::size_t allocated);
};

#endif  // ZELVARPACK_CORE_BUFFER_BLOCKS_H_
