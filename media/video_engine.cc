#include "media/video_engine.h"

#include <fcntl.h>

#include <cstring>

#include "media/media_io.h"

namespace zelvarpack {

namespace {

constexpr std::size_t kFrameStride = 4 * kFrameWidth;
constexpr std::size_t kTileRowBytes = 4 * VideoFingerprint::kTileWidth;
constexpr int kTileHeight = VideoFingerprint::kTileHeight;

}  // namespace

// One open mosaic: its file, its encoder and the row of places being
// filled.
struct VideoEngine::Mosaic {
  std::uint32_t record = 0;
  int fd = -1;
  int placed = 0;
  image::PixelBytes row;  // kTileHeight rows of kFrameStride bytes
  image::JpegRowEncoder encoder;

  ~Mosaic() { CloseFile(fd); }

  void WriteRows(const std::uint8_t* rows, int count, std::size_t stride) {
    if (!encoder.WriteRows(rows, count, stride)) ThrowMediaError(kCouldNotOpenFile);
  }
};

VideoEngine::VideoEngine(std::string workDirectory) : files_(std::move(workDirectory)) {}

VideoEngine::~VideoEngine() = default;

TileEntry VideoEngine::Place(int bucket, const std::uint8_t* tile) {
  std::unique_ptr<Mosaic>& slot = open_[static_cast<std::size_t>(bucket)];
  if (!slot) {
    auto mosaic = std::make_unique<Mosaic>();
    std::string name;
    mosaic->record = files_.Start(name);
    ++mosaicsStarted_;
    mosaic->fd = OpenRetrying(files_.PathOf(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (mosaic->fd < 0) ThrowMediaError(kCouldNotOpenFile);
    if (spareRows_.empty()) {
      mosaic->row.resize(kFrameStride * kTileHeight);
    } else {
      mosaic->row = std::move(spareRows_.back());
      spareRows_.pop_back();
    }
    Mosaic* raw = mosaic.get();
    const bool started = mosaic->encoder.Start(kFrameWidth, kFrameHeight, kQuality,
                                               [raw](const std::uint8_t* bytes, std::size_t count) {
                                                 return WriteFully(raw->fd, bytes, count);
                                               });
    if (!started) ThrowMediaError(kCouldNotOpenFile);
    slot = std::move(mosaic);
  }
  Mosaic& mosaic = *slot;
  const int place = mosaic.placed;
  const int column = place % kTilesAcross;
  std::uint8_t* to = mosaic.row.data() + kTileRowBytes * static_cast<std::size_t>(column);
  for (int y = 0; y < kTileHeight; ++y) {
    std::memcpy(to + kFrameStride * static_cast<std::size_t>(y),
                tile + kFrameStride * static_cast<std::size_t>(y), kTileRowBytes);
  }
  ++mosaic.placed;
  if (column == kTilesAcross - 1) mosaic.WriteRows(mosaic.row.data(), kTileHeight, kFrameStride);
  const TileEntry entry{mosaic.record, static_cast<std::uint8_t>(place)};
  if (mosaic.placed == kPlacesPerMosaic) {
    Finish(mosaic);
    spareRows_.push_back(std::move(mosaic.row));
    slot.reset();
  }
  return entry;
}

void VideoEngine::AddFrame(const image::RgbaImage& frame, std::vector<std::uint8_t>& index) {
  const std::uint8_t* pixels = frame.pixels.data();
  for (int ty = 0; ty < kTilesDown; ++ty) {
    for (int tx = 0; tx < kTilesAcross; ++tx) {
      const std::uint8_t* tile = pixels +
                                 kFrameStride * static_cast<std::size_t>(ty * kTileHeight) +
                                 kTileRowBytes * static_cast<std::size_t>(tx);
      const int bucket = fingerprint_.BucketOf(tile, kFrameStride);
      AppendTileEntry(Place(bucket, tile), index);
    }
  }
}

void VideoEngine::Finish(Mosaic& mosaic) {
  const int inRow = mosaic.placed % kTilesAcross;
  if (inRow != 0) {
    // The rest of a part-filled row: empty places.
    for (int y = 0; y < kTileHeight; ++y) {
      std::memset(mosaic.row.data() + kFrameStride * static_cast<std::size_t>(y) +
                      kTileRowBytes * static_cast<std::size_t>(inRow),
                  kEmptyPlace, kTileRowBytes * static_cast<std::size_t>(kTilesAcross - inRow));
    }
    mosaic.WriteRows(mosaic.row.data(), kTileHeight, kFrameStride);
  }
  const int rowsTaken = (mosaic.placed + kTilesAcross - 1) / kTilesAcross;
  const int rowsLeft = (kTilesDown - rowsTaken) * kTileHeight;
  if (rowsLeft > 0) {
    std::vector<std::uint8_t> grey(kFrameStride, kEmptyPlace);
    mosaic.WriteRows(grey.data(), rowsLeft, 0);  // the same row again and again
  }
  if (!mosaic.encoder.Finish()) ThrowMediaError(kCouldNotOpenFile);
  CloseFile(mosaic.fd);
  mosaic.fd = -1;
}

void VideoEngine::Flush(OutputFile& data) {
  for (std::unique_ptr<Mosaic>& slot : open_) {
    if (!slot) continue;
    std::unique_ptr<Mosaic> mosaic = std::move(slot);
    Finish(*mosaic);
  }
  files_.AppendRecords(data);
}

}  // namespace zelvarpack
