// CZelvarBuffer is the growable byte buffer that carries every page,
// stylesheet, script, image and download across the library's surface.
//
// Invariant: the byte after the content is always 0, so the content can be
// read as text when it holds no 0 bytes. Exported growth rule: a block that is
// too small becomes exactly (needed + 51) bytes. A buffer is built by one
// thread at a time; there is no locking.
#ifndef ZELVARPACK_ZELVAR_BUFFER_H_
#define ZELVARPACK_ZELVAR_BUFFER_H_

#include <cstdint>

#include "zelvarpack/export.h"

class CZelvarBuffer {
 public:
  static constexpr std::int32_t kInitialCapacity = 50;
  static constexpr std::int32_t kSlack = 51;

  ZP_EXPORT CZelvarBuffer();
  ZP_EXPORT ~CZelvarBuffer();
  CZelvarBuffer(const CZelvarBuffer&) = delete;
  CZelvarBuffer& operator=(const CZelvarBuffer&) = delete;

  // Appends `count` bytes. REQUIRES: count >= 0 and length + count fits in 32
  // bits (a larger request throws std::bad_alloc).
  ZP_EXPORT void AddValue(unsigned char* bytes, std::int32_t count);
  ZP_EXPORT void AddValue(const char* text, std::int32_t count);
  // Const-correct twin for internal callers; same rule.
  void Append(const unsigned char* bytes, std::int32_t count);

  // Valid until the next AddValue or destruction.
  // Inline for the library's own callers, and exported for hosts.
  ZP_EXPORT unsigned char* GetValue() { return data; }
  ZP_EXPORT std::int32_t GetValueLength() const { return length; }
  std::int32_t GetCapacity() const { return capacity; }

 private:
  friend class ZelvarBufferBlocks;  // core/buffer_blocks.h: hands over filled blocks

  unsigned char* data;
  std::int32_t length;
  // The size the exported rule gives the block; what callers can observe.
  std::int32_t capacity;
  // The size really allocated, which grows geometrically underneath
  // `capacity` so that many small appends cost amortised constant time.
  std::int32_t allocated_;
};

#endif  // ZELVARPACK_ZELVAR_BUFFER_H_
