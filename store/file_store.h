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
#include <string>
#include <vector>

#include "store/composite_cache.h"

namespace zelvarpack::store {

class LookAhead;
class SessionPool;

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
  // With a cache: the file to be stored next by the same caller, through
  // the same `lookAhead` (store/look_ahead.h), which this call starts
  // compressing before it writes and commits its own file. The bytes are
  // read during this call only. Null: no next file, or none known.
  LookAhead* lookAhead = nullptr;
  const unsigned char* nextBytes = nullptr;
  std::int32_t nextCount = 0;
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

// The SQLite ODBC driver installed on this machine (a library path, or on
// Windows a registered driver's name in braces), or "".
std::string SqliteDriverPath();
// A connection string for the SQLite database file `path` (created by the
// driver when missing), in write-ahead-log mode: a commit writes the log
// and syncs it once (synchronous FULL; the driver's default, NORMAL, syncs
// only at checkpoints, so a crash could lose files already reported
// stored), instead of a rollback journal, the database and their syncs,
// and readers do not block the writer. Still one file's rows or
// none after a crash; the log ("<path>-wal", "<path>-shm") is folded back
// when the last connection closes.
std::string SqliteConnectionString(const std::string& path);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_FILE_STORE_H_
