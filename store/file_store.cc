#include "store/file_store.h"

#include <memory>

#include "store/file_writer.h"
#include "store/odbc_connection.h"
#include "store/odbc_host.h"
#include "store/read_back.h"
#include "store/session_pool.h"
#include "store/sql_dialect.h"

namespace zelvarpack::store {

namespace {

// Creates the tables when any is missing, and ends the transaction either
// way, so that the file's own transaction starts afresh (SQLite would
// otherwise hold a read lock it could not upgrade while another writer
// waits).
bool EnsureTables(OdbcConnection& db, const Dialect& d) {
  const auto tablesPresent = [&](std::int32_t& count) {
    std::unique_ptr<OdbcStatement> probe = db.NewStatement();
    return probe != nullptr && probe->Prepare(d.tablesPresent) && probe->Execute() &&
           ReadOneInt32(probe.get(), count);
  };
  std::int32_t present = 0;
  if (!tablesPresent(present)) return false;
  if (present < d.schemaObjects && d.schemaLock != nullptr) {
    if (!db.ExecuteDirect(d.schemaLock) || !tablesPresent(present)) return false;
  }
  if (present < d.schemaObjects) {
    for (const std::string& statement : d.schema) {
      if (!db.ExecuteDirect(statement)) return false;
    }
  }
  return db.Commit();
}

void Report(std::string* error, const std::string& what) {
  if (error != nullptr) *error = what;
}

// One attempt at storing the file on `session`; -1 on failure.
std::int32_t StoreOnSession(Session& session, const unsigned char* bytes, std::int32_t count,
                            const StoreOptions& options, std::string* error) {
  OdbcConnection& db = session.db();
  try {
    const Dialect& d = DialectFor(db.DbmsName());
    std::int32_t fileId = -1;
    bool stored = false;
    {
      FileWriter writer(session, d, options);
      session.tablesKnown = session.tablesKnown || EnsureTables(db, d);
      stored = session.tablesKnown && writer.Run(bytes, count, fileId) && db.Commit();
      writer.Publish(stored);
    }
    if (stored) return fileId;
    Report(error, db.LastError().empty() ? "the composite data is corrupt" : db.LastError());
  } catch (const std::exception& e) {
    Report(error, e.what());
  }
  return -1;
}

}  // namespace

std::int32_t StoreFile(const std::string& connection, const unsigned char* bytes,
                       std::int32_t count, const StoreOptions& options, std::string* error) {
  if (count < 0 || (bytes == nullptr && count > 0)) {
    Report(error, "no file bytes");
    return -1;
  }
  for (;;) {
    std::unique_ptr<Session> session =
        options.sessions != nullptr ? options.sessions->Take(connection) : nullptr;
    if (session == nullptr) {
      session = std::make_unique<Session>();
      if (!session->db().Connect(connection, false)) {
        Report(error, session->db().LastError());
        return -1;
      }
    }
    const std::int32_t fileId = StoreOnSession(*session, bytes, count, options, error);
    const bool ended = fileId >= 0 || session->db().Rollback();
    // A kept session the server has closed since: the file goes to a new
    // one (nothing of this attempt was committed).
    if (fileId < 0 && session->reused && session->db().IsDead()) continue;
    if (ended && options.sessions != nullptr && !session->db().IsDead()) {
      options.sessions->Give(connection, std::move(session));
    }
    return fileId;
  }
}

std::string SqliteDriverPath() {
  return FindOdbcDriver(
      {"/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so",
       "/usr/lib/aarch64-linux-gnu/odbc/libsqlite3odbc.so", "/usr/lib64/libsqlite3odbc.so",
       "/usr/lib/odbc/libsqlite3odbc.so", "/usr/local/lib/libsqlite3odbc.so"},
      "SQLite3");
}

std::string SqliteConnectionString(const std::string& path) {
  return "DRIVER=" + SqliteDriverPath() + ";Database=" + DriverFilePath(path) + ";JournalMode=WAL;SyncPragma=FULL;";
}

}  // namespace zelvarpack::store
