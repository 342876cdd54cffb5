#include "core/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zelvarpack {

namespace {

int OpenRetryingOnInterrupt(const char* path, int flags) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, 0644);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// flock locks belong to the open file description, so two opens in one
// process exclude each other just as two processes do.
bool TryLock(int fd, int operation) {
  int result;
  do {
    result = ::flock(fd, operation | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

}  // namespace

FILE* TryOpenLocked(const char* path, FileShare share) {
  const bool writing = share == FileShare::kAlone;
  const int fd = OpenRetryingOnInterrupt(path, writing ? (O_WRONLY | O_CREAT) : O_RDONLY);
  if (fd < 0) return nullptr;
  if (!TryLock(fd, writing ? LOCK_EX : LOCK_SH) || (writing && ::ftruncate(fd, 0) != 0)) {
    ::close(fd);
    return nullptr;
  }
  FILE* file = ::fdopen(fd, writing ? "wb" : "rb");
  if (file == nullptr) ::close(fd);
  return file;
}

bool PathExists(const char* path) {
  struct stat info;
  return ::stat(path, &info) == 0;
}

}  // namespace zelvarpack
