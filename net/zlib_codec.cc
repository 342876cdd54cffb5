#include "net/zlib_codec.h"

#include <zlib.h>

#include <algorithm>

#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::net {

namespace {

constexpr std::size_t kPiece = 16384;
constexpr int kLevel = 9;
constexpr int kMemoryLevel = 9;

int WindowBits(ZlibFormat format) { return format == ZlibFormat::kGzip ? 31 : -15; }

}  // namespace

std::unique_ptr<CZelvarBuffer> Compress(const unsigned char* bytes, std::size_t count,
                                        ZlibFormat format) {
  auto out = std::make_unique<CZelvarBuffer>();
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, WindowBits(format), kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return out;
  }
  // The gzip header names Unix as the system on every platform (zlib would
  // write its build's own code), so that stored twins are the same bytes
  // wherever they were made. Read by deflate until the header is out.
  gz_header header{};
  header.os = 3;
  if (format == ZlibFormat::kGzip && deflateSetHeader(&stream, &header) != Z_OK) {
    deflateEnd(&stream);
    return out;
  }
  unsigned char area[kPiece];
  std::size_t offset = 0;
  int flush;
  do {
    const std::size_t piece = std::min(kPiece, count - offset);
    stream.next_in = const_cast<unsigned char*>(bytes + offset);
    stream.avail_in = static_cast<uInt>(piece);
    offset += piece;
    flush = offset == count ? Z_FINISH : Z_NO_FLUSH;
    do {
      stream.next_out = area;
      stream.avail_out = kPiece;
      deflate(&stream, flush);
      out->Append(area, static_cast<std::int32_t>(kPiece - stream.avail_out));
    } while (stream.avail_out == 0);
  } while (flush != Z_FINISH);
  deflateEnd(&stream);
  return out;
}

std::unique_ptr<CZelvarBuffer> Decompress(const unsigned char* bytes, std::size_t count,
                                          ZlibFormat format, std::size_t maxOutput) {
  maxOutput = std::min(maxOutput, kMaxBufferBytes);
  auto out = std::make_unique<CZelvarBuffer>();
  z_stream stream{};
  if (inflateInit2(&stream, WindowBits(format)) != Z_OK) return out;
  unsigned char area[kPiece];
  bool failed = false;
  int status = Z_OK;
  for (std::size_t offset = 0; offset < count && status != Z_STREAM_END && !failed;) {
    const std::size_t piece = std::min(kPiece, count - offset);
    stream.next_in = const_cast<unsigned char*>(bytes + offset);
    stream.avail_in = static_cast<uInt>(piece);
    offset += piece;
    do {
      stream.next_out = area;
      stream.avail_out = kPiece;
      status = inflate(&stream, Z_NO_FLUSH);
      if (status == Z_NEED_DICT || status == Z_DATA_ERROR || status == Z_MEM_ERROR) {
        failed = true;
        break;
      }
      const std::size_t produced = kPiece - stream.avail_out;
      if (produced > maxOutput - static_cast<std::size_t>(out->GetValueLength())) {
        failed = true;
        break;
      }
      out->Append(area, static_cast<std::int32_t>(produced));
    } while (stream.avail_out == 0);
  }
  inflateEnd(&stream);
  if (failed) return std::make_unique<CZelvarBuffer>();
  return out;
}

}  // namespace zelvarpack::net

CZelvarBuffer* CZelvarUtils::CompressBuffer(unsigned char* bytes, std::int32_t length,
                                            bool rawDeflate, bool gzip) {
  if (!rawDeflate && !gzip) return new CZelvarBuffer();
  const std::size_t count = length > 0 ? static_cast<std::size_t>(length) : 0;
  using zelvarpack::net::ZlibFormat;
  return zelvarpack::net::Compress(bytes, count,
                                   rawDeflate ? ZlibFormat::kRawDeflate : ZlibFormat::kGzip)
      .release();
}

CZelvarBuffer* CZelvarUtils::DecompressBuffer(unsigned char* bytes, std::int32_t length,
                                              bool rawDeflate) {
  const std::size_t count = length > 0 ? static_cast<std::size_t>(length) : 0;
  using zelvarpack::net::ZlibFormat;
  return zelvarpack::net::Decompress(bytes, count,
                                     rawDeflate ? ZlibFormat::kRawDeflate : ZlibFormat::kGzip,
                                     zelvarpack::net::kMaxBufferBytes)
      .release();
}
