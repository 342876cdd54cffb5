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
// when the file cannot be opened or the lock is held elsewhere. No reader
// ever sees a file that is being written: an existing file is emptied only
// once the exclusive lock is held, and a new file gets its name only once it
// is locked (created unnamed, or under a temporary name, then linked).
FILE* TryOpenLocked(const char* path, FileShare share);

// True when `path` names an existing file system entry.
bool PathExists(const char* path);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_FILE_LOCK_H_
