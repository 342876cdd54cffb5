#include "media/video_index.h"

namespace zelvarpack {

void AppendTileEntry(const TileEntry& entry, std::vector<std::uint8_t>& out) {
  out.push_back(static_cast<std::uint8_t>(entry.mosaic >> 24));
  out.push_back(static_cast<std::uint8_t>(entry.mosaic >> 16));
  out.push_back(static_cast<std::uint8_t>(entry.mosaic >> 8));
  out.push_back(static_cast<std::uint8_t>(entry.mosaic));
  out.push_back(entry.place);
}

bool ParseVideoIndex(const std::uint8_t* bytes, std::size_t count, std::uint32_t records,
                     std::vector<TileEntry>& tiles) {
  tiles.clear();
  if (count % kFrameEntryBytes != 0) return false;
  tiles.reserve(count / kTileEntryBytes);
  for (std::size_t at = 0; at < count; at += kTileEntryBytes) {
    const std::uint8_t* b = bytes + at;
    const TileEntry entry{static_cast<std::uint32_t>(b[0]) << 24 |
                              static_cast<std::uint32_t>(b[1]) << 16 |
                              static_cast<std::uint32_t>(b[2]) << 8 | b[3],
                          b[4]};
    if (entry.mosaic >= records || entry.place >= kPlacesPerMosaic) {
      tiles.clear();
      return false;
    }
    tiles.push_back(entry);
  }
  return true;
}

}  // namespace zelvarpack
