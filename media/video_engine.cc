#include "media/video_engine.h"

#include <fcntl.h>

#include <cstring>
#include <exception>
#include <thread>

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

// One tile's part in a frame, planned on the caller's thread.
struct VideoEngine::Step {
  const std::uint8_t* tile;
  int bucket;
  TileEntry entry;
  bool starts;  // the tile opens a new mosaic, named `name`
  std::string name;
};

void VideoEngine::Plan(Step& step) {
  Planned& planned = planned_[static_cast<std::size_t>(step.bucket)];
  step.starts = planned.placed < 0;
  if (step.starts) {
    planned.record = files_.Start(step.name);
    planned.placed = 0;
    ++mosaicsStarted_;
  }
  step.entry = {planned.record, static_cast<std::uint8_t>(planned.placed)};
  if (++planned.placed == kPlacesPerMosaic) planned.placed = -1;
}

void VideoEngine::Place(const Step& step) {
  std::unique_ptr<Mosaic>& slot = open_[static_cast<std::size_t>(step.bucket)];
  if (step.starts) {
    auto mosaic = std::make_unique<Mosaic>();
    mosaic->record = step.entry.mosaic;
    mosaic->fd = OpenRetrying(files_.PathOf(step.name).c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (mosaic->fd < 0) ThrowMediaError(kCouldNotOpenFile);
    {
      const std::lock_guard<std::mutex> lock(spareMutex_);
      if (!spareRows_.empty()) {
        mosaic->row = std::move(spareRows_.back());
        spareRows_.pop_back();
      }
    }
    mosaic->row.resize(kFrameStride * kTileHeight);
    Mosaic* raw = mosaic.get();
    const bool started = mosaic->encoder.Start(kFrameWidth, kFrameHeight, kQuality,
                                               [raw](const std::uint8_t* bytes, std::size_t count) {
                                                 return WriteFully(raw->fd, bytes, count);
                                               });
    if (!started) ThrowMediaError(kCouldNotOpenFile);
    slot = std::move(mosaic);
  }
  Mosaic& mosaic = *slot;
  const int column = step.entry.place % kTilesAcross;
  std::uint8_t* to = mosaic.row.data() + kTileRowBytes * static_cast<std::size_t>(column);
  for (int y = 0; y < kTileHeight; ++y) {
    std::memcpy(to + kFrameStride * static_cast<std::size_t>(y),
                step.tile + kFrameStride * static_cast<std::size_t>(y), kTileRowBytes);
  }
  ++mosaic.placed;
  if (column == kTilesAcross - 1) mosaic.WriteRows(mosaic.row.data(), kTileHeight, kFrameStride);
  if (mosaic.placed == kPlacesPerMosaic) {
    Finish(mosaic);
    {
      const std::lock_guard<std::mutex> lock(spareMutex_);
      spareRows_.push_back(std::move(mosaic.row));
    }
    slot.reset();
  }
}

void VideoEngine::AddFrame(const image::RgbaImage& frame, std::vector<std::uint8_t>& index) {
  // 1. Fingerprints, and the plan: which mosaic and place each tile takes,
  // in tile order, so that record numbers and names never depend on the
  // threads below.
  std::vector<Step> steps(kTilesPerFrame);
  std::array<int, VideoFingerprint::kBuckets> tilesIn{};
  const std::uint8_t* pixels = frame.pixels.data();
  for (int t = 0; t < kTilesPerFrame; ++t) {
    Step& step = steps[static_cast<std::size_t>(t)];
    step.tile = pixels + kFrameStride * static_cast<std::size_t>(t / kTilesAcross * kTileHeight) +
                kTileRowBytes * static_cast<std::size_t>(t % kTilesAcross);
    step.bucket = fingerprint_.BucketOf(step.tile, kFrameStride);
    Plan(step);
    ++tilesIn[static_cast<std::size_t>(step.bucket)];
  }
  // 2. The tesserae are independent: two threads place and encode the
  // tiles, each its own buckets (shared out by tile count) in tile order,
  // so every mosaic gets exactly the bytes one thread would give it.
  std::array<bool, VideoFingerprint::kBuckets> second{};
  int load[2] = {0, 0};
  for (std::size_t b = 0; b < tilesIn.size(); ++b) {
    if (tilesIn[b] == 0) continue;
    second[b] = load[1] < load[0];
    load[second[b] ? 1 : 0] += tilesIn[b];
  }
  const auto run = [&](bool part) {
    for (const Step& step : steps) {
      if (second[static_cast<std::size_t>(step.bucket)] == part) Place(step);
    }
  };
  if (load[1] > 0) {
    std::exception_ptr failed;
    std::thread helper([&] {
      try {
        run(true);
      } catch (...) {
        failed = std::current_exception();
      }
    });
    try {
      run(false);
    } catch (...) {
      helper.join();
      throw;
    }
    helper.join();
    if (failed) std::rethrow_exception(failed);
  } else {
    run(false);
  }
  for (const Step& step : steps) AppendTileEntry(step.entry, index);
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
