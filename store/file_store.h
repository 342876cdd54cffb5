// The chunked file store behind CZelvarFileServer: storing a file as
// 4096-byte chunks appended to composites (see
// include/zelvarpack/zelvar_file_server.h for the rules), and, as additions
// of this engine, reading a stored file back and counting what a store
// holds.
//
// Each call has an ODBC connection of its own for the whole call (a new one,
// or one kept open by a SessionPool between calls); calls from any number
// of threads or processes may run at once.
#ifndef ZELVARPACK_STORE_FILE_STORE_H_
#define ZELVARPACK_STORE_FILE_STORE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/gzip_prefix.h"

namespace zelvarpack::store {

class SessionPool;

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

struct StoreOptions {
  // Within one file's transaction, compress each composite it touched once,
  // at the end, instead of after every chunk appended to it. What is
  // committed is the same, row for row and byte for byte: a composite's
  // stored form depends only on its last compression. Off, every append
  // unzips, appends, compresses and writes the composite.
  bool deferCompression = true;
  // With deferral, the uncompressed bytes of touched composites are held in
  // memory; past this many they are compressed and written early.
  std::size_t deferredBytesLimit = std::size_t{32} << 20;
  // With deferral, composites committed by earlier calls that share this
  // cache are continued rather than recompressed; null: no cache.
  CompositeCache* cache = nullptr;
  // Sessions kept between calls; null: a new connection per call, closed
  // before it returns.
  SessionPool* sessions = nullptr;
};

// Stores `count` bytes as one new file in one transaction. Returns the new
// file_id, or -1 (and rolls back) at the first failure. When `error` is
// given it receives the first failure's description.
std::int32_t StoreFile(const std::string& connection, const unsigned char* bytes,
                       std::int32_t count, const StoreOptions& options = {},
                       std::string* error = nullptr);

// The bytes of stored file `fileId`, reassembled from its chunk rows.
// False when there is no such file or its chunks do not add up to its size.
bool ReadStoredFile(const std::string& connection, std::int32_t fileId,
                    std::vector<unsigned char>& bytes, std::string* error = nullptr);

struct StoreTotals {
  std::int64_t files = 0;
  std::int64_t chunks = 0;
  std::int64_t composites = 0;
  std::int64_t originalBytes = 0;  // sum of the files' sizes
  std::int64_t storedBytes = 0;    // sum of the composites' data lengths
};
bool ReadStoreTotals(const std::string& connection, StoreTotals& totals,
                     std::string* error = nullptr);

// The SQLite ODBC driver installed on this machine (a library path), or "".
std::string SqliteDriverPath();
// A connection string for the SQLite database file `path` (created by the
// driver when missing).
std::string SqliteConnectionString(const std::string& path);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_FILE_STORE_H_
