// Stored resources with a gzip twin: the cache's write-once pair of a plain
// file "<folder>/<id>" and its gzip copy "<folder>/<id>.g", and the rule that
// picks which of the two to hand to a caller. The script server, the
// stylesheet server and the page optimiser all keep their results this way.
// Safe from any thread; files go through core/cache_files.h.
#ifndef ZELVARPACK_CORE_GZIP_TWIN_H_
#define ZELVARPACK_CORE_GZIP_TWIN_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack {

// Stores `bytes` as folder/id with its gzip twin (level 9) as folder/id.g,
// creating the folder when missing. Write once: nothing happens when
// folder/id exists already, and a pair another worker published first is
// kept. The twin goes first and the plain file marks the work done, so once
// the plain file exists its twin does too, even after a crash in between.
void StoreWithGzipTwin(const std::string& folder, const std::string& id, const unsigned char* bytes,
                       std::size_t length);

// Content-named storage that never trusts a name alone: the 32-bit content
// hash collides easily (two sheets in swapped order give the same one), so
// the bytes are stored under the first of up to kContentIdCandidates
// identifiers that is free or already holds exactly these bytes:
// IdFromNumber(hash), then IdFromNumber(hash + k * 0x9E3779B9) for k = 1, 2,
// ... Every process probes the same sequence. The plain file is published
// first and checked to hold our bytes (another process may have published
// other bytes under the same name at the same moment); then its gzip twin
// is written. A pair whose twin is missing (a crash between the two) gets
// its twin back. Returns the identifier the bytes stand under, or "" when
// every candidate holds other bytes or nothing could be written.
inline constexpr int kContentIdCandidates = 16;
std::string StoreContentWithGzipTwin(const std::string& folder, std::int32_t hash,
                                     const unsigned char* bytes, std::size_t length);

// The identifier candidates in the order StoreContentWithGzipTwin probes them.
std::string ContentIdCandidate(std::int32_t hash, int attempt);

// A plain body and its gzip twin; either may be missing (null).
struct PlainAndGzip {
  std::unique_ptr<CZelvarBuffer> plain;
  std::unique_ptr<CZelvarBuffer> gzip;
};

// Both files of the pair stored under `path` (path and path.g), each null
// when it does not exist or cannot be read.
PlainAndGzip ReadWithGzipTwin(const std::string& path);

// The serve-gzip choice. `acceptsGzip` comes in as whether the caller takes
// gzip and goes out as whether the returned body is gzip, by these rules:
// - no plain body, or a caller that does not take gzip: the plain body (null
//   when missing), and `acceptsGzip` becomes false when a twin exists;
// - no twin: the plain body, `acceptsGzip` left as it came;
// - an empty twin, or one not smaller than the plain body: the plain body,
//   `acceptsGzip` false;
// - otherwise the twin, and `servedGzip` is set to true (never cleared).
// The result is a new buffer owned by the caller, or null.
CZelvarBuffer* ChooseServedBody(PlainAndGzip pair, bool& acceptsGzip, bool& servedGzip);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_GZIP_TWIN_H_
