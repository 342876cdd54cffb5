#include "media/wav_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "media/media_io.h"

namespace zelvarpack {

namespace {

// Closes the WAV file on every way out, the throwing ones included.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() { CloseFile(fd_); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::uint32_t Le32(const unsigned char* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint16_t Le16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }

// Exactly `count` bytes or "Invalid file.".
void ReadExactly(int fd, unsigned char* out, std::size_t count) {
  if (ReadFully(fd, out, count) != static_cast<std::int64_t>(count)) ThrowMediaError(kInvalidFile);
}

void Expect(int fd, const char* tag) {
  unsigned char got[4];
  ReadExactly(fd, got, 4);
  if (std::memcmp(got, tag, 4) != 0) ThrowMediaError(kInvalidFile);
}

}  // namespace

void WalkWavFile(const char* path, WavBlockSink& sink, std::vector<unsigned char>& block) {
  ScopedFd file(OpenRetrying(path, O_RDONLY));
  const int fd = file.get();
  if (fd < 0) ThrowMediaError(kCouldNotOpenFile);
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) ThrowMediaError(kInvalidFile);
  const std::int64_t fileLength = info.st_size;

  unsigned char field[4];
  Expect(fd, "RIFF");
  ReadExactly(fd, field, 4);
  if (std::int64_t{Le32(field)} + 8 != fileLength) ThrowMediaError(kInvalidFile);
  Expect(fd, "WAVE");
  Expect(fd, "fmt ");
  ReadExactly(fd, field, 4);
  if (Le32(field) != 16) ThrowMediaError(kInvalidFile);
  unsigned char format[16];
  ReadExactly(fd, format, 2);
  if (Le16(format) != 1) ThrowMediaError(kInvalidFile);
  ReadExactly(fd, format + 2, 2);
  const std::uint16_t channels = Le16(format + 2);
  if (channels != 1 && channels != 2) ThrowMediaError(kInvalidFile);
  ReadExactly(fd, format + 4, 12);
  const std::uint32_t rate = Le32(format + 4);
  const std::uint16_t bitsPerSample = Le16(format + 14);
  // At most 8191 x (2^32 - 1) x 2: well inside 64 bits.
  const std::int64_t blockSize = std::int64_t{bitsPerSample / 8} * rate * channels;

  std::int64_t position = 36;
  while (position != fileLength) {
    // Past the end: the chunk header read below would come up short.
    if (position > fileLength) ThrowMediaError(kInvalidFile);
    unsigned char header[8];
    ReadExactly(fd, header, 8);
    const std::int64_t size = Le32(header + 4);
    if (std::memcmp(header, "data", 4) == 0) {
      if (blockSize == 0 && size > 0) ThrowMediaError(kInvalidFile);
      std::int64_t left = size;
      std::int64_t offset = position + 8;
      while (left > 0) {
        const std::int64_t n = std::min(blockSize, left);
        // A block the file cannot hold would be a short read: fail before
        // reserving memory for it.
        if (n > fileLength - offset) ThrowMediaError(kInvalidFile);
        if (block.size() < static_cast<std::size_t>(n)) block.resize(static_cast<std::size_t>(n));
        ReadExactly(fd, block.data(), static_cast<std::size_t>(n));
        sink.OnBlock(block.data(), n);
        left -= n;
        offset += n;
      }
    } else if (::lseek(fd, static_cast<off_t>(position + 8 + size), SEEK_SET) < 0) {
      ThrowMediaError(kInvalidFile);
    }
    position += 8 + size;
  }
}

}  // namespace zelvarpack
