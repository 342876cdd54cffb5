// The files of the video tesserae server, and their readers.
//
//   index file := frame*
//   frame      := tile{225}            the frame's tiles, row by row, 15 across
//   tile       := mosaic:u32 big-endian  place:u8
//
//   data file  := record*
//   record     := length:u32 big-endian  mosaic:byte{length}
//   mosaic     := a baseline JPEG, 1920 x 1080, of 15 x 15 places of
//                 128 x 72 pixels, place p at column p mod 15, row p / 15
//
// `mosaic` in a tile entry is the record number in the data file (counted
// from 0) and `place` (0..224) where the tile sits in it. Every frame is
// 1920 x 1080 and every tile 128 x 72, so nothing else needs recording.
// Both files are written by the video engine (media/video_engine.cc).
//
// Thread safety: pure functions.
#ifndef ZELVARPACK_MEDIA_VIDEO_INDEX_H_
#define ZELVARPACK_MEDIA_VIDEO_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelvarpack {

inline constexpr int kFrameWidth = 1920;
inline constexpr int kFrameHeight = 1080;
inline constexpr int kTilesAcross = 15;
inline constexpr int kTilesDown = 15;
inline constexpr int kTilesPerFrame = kTilesAcross * kTilesDown;  // 225
inline constexpr int kPlacesPerMosaic = kTilesPerFrame;
inline constexpr std::size_t kTileEntryBytes = 5;
inline constexpr std::size_t kFrameEntryBytes = kTileEntryBytes * kTilesPerFrame;  // 1125

struct TileEntry {
  std::uint32_t mosaic;
  std::uint8_t place;
};

// Appends the entry's five bytes to `out`.
void AppendTileEntry(const TileEntry& entry, std::vector<std::uint8_t>& out);

// Reads an index of `count` bytes against a data file of `records` records:
// false, with `tiles` empty, when the length is not a whole number of
// frames or an entry names a record beyond `records` or a place beyond 224.
bool ParseVideoIndex(const std::uint8_t* bytes, std::size_t count, std::uint32_t records,
                     std::vector<TileEntry>& tiles);

// Where each record's bytes start and how long they are.
struct RecordSpan {
  std::uint64_t offset;
  std::uint32_t length;
};

// Walks the record lengths of a data file of `fileSize` bytes, reading the
// four length bytes at an offset through `readAt` (false on a short read):
// false when a record runs past the end. At most `maxRecords` are accepted.
template <typename ReadAt>
bool ScanVideoRecords(std::uint64_t fileSize, ReadAt readAt, std::size_t maxRecords,
                      std::vector<RecordSpan>& spans) {
  spans.clear();
  std::uint64_t at = 0;
  while (at < fileSize) {
    std::uint8_t b[4];
    if (fileSize - at < 4 || spans.size() == maxRecords || !readAt(at, b)) return false;
    const std::uint32_t length = static_cast<std::uint32_t>(b[0]) << 24 |
                                 static_cast<std::uint32_t>(b[1]) << 16 |
                                 static_cast<std::uint32_t>(b[2]) << 8 | b[3];
    if (fileSize - at - 4 < length) return false;
    spans.push_back({at + 4, length});
    at += 4 + static_cast<std::uint64_t>(length);
  }
  return true;
}

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_VIDEO_INDEX_H_
