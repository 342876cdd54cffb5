// The tessera engine of the video server: cuts each 1920 x 1080 frame into
// 225 tiles of 128 x 72 pixels, sorts every tile by its fingerprint
// (media/video_fingerprint.h) into one of 256 tesserae, and keeps each
// tessera as a 1920 x 1080 JPEG mosaic of 15 x 15 places, filled in arrival
// order, row by row (the files are described in media/video_index.h).
//
// A mosaic is encoded while it fills: as soon as the 15 places of one of its
// rows are taken, those 72 pixel rows go to its JPEG encoder, which writes
// to the mosaic's file in the work folder. So a tessera holds in memory one
// row of tiles (1920 x 72 RGBX, 540 KiB) and the encoder's few rows, never
// a whole picture; 256 tesserae at most 150 MB. A mosaic whose 225 places
// are taken is finished and closed, and the tessera's next tile starts a new
// mosaic (a new record) for the same tessera. Flush finishes the mosaics
// still open, their empty places mid-grey, and copies every mosaic started
// since the last Flush, in start order, into the data file.
//
// JPEG: quality 85, chroma 4:2:2. The encoder's 16 x 8 blocks fit the tiles
// exactly (128 = 8 x 16, 72 = 9 x 8), so no tile's samples are mixed with a
// neighbour's while encoding, and 4:2:2 keeps twice the colour rows of 4:2:0,
// whose 16-row blocks would straddle the tile rows. Quality 85, the usual
// point past which JPEG files grow fast for little visible gain, keeps the
// rebuilt frames of the tests' photographs and icon pages at 38 to 50 dB
// PSNR.
//
// Each AddFrame places and encodes its tiles on two threads, the caller's and
// one it starts and joins before returning: the tesserae are shared out
// between them, so each mosaic is still written by one thread, in tile
// order, and the files are the same bytes as one thread would write.
//
// Thread safety: none for callers; an engine belongs to one server handle.
#ifndef ZELVARPACK_MEDIA_VIDEO_ENGINE_H_
#define ZELVARPACK_MEDIA_VIDEO_ENGINE_H_

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "image/codec.h"
#include "media/tessera_files.h"
#include "media/video_fingerprint.h"
#include "media/video_index.h"

namespace zelvarpack {

class OutputFile;

class VideoEngine {
 public:
  static constexpr int kQuality = 85;
  static constexpr std::uint8_t kEmptyPlace = 128;  // mid-grey

  explicit VideoEngine(std::string workDirectory);
  ~VideoEngine();
  VideoEngine(const VideoEngine&) = delete;
  VideoEngine& operator=(const VideoEngine&) = delete;

  // Sorts the tiles of `frame` and appends its 225 index entries to
  // `index`. REQUIRES: frame is 1920 x 1080. Throws "Could not open file."
  // when a mosaic's file cannot be created or written.
  void AddFrame(const image::RgbaImage& frame, std::vector<std::uint8_t>& index);

  // Finishes the open mosaics and appends every mosaic started since the
  // last Flush to `data` as records.
  void Flush(OutputFile& data);

  // Mosaics started by this engine, flushed or not.
  std::uint32_t MosaicsStarted() const { return mosaicsStarted_; }

 private:
  struct Mosaic;

  struct Step;
  // Where a bucket's next tile goes, as planned: its open mosaic's record
  // and the next place, or placed -1 when the next tile starts a mosaic.
  struct Planned {
    std::uint32_t record = 0;
    int placed = -1;
  };

  void Plan(Step& step);
  // Places one planned tile; touches only its bucket's mosaic (and the
  // spare rows, under their mutex), so buckets may be placed in parallel.
  void Place(const Step& step);
  void Finish(Mosaic& mosaic);

  TesseraFiles files_;
  std::array<std::unique_ptr<Mosaic>, VideoFingerprint::kBuckets> open_;
  std::array<Planned, VideoFingerprint::kBuckets> planned_;
  VideoFingerprint fingerprint_;
  std::uint32_t mosaicsStarted_ = 0;
  // Row memory of finished mosaics, for the next ones: taken fresh, it would
  // cost the kernel a page fault per 4 KiB.
  std::mutex spareMutex_;
  std::vector<image::PixelBytes> spareRows_;  // guarded by spareMutex_
};

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_VIDEO_ENGINE_H_
