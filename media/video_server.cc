// The exported handle functions of CZelvarVideoServer over VideoServer.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/portable_files.h"
#include "image/codec.h"
#include "media/media_io.h"
#include "media/video_engine.h"
#include "media/video_index.h"
#include "zelvarpack/zelvar_video_server.h"

namespace zelvarpack {

namespace {

// A frame file larger than this cannot be a 1920 x 1080 JPEG or PNG (an
// unfiltered RGBA PNG is 8.3 MB).
constexpr std::int64_t kMaxFrameFileBytes = 64 << 20;
// The index of 24 hours at 60 frames a second is about 5.8 GB; an index
// beyond 8 GiB is refused rather than read into memory.
constexpr std::int64_t kMaxIndexBytes = std::int64_t{8} << 30;

// Reads all of a file into `bytes` (whose memory is reused), or throws.
void ReadWhole(const char* path, std::int64_t limit, std::vector<std::uint8_t>& bytes) {
  const int fd = OpenRetrying(path, O_RDONLY);
  if (fd < 0) ThrowMediaError(kCouldNotOpenFile);
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    CloseFile(fd);
    ThrowMediaError(kCouldNotOpenFile);
  }
  if (info.st_size > limit) {
    CloseFile(fd);
    ThrowMediaError(kInvalidFile);
  }
  bytes.resize(static_cast<std::size_t>(info.st_size));
  const std::int64_t got = ReadFully(fd, bytes.data(), bytes.size());
  CloseFile(fd);
  if (got != static_cast<std::int64_t>(bytes.size())) ThrowMediaError(kCouldNotOpenFile);
}

bool PreadFully(int fd, std::uint64_t offset, void* bytes, std::size_t count) {
  auto* out = static_cast<std::uint8_t*>(bytes);
  while (count > 0) {
    const std::int64_t got = ReadAt(fd, out, count, offset);
    if (got <= 0) return false;
    out += got;
    offset += static_cast<std::uint64_t>(got);
    count -= static_cast<std::size_t>(got);
  }
  return true;
}

// A 1920 x 1080 picture from a JPEG or PNG into `frame` (whose memory is
// reused), or "Invalid file.". The limits refuse a larger picture before its
// pixels are allocated.
void DecodeFrame(const std::vector<std::uint8_t>& bytes, image::RgbaImage& frame) {
  const image::ImageFormat format = image::SniffImageFormat(bytes.data(), bytes.size());
  if (format != image::ImageFormat::kJpeg && format != image::ImageFormat::kPng) {
    ThrowMediaError(kInvalidFile);
  }
  image::DecodeLimits limits;
  limits.maxSide = kFrameWidth;
  limits.maxPixels = std::int64_t{kFrameWidth} * kFrameHeight;
  image::ImageFormat found;
  if (!image::DecodeImage(bytes.data(), bytes.size(), limits, found, frame) ||
      frame.width != kFrameWidth || frame.height != kFrameHeight) {
    ThrowMediaError(kInvalidFile);
  }
}

// What a handle points to.
class VideoServer {
 public:
  VideoServer(bool writer, std::string workDirectory, std::string indexPath, std::string dataPath,
              std::int32_t setting)
      : writer_(writer),
        workDirectory_(std::move(workDirectory)),
        indexPath_(std::move(indexPath)),
        dataPath_(std::move(dataPath)),
        setting_(setting) {}

  ~VideoServer() {
    engine_.reset();  // closes and deletes the mosaic files not flushed
    if (flushed_) {
      indexFile_.Close();
      dataFile_.Close();
    } else {
      indexFile_.Abandon();
      dataFile_.Abandon();
    }
    CloseFile(dataInput_);
  }

  void Write(const char* framePath) {
    if (!writer_) ThrowMediaError(kTesseraReadOnly);
    if (framePath == nullptr) ThrowMediaError(kCouldNotOpenFile);
    // The whole frame is read and decoded before any tile is placed, so a
    // refused frame leaves no trace.
    ReadWhole(framePath, kMaxFrameFileBytes, fileBytes_);
    DecodeFrame(fileBytes_, frame_);
    StartWriting();
    engine_->AddFrame(frame_, pendingIndex_);
  }

  void Flush() {
    if (!writer_) ThrowMediaError(kTesseraReadOnly);
    StartWriting();
    engine_->Flush(dataFile_);
    indexFile_.Write(pendingIndex_.data(), pendingIndex_.size());
    pendingIndex_.clear();
    dataFile_.Publish();
    indexFile_.Publish();
    flushed_ = true;
  }

  void Read() {
    if (writer_) ThrowMediaError(kTesseraWriteOnly);
    if (dataInput_ >= 0) return;
    std::vector<std::uint8_t> index;
    ReadWhole(indexPath_.c_str(), kMaxIndexBytes, index);
    const int fd = OpenRetrying(dataPath_.c_str(), O_RDONLY);
    if (fd < 0) ThrowMediaError(kCouldNotOpenFile);
    struct stat info;
    if (::fstat(fd, &info) != 0) {
      CloseFile(fd);
      ThrowMediaError(kCouldNotOpenFile);
    }
    // Every record holds at least its four length bytes.
    const bool scanned = ScanVideoRecords(
        static_cast<std::uint64_t>(info.st_size),
        [fd](std::uint64_t at, std::uint8_t* b) { return PreadFully(fd, at, b, 4); },
        static_cast<std::size_t>(info.st_size / 4), records_);
    if (!scanned || !ParseVideoIndex(index.data(), index.size(),
                                     static_cast<std::uint32_t>(records_.size()), tiles_)) {
      CloseFile(fd);
      records_.clear();
      ThrowMediaError(kInvalidFile);
    }
    dataInput_ = fd;
  }

