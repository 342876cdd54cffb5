// Whole-file reading and atomic publishing for the cache folders.
//
// Publishing writes a temporary file beside the final name
// ("<name>.tmp.<random>") and then moves it into place, so a reader never sees
// a half-written file and a process killed at any point leaves either no file
// or a whole one under the final name (at worst a stray temporary file).
// Reading goes through CZelvarUtils::OpenFileForReading and so keeps its
// reader/writer rule. Safe from any thread.
#ifndef ZELVARPACK_CORE_CACHE_FILES_H_
#define ZELVARPACK_CORE_CACHE_FILES_H_

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack {

// Creates the folder `path` when its status cannot be read (one level only;
// a failure is ignored, as later writes then fail silently).
void EnsureFolder(const std::string& path);

// The whole file, or null when it does not exist, cannot be read or holds
// more than `maxBytes` bytes.
std::unique_ptr<CZelvarBuffer> ReadCacheFile(const std::string& path, std::size_t maxBytes);

enum class Publish {
  kReplace,       // the new file replaces any existing one (last writer wins)
  kKeepExisting,  // write once: an existing file stays as it is
};

// Writes the concatenation of `pieces` to `path` as described above. Returns
// true when the file under `path` is now a whole one: ours, or with
// kKeepExisting one that was already there.
bool PublishFile(const std::string& path, std::initializer_list<std::string_view> pieces,
                 Publish mode);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_CACHE_FILES_H_
