// Reads the PCM of a WAV file one second at a time.
//
// Layout accepted (all numbers little-endian):
//   "RIFF" size:u32 (size + 8 = file length) "WAVE"
//   "fmt " 16:u32 format:u16 (= 1) channels:u16 (1 or 2) rate:u32
//          byteRate:u32 blockAlign:u16 bitsPerSample:u16
//   then, from offset 36 to the end of the file, chunks: id:4 size:u32 bytes.
// Every chunk named "data" is delivered in blocks of
// bitsPerSample / 8 x rate x channels bytes (the last may be shorter); other
// chunks are skipped. Chunks are not padded to even sizes: the next chunk
// starts right after size bytes.
//
// Thread safety: none needed; a walk uses only its arguments.
#ifndef ZELVARPACK_MEDIA_WAV_READER_H_
#define ZELVARPACK_MEDIA_WAV_READER_H_

#include <cstdint>
#include <vector>

namespace zelvarpack {

class WavBlockSink {
 public:
  virtual ~WavBlockSink() = default;
  // One block of n >= 1 bytes, valid only during the call.
  virtual void OnBlock(const unsigned char* bytes, std::int64_t n) = 0;
};

// Walks the file at `path`, handing each block to `sink` as soon as it is
// read. Throws std::runtime_error "Could not open file." when the file cannot
// be opened and "Invalid file." at the first fault of the layout or a short
// read; blocks delivered before the fault stay delivered. A data chunk whose
// block size works out to 0 bytes (fewer than 8 bits per sample, or a rate of
// 0) is invalid unless it is empty. `block` is working memory, reused across
// calls; it never grows beyond what the file still holds.
void WalkWavFile(const char* path, WavBlockSink& sink, std::vector<unsigned char>& block);

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_WAV_READER_H_
