// Fresh, empty databases for the file store's tests (compiled into the test
// binary only): a SQLite file in a temporary folder, or a database of its
// own on the loopback PostgreSQL server that CTest starts for the tests
// named *Postgres* (scripts/loopback-postgres.sh). Each is removed when the
// object goes.
#ifndef ZELVARPACK_TESTS_STORE_DATABASES_H_
#define ZELVARPACK_TESTS_STORE_DATABASES_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/temp_dir.h"

class StoreDatabase {
 public:
  virtual ~StoreDatabase() = default;
  // "" when the engine is not available here; then Why() says why.
  virtual std::string Connection() const = 0;
  virtual std::string Why() const { return ""; }
};

std::unique_ptr<StoreDatabase> NewSqliteDatabase();
std::unique_ptr<StoreDatabase> NewPostgresDatabase();

// Runs `sql` on the database (autocommit); "" or the driver's error.
std::string ExecuteSql(const std::string& connection, const std::string& sql);

// The store's rows as the tests read them (in order of chunk_id and
// composite_id).
struct ChunkRow {
  std::int32_t fileId, ordinal, compositeId, start, length;
  double fftRms;
  bool operator==(const ChunkRow&) const = default;
};
struct CompositeRow {
  std::int32_t compositeId, chunks;
  double fftRms;
  bool isCompressed;
  std::vector<unsigned char> data;
  bool operator==(const CompositeRow&) const = default;
};
std::vector<ChunkRow> ChunkRows(const std::string& connection);
std::vector<ChunkRow> ChunkRowsOf(const std::string& connection, std::int32_t fileId);
std::vector<CompositeRow> CompositeRows(const std::string& connection);
std::int64_t CountRows(const std::string& connection, const std::string& table);

#endif  // ZELVARPACK_TESTS_STORE_DATABASES_H_
