#include "media/tessera_engine.h"

#include <fcntl.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "media/media_io.h"
#include "net/zlib_codec.h"

namespace zelvarpack {

TesseraEngine::TesseraEngine(std::string workDirectory, OutputFile* index, std::int32_t setting)
    : files_(std::move(workDirectory)),
      index_(index),
      setting_(setting),
      tesserae_(new Tessera[kTesserae]()) {
  const unsigned char writing = index != nullptr ? 1 : 0;
  for (std::int32_t bucket = 0; bucket < kTesserae; ++bucket) {
    tesserae_[bucket].writable = writing;
    tesserae_[bucket].readable = static_cast<unsigned char>(1 - writing);
  }
}

void TesseraEngine::Append(std::int32_t bucket, const unsigned char* piece, std::int32_t length) {
  Tessera& tessera = tesserae_[bucket];
  if (tessera.writable == 0) ThrowMediaError(kTesseraReadOnly);
  // Before the first Flush "holds no pending pieces" is the same as "slot 0
  // and never started"; after a Flush the tessera starts again.
  if (tessera.started == 0) {
    auto started = std::make_unique<StartedTessera>();
    started->bucket = bucket;
    files_.Start(started->name);
    started_.push_back(std::move(started));
    tessera.started = static_cast<std::int32_t>(started_.size());
  }
  started_[static_cast<std::size_t>(tessera.started - 1)]->pending->Append(piece, length);
  tessera.slot += kSlotStep;
  if (tessera.slot == kSlotWrap) tessera.slot = 0;
}

void TesseraEngine::AddBlock(const unsigned char* bytes, std::int64_t n) {
  const std::int32_t parts = PiecesInBlock(n);
  const std::int64_t pieceLength = n / parts;
  // A tessera holds at most 2 GiB (32-bit lengths).
  if (pieceLength > std::numeric_limits<std::int32_t>::max() - CZelvarBuffer::kSlack) {
    throw std::bad_alloc();
  }
  for (std::int32_t part = 0; part < parts; ++part) {
    const unsigned char* piece = bytes + part * pieceLength;
    const std::int32_t bucket = AudioFingerprint::BucketOf(fingerprint_.Of(piece, pieceLength));
    Append(bucket, piece, static_cast<std::int32_t>(pieceLength));
    index_->Put(static_cast<unsigned char>(bucket & 0xFF));
  }
}

void TesseraEngine::Flush(OutputFile& data) {
  std::vector<std::unique_ptr<StartedTessera>> started = std::move(started_);
  started_.clear();
  for (const auto& tessera : started) tesserae_[tessera->bucket].started = 0;

  std::vector<StartedTessera*> byBucket;
  byBucket.reserve(started.size());
  for (const auto& tessera : started) byBucket.push_back(tessera.get());
  std::sort(byBucket.begin(), byBucket.end(),
            [](const StartedTessera* a, const StartedTessera* b) { return a->bucket < b->bucket; });
  for (StartedTessera* tessera : byBucket) {
    const std::unique_ptr<CZelvarBuffer> packed = net::Compress(
        tessera->pending->GetValue(), static_cast<std::size_t>(tessera->pending->GetValueLength()),
        net::ZlibFormat::kRawDeflate);
    const int fd = OpenRetrying(files_.PathOf(tessera->name).c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (fd < 0) ThrowMediaError(kCouldNotOpenFile);
    const bool written =
        WriteFully(fd, packed->GetValue(), static_cast<std::size_t>(packed->GetValueLength()));
    CloseFile(fd);
    if (!written) ThrowMediaError(kCouldNotOpenFile);
    tessera->pending.reset();
  }

  files_.AppendRecords(data);
}

}  // namespace zelvarpack
