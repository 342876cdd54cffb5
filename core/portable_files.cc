#include "core/portable_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <limits>

#if defined(_WIN32)
#include <direct.h>
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace zelvarpack {

#if defined(_WIN32)

int OpenDescriptor(const char* path, int flags, unsigned mode) {
  // CreateFile rather than _open: with FILE_SHARE_DELETE the file can be
  // renamed and unlinked while open, as on POSIX (an output file is
  // published by a rename while it is still being written). The handle is
  // not inheritable.
  DWORD access = GENERIC_READ;
  if ((flags & _O_ACCMODE) == _O_WRONLY) access = GENERIC_WRITE;
  if ((flags & _O_ACCMODE) == _O_RDWR) access = GENERIC_READ | GENERIC_WRITE;
  DWORD disposition = OPEN_EXISTING;
  if ((flags & _O_CREAT) != 0 && (flags & _O_EXCL) != 0) {
    disposition = CREATE_NEW;
  } else if ((flags & _O_CREAT) != 0) {
    disposition = (flags & _O_TRUNC) != 0 ? CREATE_ALWAYS : OPEN_ALWAYS;
  } else if ((flags & _O_TRUNC) != 0) {
    disposition = TRUNCATE_EXISTING;
  }
  const HANDLE handle =
      ::CreateFileA(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    switch (::GetLastError()) {
      case ERROR_FILE_EXISTS:
      case ERROR_ALREADY_EXISTS:
        errno = EEXIST;
        break;
      case ERROR_FILE_NOT_FOUND:
      case ERROR_PATH_NOT_FOUND:
        errno = ENOENT;
        break;
      case ERROR_ACCESS_DENIED:
      case ERROR_SHARING_VIOLATION:
        errno = EACCES;
        break;
      default:
        errno = EIO;
    }
    return -1;
  }
  const int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle),
                                   (flags & (_O_ACCMODE | _O_APPEND)) | _O_BINARY);
  if (fd < 0) ::CloseHandle(handle);
  return fd;
}

bool MakeFolder(const std::string& path) { return ::_mkdir(path.c_str()) == 0; }

bool RenameReplacing(const std::string& from, const std::string& to) {
  if (::MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING) != 0) return true;
  errno = EACCES;
  return false;
}

bool LinkFile(const std::string& from, const std::string& to) {
  if (::CreateHardLinkA(to.c_str(), from.c_str(), nullptr) != 0) return true;
  const DWORD error = ::GetLastError();
  errno = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS ? EEXIST : EPERM;
  return false;
}

std::int64_t ReadAt(int fd, void* bytes, std::size_t count, std::uint64_t offset) {
  const auto handle = reinterpret_cast<HANDLE>(::_get_osfhandle(fd));
  if (handle == INVALID_HANDLE_VALUE) return -1;
  // One ReadFile takes at most a DWORD's worth; the caller loops for more.
  const DWORD want = count > std::numeric_limits<DWORD>::max() ? std::numeric_limits<DWORD>::max()
                                                               : static_cast<DWORD>(count);
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD got = 0;
  if (::ReadFile(handle, bytes, want, &got, &at) == 0) {
    return ::GetLastError() == ERROR_HANDLE_EOF ? 0 : -1;
  }
  return got;
}

#else

int OpenDescriptor(const char* path, int flags, unsigned mode) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode));
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool MakeFolder(const std::string& path) { return ::mkdir(path.c_str(), 0755) == 0; }

bool RenameReplacing(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

bool LinkFile(const std::string& from, const std::string& to) {
  return ::link(from.c_str(), to.c_str()) == 0;
}

std::int64_t ReadAt(int fd, void* bytes, std::size_t count, std::uint64_t offset) {
  ssize_t got;
  do {
    got = ::pread(fd, bytes, count, static_cast<off_t>(offset));
  } while (got < 0 && errno == EINTR);
  return got;
}

#endif

bool PathExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace zelvarpack
