// The zlib helpers: gzip or raw deflate out, gzip or raw deflate in, both in
// 16384-byte pieces. Pure functions; safe from any thread.
#ifndef ZELVARPACK_NET_ZLIB_CODEC_H_
#define ZELVARPACK_NET_ZLIB_CODEC_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::net {

enum class ZlibFormat { kGzip, kRawDeflate };

// Level 9, memory level 9, default strategy; always a complete stream, so
// empty input gives a valid empty gzip member.
std::unique_ptr<CZelvarBuffer> Compress(const unsigned char* bytes, std::size_t count,
                                        ZlibFormat format);

// The inflated bytes, or an empty buffer when the data is corrupt (data
// error, need of a dictionary, out of memory) or the output would exceed
// `maxOutput` bytes. Input that ends before the stream does gives what could
// be inflated; bytes after the end of the stream are ignored.
std::unique_ptr<CZelvarBuffer> Decompress(const unsigned char* bytes, std::size_t count,
                                          ZlibFormat format, std::size_t maxOutput);

// The largest output any buffer can hold (32-bit lengths).
inline constexpr std::size_t kMaxBufferBytes = 0x7FFFFFFFu - CZelvarBuffer::kSlack;

}  // namespace zelvarpack::net

#endif  // ZELVARPACK_NET_ZLIB_CODEC_H_
