// Test support shared by the suites (compiled into the test binary only).
#include "tests/store_databases.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>

#include "store/file_store.h"
#include "store/odbc_connection.h"
#include "store/odbc_host.h"

using zelvarpack::store::OdbcConnection;
using zelvarpack::store::OdbcStatement;

namespace {

class SqliteDatabase : public StoreDatabase {
 public:
  std::string Connection() const override {
    if (zelvarpack::store::SqliteDriverPath().empty()) return "";
    return zelvarpack::store::SqliteConnectionString(dir_.File("store.db"));
  }
  std::string Why() const override { return "the SQLite ODBC driver is not installed"; }

 private:
  TempDir dir_;
};

std::string PostgresDriverPath() {
  return zelvarpack::store::FindOdbcDriver(
      {"/usr/lib/x86_64-linux-gnu/odbc/psqlodbcw.so",
       "/usr/lib/aarch64-linux-gnu/odbc/psqlodbcw.so", "/usr/lib64/psqlodbcw.so",
       "/usr/lib/odbc/psqlodbcw.so"},
      "PostgreSQL Unicode");
}

// A database of its own on the loopback server: zp_<pid>_<n>.
class PostgresDatabase : public StoreDatabase {
 public:
  PostgresDatabase() {
    std::ifstream state(ZP_POSTGRES_STATE);
    std::string port, user;
    for (std::string line; std::getline(state, line);) {
      if (line.rfind("port=", 0) == 0) port = line.substr(5);
      if (line.rfind("user=", 0) == 0) user = line.substr(5);
    }
    const std::string driver = PostgresDriverPath();
    if (port.empty() || driver.empty()) {
      why_ = driver.empty() ? "the PostgreSQL ODBC driver is not installed"
                            : "no loopback PostgreSQL server (run the tests through ctest)";
      return;
    }
    static std::atomic<int> counter{0};
    name_ = "zp_" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
    const std::string base =
        "DRIVER=" + driver + ";Server=127.0.0.1;Port=" + port + ";Uid=" + user + ";Database=";
    admin_ = base + "postgres;";
    const std::string error = ExecuteSql(admin_, "CREATE DATABASE " + name_);
    if (!error.empty()) throw std::runtime_error(error);
    connection_ = base + name_ + ";";
  }
  ~PostgresDatabase() override {
    if (!connection_.empty())
      ExecuteSql(admin_, "DROP DATABASE IF EXISTS " + name_ + " WITH (FORCE)");
  }
  std::string Connection() const override { return connection_; }
  std::string Why() const override { return why_; }

 private:
  std::string name_, admin_, connection_, why_;
};

// Runs `sql` and hands each row to `row`; throws on any failure.
template <typename Row>
void ForEachRow(const std::string& connection, const std::string& sql, Row row) {
  OdbcConnection db;
  if (!db.Connect(connection, true)) throw std::runtime_error(db.LastError());
  std::unique_ptr<OdbcStatement> query = db.NewStatement();
  if (!query->Prepare(sql) || !query->Execute()) throw std::runtime_error(db.LastError());
  for (OdbcStatement::Row got; (got = query->Fetch()) != OdbcStatement::Row::kEnd;) {
    if (got == OdbcStatement::Row::kError || !row(*query)) {
      throw std::runtime_error("reading '" + sql + "': " + db.LastError());
    }
  }
}

std::vector<ChunkRow> ReadChunkRows(const std::string& connection, const std::string& where) {
  std::vector<ChunkRow> rows;
  ForEachRow(connection,
             "SELECT file_id, ordinal, composite_id, start, length, fft_rms FROM chunk " + where +
                 " ORDER BY chunk_id",
             [&](OdbcStatement& q) {
               ChunkRow r{};
               rows.push_back(r);
               ChunkRow& c = rows.back();
               return q.GetInt32(1, c.fileId) && q.GetInt32(2, c.ordinal) &&
                      q.GetInt32(3, c.compositeId) && q.GetInt32(4, c.start) &&
                      q.GetInt32(5, c.length) && q.GetDouble(6, c.fftRms);
             });
  return rows;
}

}  // namespace

std::unique_ptr<StoreDatabase> NewSqliteDatabase() { return std::make_unique<SqliteDatabase>(); }

std::unique_ptr<StoreDatabase> NewPostgresDatabase() {
  return std::make_unique<PostgresDatabase>();
}

std::string ExecuteSql(const std::string& connection, const std::string& sql) {
  OdbcConnection db;
  if (db.Connect(connection, true) && db.ExecuteDirect(sql)) return "";
  return db.LastError();
}

std::vector<ChunkRow> ChunkRows(const std::string& connection) {
  return ReadChunkRows(connection, "");
}

std::vector<ChunkRow> ChunkRowsOf(const std::string& connection, std::int32_t fileId) {
  return ReadChunkRows(connection, "WHERE file_id = " + std::to_string(fileId));
}

std::vector<CompositeRow> CompositeRows(const std::string& connection) {
  std::vector<CompositeRow> rows;
  ForEachRow(connection,
             "SELECT composite_id, chunks, fft_rms, is_compressed, data FROM composite "
             "ORDER BY composite_id",
             [&](OdbcStatement& q) {
               rows.emplace_back();
               CompositeRow& c = rows.back();
               return q.GetInt32(1, c.compositeId) && q.GetInt32(2, c.chunks) &&
                      q.GetDouble(3, c.fftRms) && q.GetBit(4, c.isCompressed) &&
                      q.GetBinary(5, c.data);
             });
  return rows;
}

std::int64_t CountRows(const std::string& connection, const std::string& table) {
  std::int64_t count = -1;
  ForEachRow(connection, "SELECT COUNT(*) FROM " + table,
             [&](OdbcStatement& q) { return q.GetInt64(1, count); });
  return count;
}
