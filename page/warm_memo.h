// WarmMemo remembers, for the life of the process, the results of the two
// costly steps of optimising a page whose resources have not changed: the
// identifier of a minified stylesheet group and the sprite sheets of a
// page's images with each image's place in them. Each result is keyed by a
// SHA-256 digest of everything that decides it (the cache folder, and every
// input's name, bytes and declared size in order), so a hit gives exactly
// what the work would give; the caller still checks that the stored files
// exist. Bounded: the oldest entries go first. Thread-safe: pages optimised
// on many threads share it.
#ifndef ZELVARPACK_PAGE_WARM_MEMO_H_
#define ZELVARPACK_PAGE_WARM_MEMO_H_

#include <array>
#include <cstddef>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelvarpack/zelvar_image_server.h"

namespace zelvarpack::page {

struct SpriteResult {
  std::array<std::string, 4> sheetIds;
  // Per image, in page order: where it landed, or nothing when it was not
  // placed.
  std::vector<std::optional<CZelvarImagePlacement>> placements;
};

class WarmMemo {
 public:
  static constexpr std::size_t kMaxEntries = 1024;

  static WarmMemo& Shared();

  std::optional<std::string> FindStyles(const std::string& digest);
  void RememberStyles(const std::string& digest, const std::string& id);
  std::optional<SpriteResult> FindSprites(const std::string& digest);
  void RememberSprites(const std::string& digest, const SpriteResult& result);

 private:
  template <typename Value>
  struct Table {
    std::list<std::pair<std::string, Value>> entries;  // newest first
    std::unordered_map<std::string, typename std::list<std::pair<std::string, Value>>::iterator>
        index;
    std::optional<Value> Find(const std::string& key);
    void Remember(const std::string& key, const Value& value);
  };

  std::mutex mutex_;
  Table<std::string> styles_;    // guarded by mutex_
  Table<SpriteResult> sprites_;  // guarded by mutex_
};

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_WARM_MEMO_H_
