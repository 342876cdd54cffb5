// What this process remembers of the composites it committed to a file
// store, kept across storing calls (store/file_store.h).
#ifndef ZELVARPACK_STORE_COMPOSITE_CACHE_H_
#define ZELVARPACK_STORE_COMPOSITE_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/gzip_prefix.h"

namespace zelvarpack::store {

// Composites as this process last committed them, kept across calls (for
// example by one CZelvarFileServer handle): their bytes, their stored form
// and a deflate stream that has consumed the bytes, so that a later file
// appending to a composite continues its compression instead of unzipping
// and compressing it from the start. An entry is used only when the stored
// data read back from the database is exactly the data it remembers;
// anything else (another writer, a rolled-back transaction, another
// database) falls back to the plain path. Least recently used entries go
// first once the memory bound is reached. Safe from several threads.
class CompositeCache {
 public:
  struct Entry {
    std::shared_ptr<const std::vector<unsigned char>> plain;
    std::vector<unsigned char> stored;  // the data column as committed
    bool compressed = false;
    std::int32_t chunks = 0;
    std::shared_ptr<const GzipPrefix> prefix;  // has consumed a prefix of plain
    // The row version the database reported when the data was written, or
    // -1: with it the database can vouch that the row is unchanged without
    // sending its data.
    std::int64_t version = -1;
    std::size_t Footprint() const;
  };

  explicit CompositeCache(std::size_t maxBytes = std::size_t{128} << 20) : maxBytes_(maxBytes) {}
  CompositeCache(const CompositeCache&) = delete;
  CompositeCache& operator=(const CompositeCache&) = delete;

  std::shared_ptr<const Entry> Find(std::int32_t compositeId);
  void Put(std::int32_t compositeId, std::shared_ptr<const Entry> entry);
  void Forget(std::int32_t compositeId);
  // Every entry, in no particular order.
  std::vector<std::pair<std::int32_t, std::shared_ptr<const Entry>>> Snapshot() const;
  std::size_t size() const;

 private:
  struct Slot {
    std::shared_ptr<const Entry> entry;
    std::list<std::int32_t>::iterator use;
  };
  void ForgetLocked(std::int32_t compositeId);

  const std::size_t maxBytes_;
  mutable std::mutex mutex_;
  std::size_t bytes_ = 0;                         // guarded by mutex_
  std::list<std::int32_t> uses_;                  // most recent first; guarded by mutex_
  std::unordered_map<std::int32_t, Slot> slots_;  // guarded by mutex_
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_COMPOSITE_CACHE_H_
