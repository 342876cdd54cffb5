#include "core/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>

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

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// A new, unnamed file in `path`'s folder: O_TMPFILE where the file system
// has it, otherwise a file under a name no reader asks for. `temporary_name`
// is left empty for the unnamed kind. Returns -1 on failure.
int CreateHidden(const std::string& path, bool unnamed_allowed, std::string& temporary_name) {
  temporary_name.clear();
#ifdef O_TMPFILE
  if (unnamed_allowed) {
    const int unnamed = OpenRetryingOnInterrupt(FolderOf(path).c_str(), O_WRONLY | O_TMPFILE);
    if (unnamed >= 0) return unnamed;
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return -1;
  }
#endif
  static std::atomic<unsigned> counter{0};
  for (int attempt = 0; attempt < 100; ++attempt) {
    temporary_name = path + ".zpw" + std::to_string(::getpid()) + "-" +
                     std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
    const int fd = OpenRetryingOnInterrupt(temporary_name.c_str(), O_WRONLY | O_CREAT | O_EXCL);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

// Gives the hidden file `fd` the name `path`; fails (EEXIST) when another
// worker created `path` first.
bool Publish(int fd, const std::string& temporary_name, const std::string& path) {
  if (temporary_name.empty()) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
  }
  const bool linked = ::link(temporary_name.c_str(), path.c_str()) == 0;
  const int saved = errno;
  ::unlink(temporary_name.c_str());
  errno = saved;
  return linked;
}

// The writer's open. An existing file is locked before it is emptied. A new
// file is created unnamed, locked while no one else can know it, and only
// then given its name, so a reader that finds the name always finds the
// writer's lock on it too and waits.
int OpenForWritingLocked(const char* path) {
  bool unnamed_allowed = true;
  for (;;) {
    const int existing = OpenRetryingOnInterrupt(path, O_WRONLY);
    if (existing >= 0) {
      if (TryLock(existing, LOCK_EX) && ::ftruncate(existing, 0) == 0) return existing;
      ::close(existing);
      return -1;
    }
    if (errno != ENOENT) return -1;
    std::string temporary_name;
    const int fresh = CreateHidden(path, unnamed_allowed, temporary_name);
    if (fresh < 0) return -1;
    if (TryLock(fresh, LOCK_EX) && Publish(fresh, temporary_name, path)) return fresh;
    const int saved = errno;
    ::close(fresh);
    // Another worker published the name between our two steps: start over
    // and contend for its lock like any other existing file. An unnamed file
    // that cannot be linked (no /proc) falls back to a temporary name.
    if (saved == EEXIST) continue;
    if (!temporary_name.empty() || !unnamed_allowed) return -1;
    unnamed_allowed = false;
  }
}

}  // namespace

FILE* TryOpenLocked(const char* path, FileShare share) {
  const bool writing = share == FileShare::kAlone;
  int fd;
  if (writing) {
    fd = OpenForWritingLocked(path);
  } else {
    fd = OpenRetryingOnInterrupt(path, O_RDONLY);
    if (fd >= 0 && !TryLock(fd, LOCK_SH)) {
      ::close(fd);
      fd = -1;
    }
  }
  if (fd < 0) return nullptr;
  FILE* file = ::fdopen(fd, writing ? "wb" : "rb");
  if (file == nullptr) ::close(fd);
  return file;
}

bool PathExists(const char* path) {
  struct stat info;
  return ::stat(path, &info) == 0;
}

}  // namespace zelvarpack
