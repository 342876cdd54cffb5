// Windows side of the file-sharing seam: the C runtime's sharing modes are
// the lock. A reader opens with _SH_DENYWR (other readers welcome, no
// writer), a writer with _SH_DENYRW (no one else at all). The system checks
// the sharing mode before it truncates, so a writer never empties a file
// that a reader holds, and a reader never opens a file while a writer holds
// it: a conflicting open fails with a sharing violation and the caller waits
// and retries. No advisory locks are involved.
#include <share.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "core/file_lock.h"

namespace zelvarpack {

FILE* TryOpenLocked(const char* path, FileShare share) {
  // "N": the handle is not inherited by child processes, which would
  // otherwise keep the sharing mode alive after fclose.
  return share == FileShare::kAlone ? ::_fsopen(path, "wbN", _SH_DENYRW)
                                    : ::_fsopen(path, "rbN", _SH_DENYWR);
}

bool PathExists(const char* path) {
  // The C runtime's stat refuses "folder\" with its trailing separator; the
  // folder itself is meant, so the separator goes (a root such as "C:\" or
  // "\" keeps its own).
  std::string name = path;
  while (name.size() > 1 && (name.back() == '/' || name.back() == '\\') &&
         !(name.size() == 3 && name[1] == ':')) {
    name.pop_back();
  }
  struct _stat64i32 info;
  return ::_stat64i32(name.c_str(), &info) == 0;
}

}  // namespace zelvarpack
