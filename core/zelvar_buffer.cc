#include "zelvarpack/zelvar_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "core/buffer_blocks.h"

namespace {

unsigned char* Allocate(std::int32_t size) {
  auto* block = static_cast<unsigned char*>(std::malloc(size));
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

CZelvarBuffer::CZelvarBuffer()
    : data(Allocate(kInitialCapacity)),
      length(0),
      capacity(kInitialCapacity),
      allocated_(kInitialCapacity) {
  std::memset(data, 0, kInitialCapacity);
}

CZelvarBuffer::~CZelvarBuffer() {
  ZelvarBufferBlocks::Release(data, static_cast<std::size_t>(allocated_));
  data = nullptr;
}

void CZelvarBuffer::AddValue(unsigned char* bytes, std::int32_t count) { Append(bytes, count); }

void CZelvarBuffer::AddValue(const char* text, std::int32_t count) {
  Append(reinterpret_cast<const unsigned char*>(text), count);
}

void CZelvarBuffer::Append(const unsigned char* bytes, std::int32_t count) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  if (count < 0) throw std::bad_alloc();
  const std::int64_t needed = static_cast<std::int64_t>(length) + count;
  if (needed + kSlack > kMax) throw std::bad_alloc();
  if (needed + 1 > capacity) {
    // The exported rule: exactly the need plus 51 bytes of slack.
    capacity = static_cast<std::int32_t>(needed + kSlack);
    if (capacity > allocated_) {
      const std::int64_t doubled = std::min<std::int64_t>(2 * std::int64_t{allocated_}, kMax);
      const auto size = static_cast<std::int32_t>(std::max<std::int64_t>(doubled, capacity));
      // realloc can move a large block by remapping its pages instead of
      // copying them.
      auto* grown = static_cast<unsigned char*>(std::realloc(data, size));
      if (grown == nullptr) throw std::bad_alloc();
      data = grown;
      allocated_ = size;
    }
  }
  if (count > 0) std::memcpy(data + length, bytes, count);
  length = static_cast<std::int32_t>(needed);
  data[length] = 0;
}

// GetValue and GetValueLength are inline for the library's own callers; a host
// calls the exported copies, which these references make the compiler emit.
[[gnu::used]] static unsigned char* (CZelvarBuffer::*const kExportedGetValue)() =
    &CZelvarBuffer::GetValue;
[[gnu::used]] static std::int32_t (CZelvarBuffer::*const kExportedGetValueLength)() const =
    &CZelvarBuffer::GetValueLength;
