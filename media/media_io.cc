#include "media/media_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "core/portable_files.h"
#include "core/random_source.h"

namespace zelvarpack {

void ThrowMediaError(const char* message) { throw std::runtime_error(message); }

std::string CopyPath(const unsigned char* path, std::int32_t length) {
  if (path == nullptr || length <= 0) return std::string();
  return std::string(reinterpret_cast<const char*>(path), static_cast<std::size_t>(length));
}

int OpenRetrying(const char* path, int flags, unsigned mode) {
  return OpenDescriptor(path, flags, mode);
}

void CloseFile(int fd) {
  // Linux releases the descriptor even when close reports EINTR: no retry.
  if (fd >= 0) ::close(fd);
}

std::int64_t ReadFully(int fd, void* bytes, std::size_t count) {
  auto* out = static_cast<unsigned char*>(bytes);
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::read(fd, out + done, count - done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<std::int64_t>(done);
}

bool WriteFully(int fd, const void* bytes, std::size_t count) {
  const auto* in = static_cast<const unsigned char*>(bytes);
  while (count > 0) {
    const ssize_t put = ::write(fd, in, count);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    in += put;
    count -= static_cast<std::size_t>(put);
  }
  return true;
}

OutputFile::~OutputFile() { Close(); }

void OutputFile::Open(const std::string& finalPath) {
  unsigned char random[8];
  FillRandom(random, sizeof random);
  char suffix[2 * sizeof random + 8];
  std::snprintf(suffix, sizeof suffix, ".tmp.%02x%02x%02x%02x%02x%02x%02x%02x", random[0],
                random[1], random[2], random[3], random[4], random[5], random[6], random[7]);
  temporaryPath_ = finalPath + suffix;
  finalPath_ = finalPath;
  fd_ = OpenRetrying(temporaryPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL);
  if (fd_ < 0) ThrowMediaError(kCouldNotOpenFile);
  published_ = false;
  used_ = 0;
}

void OutputFile::Write(const unsigned char* bytes, std::size_t count) {
  if (count >= kBufferSize) {
    Drain();
    if (!WriteFully(fd_, bytes, count)) ThrowMediaError(kCouldNotOpenFile);
    return;
  }
  if (count > kBufferSize - used_) Drain();
  if (count > 0) std::memcpy(buffer_ + used_, bytes, count);
  used_ += count;
}

void OutputFile::Drain() {
  if (used_ == 0) return;
  const std::size_t count = used_;
  used_ = 0;
  if (!WriteFully(fd_, buffer_, count)) ThrowMediaError(kCouldNotOpenFile);
}

void OutputFile::Publish() {
  Drain();
  if (published_) return;
  if (!RenameReplacing(temporaryPath_, finalPath_)) {
    ThrowMediaError(kCouldNotOpenFile);
  }
  published_ = true;
}

void OutputFile::Close() {
  if (fd_ < 0) return;
  try {
    Publish();
  } catch (const std::exception&) {
    ::unlink(temporaryPath_.c_str());
  }
  CloseFile(fd_);
  fd_ = -1;
}

void OutputFile::Abandon() {
  if (fd_ < 0) return;
  if (!published_) ::unlink(temporaryPath_.c_str());
  used_ = 0;
  CloseFile(fd_);
  fd_ = -1;
}

}  // namespace zelvarpack