  std::int32_t FrameCount() {
    Read();
    return static_cast<std::int32_t>(tiles_.size() / kTilesPerFrame);
  }

  CZelvarBuffer* ReadFrame(std::int32_t frame) {
    Read();
    if (frame < 0 || frame >= FrameCount()) return nullptr;
    const TileEntry* tiles = tiles_.data() + static_cast<std::size_t>(frame) * kTilesPerFrame;
    // The tiles grouped by mosaic, so each mosaic is decoded once.
    std::map<std::uint32_t, std::vector<int>> byMosaic;
    for (int t = 0; t < kTilesPerFrame; ++t) byMosaic[tiles[t].mosaic].push_back(t);
    constexpr std::size_t kStride = 4 * kFrameWidth;
    constexpr std::size_t kTileRow = 4 * VideoFingerprint::kTileWidth;
    constexpr int kTileHeight = VideoFingerprint::kTileHeight;
    image::PixelBytes pixels(kStride * kFrameHeight);
    std::vector<std::uint8_t> record;
    for (const auto& [mosaic, members] : byMosaic) {
      const RecordSpan& span = records_[mosaic];
      record.resize(span.length);
      if (!PreadFully(dataInput_, span.offset, record.data(), record.size())) {
        ThrowMediaError(kCouldNotOpenFile);
      }
      if (image::SniffImageFormat(record.data(), record.size()) != image::ImageFormat::kJpeg) {
        ThrowMediaError(kInvalidFile);
      }
      DecodeFrame(record, frame_);
      const image::RgbaImage& picture = frame_;
      for (const int t : members) {
        const int place = tiles[t].place;
        const std::uint8_t* from =
            picture.pixels.data() +
            kStride * static_cast<std::size_t>(place / kTilesAcross) * kTileHeight +
            kTileRow * static_cast<std::size_t>(place % kTilesAcross);
        std::uint8_t* to = pixels.data() +
                           kStride * static_cast<std::size_t>(t / kTilesAcross) * kTileHeight +
                           kTileRow * static_cast<std::size_t>(t % kTilesAcross);
        for (int y = 0; y < kTileHeight; ++y) {
          std::memcpy(to + kStride * static_cast<std::size_t>(y),
                      from + kStride * static_cast<std::size_t>(y), kTileRow);
        }
      }
    }
    auto out = std::make_unique<CZelvarBuffer>();
    out->Append(pixels.data(), static_cast<std::int32_t>(pixels.size()));
    return out.release();
  }

 private:
  void StartWriting() {
    if (engine_) return;
    if (!indexFile_.IsOpen()) indexFile_.Open(indexPath_);
    if (!dataFile_.IsOpen()) dataFile_.Open(dataPath_);
    engine_ = std::make_unique<VideoEngine>(workDirectory_);
  }

  const bool writer_;
  const std::string workDirectory_;
  const std::string indexPath_;
  const std::string dataPath_;
  // Kept for the caller; this engine gives it no meaning.
  [[maybe_unused]] const std::int32_t setting_;
  // Writing.
  OutputFile indexFile_;
  OutputFile dataFile_;
  std::unique_ptr<VideoEngine> engine_;
  // The entries of the frames written since the last Flush.
  std::vector<std::uint8_t> pendingIndex_;
  bool flushed_ = false;
  // The frame or mosaic last read and decoded; their memory serves the next.
  std::vector<std::uint8_t> fileBytes_;
  image::RgbaImage frame_;
  // Reading.
  int dataInput_ = -1;
  std::vector<RecordSpan> records_;
  std::vector<TileEntry> tiles_;
};

VideoServer* FromHandle(void* handle) { return static_cast<VideoServer*>(handle); }

}  // namespace

}  // namespace zelvarpack

using zelvarpack::CopyPath;
using zelvarpack::FromHandle;
using zelvarpack::VideoServer;

void* CZelvarVideoServer::Create(unsigned char* indexPath, std::int32_t indexPathLength,
                                 unsigned char* dataPath, std::int32_t dataPathLength) {
  return new VideoServer(false, std::string(), CopyPath(indexPath, indexPathLength),
                         CopyPath(dataPath, dataPathLength), 0);
}

void* CZelvarVideoServer::Create(unsigned char* workDirectory, std::int32_t workDirectoryLength,
                                 unsigned char* indexPath, std::int32_t indexPathLength,
                                 unsigned char* dataPath, std::int32_t dataPathLength,
                                 std::int32_t setting) {
  return new VideoServer(true, CopyPath(workDirectory, workDirectoryLength),
                         CopyPath(indexPath, indexPathLength), CopyPath(dataPath, dataPathLength),
                         setting);
}

void CZelvarVideoServer::Write(void* handle, unsigned char* framePath, std::int32_t) {
  FromHandle(handle)->Write(reinterpret_cast<const char*>(framePath));
}

void CZelvarVideoServer::Flush(void* handle) { FromHandle(handle)->Flush(); }

void CZelvarVideoServer::Read(void* handle, void*&, void*&, void*&) { FromHandle(handle)->Read(); }

void CZelvarVideoServer::Discard(void*, void*&, void*&) {}

void CZelvarVideoServer::Destroy(void* handle) { delete FromHandle(handle); }

std::int32_t CZelvarVideoServer::FrameCount(void* handle) {
  return FromHandle(handle)->FrameCount();
}

CZelvarBuffer* CZelvarVideoServer::ReadFrame(void* handle, std::int32_t frame) {
  return FromHandle(handle)->ReadFrame(frame);
}
