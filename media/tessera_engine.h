// The tessera engine of the audio server: cuts one-second blocks into pieces,
// sorts each piece by its fingerprint into one of 65536 tesserae, writes the
// index file as pieces arrive and, at Flush, the data file.
//
// Index file: one byte per piece, in arrival order: the low 8 bits of the
// piece's bucket.
// Data file, one record per started tessera in the order the tesserae
// started:
//   record := length:u32 big-endian, raw deflate stream of `length` bytes
// where the stream inflates to that tessera's pieces concatenated in arrival
// order. Between the block steps and Flush each tessera's pieces are held in
// memory; Flush writes every tessera compressed to <work directory>/<name>
// and then copies those files, in start order, into the data file, deleting
// each as it is copied.
//
// Thread safety: none; an engine belongs to one server handle.
#ifndef ZELVARPACK_MEDIA_TESSERA_ENGINE_H_
#define ZELVARPACK_MEDIA_TESSERA_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/audio_fingerprint.h"
#include "media/tessera_files.h"
#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack {

class OutputFile;

// One of the 65536 tesserae. Plain data, so the whole array is one zeroed
// allocation; what a started tessera holds lives in its StartedTessera.
struct Tessera {
  // Advances by 128 per piece and wraps to 0 at 1920; wrapping does not
  // start the tessera again.
  std::int32_t slot;
  // 1 + the tessera's place in the start list, or 0 when it holds no
  // pending pieces (never started, or written out by Flush).
  std::int32_t started;
  unsigned char readable;
  unsigned char writable;
};

struct StartedTessera {
  std::int32_t bucket;
  // The GUID text under which the tessera's file is written, new each time
  // the tessera starts. (A name given at creation could never reach a file,
  // so none is made then.)
  std::string name;
  // The pieces not yet written, in arrival order; dropped once on disk.
  std::unique_ptr<CZelvarBuffer> pending = std::make_unique<CZelvarBuffer>();
};

class TesseraEngine {
 public:
  static constexpr std::int32_t kTesserae = AudioFingerprint::kBuckets;
  static constexpr std::int32_t kSlotStep = 128;
  static constexpr std::int32_t kSlotWrap = 1920;

  // A writing engine (tesserae writable) sends index bytes to `index`; a
  // reading engine (`index` null) has readable tesserae that refuse pieces.
  TesseraEngine(std::string workDirectory, OutputFile* index, std::int32_t setting);
  TesseraEngine(const TesseraEngine&) = delete;
  TesseraEngine& operator=(const TesseraEngine&) = delete;

  // Cuts a block of n >= 1 bytes into pieces and sorts them. Throws "Video
  // tesserae is read-only." on a reading engine (before any index byte).
  void AddBlock(const unsigned char* bytes, std::int64_t n);

  // Writes each started tessera, in bucket order, raw-deflated to
  // <work directory>/<name>, then copies those files in start order into
  // `data` as records, deleting each once copied. The tesserae are then
  // forgotten: one that receives pieces afterwards starts again under a new
  // name. Throws "Could not open file." when a tessera file cannot be
  // written or read back.
  void Flush(OutputFile& data);

  const Tessera& At(std::int32_t bucket) const { return tesserae_[bucket]; }
  // The tesserae started since the last Flush, in start order.
  const std::vector<std::unique_ptr<StartedTessera>>& Started() const { return started_; }
  std::int32_t Setting() const { return setting_; }

 private:
  // Appends one piece to the tessera of `bucket`.
  void Append(std::int32_t bucket, const unsigned char* piece, std::int32_t length);

  TesseraFiles files_;
  OutputFile* index_;
  // Kept for the caller; this engine gives it no meaning.
  std::int32_t setting_;
  std::unique_ptr<Tessera[]> tesserae_;
  std::vector<std::unique_ptr<StartedTessera>> started_;
  AudioFingerprint fingerprint_;
};

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_TESSERA_ENGINE_H_
