// Platform seam for the cache's file sharing: an open that takes a shared
// (reader) or exclusive (writer) lock on the file right after opening and
// gives up at once when another holder conflicts. Callers do the waiting.
#ifndef ZELVARPACK_CORE_FILE_LOCK_H_
#define ZELVARPACK_CORE_FILE_LOCK_H_

#include <cstdio>

namespace zelvarpack {

enum class FileShare { kReaders, kAlone };

// Opens `path` for binary reading (kReaders) or for binary writing with
// truncation (kAlone), holding a lock that lives until fclose. Returns null
// when the file cannot be opened or the lock is held elsewhere. Truncation
// happens only after the exclusive lock is held, so a reader never sees a
// writer empty a file under it.
FILE* TryOpenLocked(const char* path, FileShare share);

// True when `path` names an existing file system entry.
bool PathExists(const char* path);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_FILE_LOCK_H_
