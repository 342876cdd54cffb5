// The few file-system calls whose POSIX and Windows forms differ, behind one
// interface: descriptors always opened in binary mode and never inherited by
// child processes, folders, replacing and linking names, reads at an offset.
// Everything else (read, write, close, fstat, unlink) is the C runtime's and
// the same on both.
//
// Paths are bytes as the caller has them: UTF-8 on POSIX, the process's ANSI
// code page on Windows, as for the C runtime's own calls.
#ifndef ZELVARPACK_CORE_PORTABLE_FILES_H_
#define ZELVARPACK_CORE_PORTABLE_FILES_H_

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelvarpack {

// open(2) with binary mode and close-on-exec (no handle inheritance on
// Windows) added and EINTR retried; -1 on failure with errno set. `flags`
// are the C runtime's O_* flags; `mode` the permission bits of a new file
// (ignored on Windows, where a new file is read-write).
int OpenDescriptor(const char* path, int flags, unsigned mode = 0666);

// True when something (file or folder) exists under `path`.
bool PathExists(const std::string& path);
// True when `path` is a folder.
bool IsFolder(const std::string& path);
// Creates one folder (mode 0755 on POSIX); false when it could not, which
// includes when it already exists.
bool MakeFolder(const std::string& path);

// Renames `from` onto `to`, replacing a file already there in one step, as
// rename(2) does. On Windows the C runtime's rename refuses an existing
// target, so this moves with MOVEFILE_REPLACE_EXISTING.
bool RenameReplacing(const std::string& from, const std::string& to);

// Gives the file `from` the second name `to` (a hard link); never replaces:
// false with errno == EEXIST when `to` exists, false with another errno when
// the file system has no hard links.
bool LinkFile(const std::string& from, const std::string& to);

// Reads up to `count` bytes at `offset` (pread); returns the bytes read, 0
// at end of file, -1 on error. Safe to call from several threads on one
// descriptor. The descriptor's own position is left unspecified (Windows
// moves it), so a descriptor read with ReadAt is read only with ReadAt.
std::int64_t ReadAt(int fd, void* bytes, std::size_t count, std::uint64_t offset);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_PORTABLE_FILES_H_
