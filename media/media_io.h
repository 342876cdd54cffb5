// File access for the media servers: the three error texts they throw, opens
// that retry on EINTR and never leak into child processes, and an output file
// that is written under a temporary name and published by a rename, so a
// reader never sees a half-written index or data file.
//
// Thread safety: none; each object belongs to one server handle.
#ifndef ZELVARPACK_MEDIA_MEDIA_IO_H_
#define ZELVARPACK_MEDIA_MEDIA_IO_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelvarpack {

inline constexpr char kCouldNotOpenFile[] = "Could not open file.";
inline constexpr char kInvalidFile[] = "Invalid file.";
inline constexpr char kTesseraReadOnly[] = "Video tesserae is read-only.";
inline constexpr char kTesseraWriteOnly[] = "Video tesserae is write-only.";

// The first `length` bytes of a path handed to a Create form (none when the
// pointer is null or the length is not positive).
std::string CopyPath(const unsigned char* path, std::int32_t length);

// Throws std::runtime_error carrying `message`.
[[noreturn]] void ThrowMediaError(const char* message);

// open(2) with O_CLOEXEC added and EINTR retried; -1 on failure.
int OpenRetrying(const char* path, int flags, unsigned mode = 0666);
void CloseFile(int fd);
// Reads until `count` bytes or end of file; returns the bytes read, or -1 on
// a read error.
std::int64_t ReadFully(int fd, void* bytes, std::size_t count);
// Writes all `count` bytes; false on error.
bool WriteFully(int fd, const void* bytes, std::size_t count);

// A file written through a 64 KiB buffer under the name
// <final path>.tmp.<random hex> in the final folder (as the cache files are),
// renamed onto the final path by Publish. Write errors throw "Could not open
// file.".
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates the temporary file; throws "Could not open file." when it cannot.
  void Open(const std::string& finalPath);
  bool IsOpen() const { return fd_ >= 0; }

  void Put(unsigned char byte) {
    if (used_ == kBufferSize) Drain();
    buffer_[used_++] = byte;
  }
  void Write(const unsigned char* bytes, std::size_t count);
  // Writes out the buffer.
  void Drain();
  // Drains and renames the file onto its final path (once; later calls only
  // drain). Writing may go on afterwards, into the published file.
  void Publish();
  // Drains, publishes if that has not happened, and closes. Errors are
  // ignored here: this runs from destructors.
  void Close();
  // Closes without publishing: a file never published is deleted, one
  // already published keeps what it held at that moment plus whatever was
  // drained into it since.
  void Abandon();

 private:
  static constexpr std::size_t kBufferSize = 1 << 16;

  int fd_ = -1;
  bool published_ = false;
  std::string finalPath_;
  std::string temporaryPath_;
  std::size_t used_ = 0;
  unsigned char buffer_[kBufferSize];
};

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_MEDIA_IO_H_
