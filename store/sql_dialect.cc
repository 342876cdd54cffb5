#include "store/sql_dialect.h"

#include <array>

#include "store/schema_files.h"  // generated from store/schema/*.sql

namespace zelvarpack::store {

namespace {

// The reference statements, used as they are.
Dialect MakeSqlServer() {
  Dialect d{};
  d.engine = Engine::kSqlServer;
  d.name = "SQL Server";
  d.lockForWrite = nullptr;
  d.schemaLock = nullptr;
  d.insertFile = "INSERT [file] ([original_size]) VALUES (?); SELECT @@IDENTITY AS [file_id];";
  d.identityFrom = IdentityFrom::kNextResult;
  d.lastIdentity = nullptr;
  d.findComposite =
      "SELECT TOP 1 c.[composite_id], c.[chunks], c.[data], c.[fft_rms], c.[is_compressed], "
      "MAX(ch.[ordinal]) AS [max_chunks_ordinal], SUM(ch.[fft_rms]) AS [sum_chunks_fft_rms] "
      "FROM [composite] c INNER JOIN [chunk] ch ON c.[composite_id] = ch.[composite_id] "
      "WHERE CAST(c.[fft_rms] * CAST(100 AS float) AS int) = CAST(? * CAST(100 AS float) AS int) "
      "AND c.[chunks] < 25 GROUP BY c.[composite_id], c.[chunks], c.[data], c.[fft_rms], "
      "c.[is_compressed] ORDER BY ABS(c.[fft_rms] - ?)";
  d.match = {1, 2, 3, 4, 5, 6, 7};
  d.compositeData = "SELECT [is_compressed], [data] FROM [composite] WHERE [composite_id] = ?";
  d.insertComposite =
      "INSERT [composite] ([chunks], [data], [fft_rms], [is_compressed]) VALUES (1, ?, ?, ?); "
      "SELECT @@IDENTITY AS [composite_id];";
  d.updateComposite =
      "UPDATE [composite] SET [chunks] = [chunks] + 1, [data] = ?, [fft_rms] = ?, "
      "[is_compressed] = ? WHERE [composite_id] = ?;";
  d.updateCompositeCounts =
      "UPDATE [composite] SET [chunks] = [chunks] + 1, [fft_rms] = ? WHERE [composite_id] = ?;";
  d.updateCompositeData =
      "UPDATE [composite] SET [data] = ?, [is_compressed] = ? WHERE [composite_id] = ?;";
  d.insertChunk =
      "INSERT [chunk] ([file_id], [ordinal], [composite_id], [start], [length], [fft_rms]) "
      "VALUES (?, ?, ?, ?, ?, ?)";
  d.longBinary = true;
  d.tablesPresent =
      "SELECT COUNT(*) FROM sys.tables WHERE [name] IN (N'file', N'chunk', N'composite')";
  d.schema = SplitSchema(kSqlServerSchema);
  d.schemaObjects = 3;
  d.fileSize = "SELECT [original_size] FROM [file] WHERE [file_id] = ?";
  d.fileChunks =
      "SELECT [composite_id], [start], [length] FROM [chunk] WHERE [file_id] = ? "
      "ORDER BY [chunk_id]";
  d.totals =
      "SELECT (SELECT COUNT(*) FROM [file]), (SELECT COUNT(*) FROM [chunk]), "
      "(SELECT COUNT(*) FROM [composite]), "
      "(SELECT ISNULL(SUM(CAST([original_size] AS bigint)), 0) FROM [file]), "
      "(SELECT ISNULL(SUM(CAST(DATALENGTH([data]) AS bigint)), 0) FROM [composite])";
  return d;
}

// What SQLite and PostgreSQL share: plain identifiers, no data in the
// composite search (the bytes are read only when needed), and a
// tie-breaker for composites at the same distance.
Dialect MakePortable() {
  Dialect d{};
  d.lockForWrite = nullptr;
  d.schemaLock = nullptr;
  d.insertFile = "INSERT INTO file (original_size) VALUES (?)";
  d.match = {1, 2, 0, 3, 4, 5, 6};
  d.compositeData = "SELECT is_compressed, data FROM composite WHERE composite_id = ?";
  d.insertComposite =
      "INSERT INTO composite (chunks, data, fft_rms, is_compressed) VALUES (1, ?, ?, ?)";
  d.updateComposite =
      "UPDATE composite SET chunks = chunks + 1, data = ?, fft_rms = ?, is_compressed = ? "
      "WHERE composite_id = ?";
  d.updateCompositeCounts =
      "UPDATE composite SET chunks = chunks + 1, fft_rms = ? WHERE composite_id = ?";
  d.updateCompositeData = "UPDATE composite SET data = ?, is_compressed = ? WHERE composite_id = ?";
  d.insertChunk =
      "INSERT INTO chunk (file_id, ordinal, composite_id, start, length, fft_rms) "
      "VALUES (?, ?, ?, ?, ?, ?)";
  d.fileSize = "SELECT original_size FROM file WHERE file_id = ?";
  d.fileChunks =
      "SELECT composite_id, start, length FROM chunk WHERE file_id = ? ORDER BY chunk_id";
  d.totals =
      "SELECT (SELECT COUNT(*) FROM file), (SELECT COUNT(*) FROM chunk), "
      "(SELECT COUNT(*) FROM composite), "
      "(SELECT COALESCE(SUM(original_size), 0) FROM file), "
      "(SELECT COALESCE(SUM(LENGTH(data)), 0) FROM composite)";
  return d;
}

std::string FindComposite(const std::string& bucketOfColumn, const std::string& bucketOfValue) {
  return "SELECT c.composite_id, c.chunks, c.fft_rms, c.is_compressed, "
         "MAX(ch.ordinal) AS max_chunks_ordinal, SUM(ch.fft_rms) AS sum_chunks_fft_rms "
         "FROM composite c INNER JOIN chunk ch ON c.composite_id = ch.composite_id WHERE " +
         bucketOfColumn + " = " + bucketOfValue +
         " AND c.chunks < 25 GROUP BY c.composite_id, c.chunks, c.fft_rms, c.is_compressed "
         "ORDER BY ABS(c.fft_rms - ?), c.composite_id LIMIT 1";
}

Dialect MakeSqlite() {
  Dialect d = MakePortable();
  d.engine = Engine::kSqlite;
  d.name = "SQLite";
  // The driver runs an INSERT ... RETURNING without a result set.
  d.identityFrom = IdentityFrom::kSeparateQuery;
  d.lastIdentity = "SELECT last_insert_rowid()";
  // CAST(real AS INTEGER) truncates toward zero. The column's expression is
  // the one of the composite_open_bucket index.
  static const std::string find =
      FindComposite("CAST(c.fft_rms * 100.0 AS INTEGER)", "CAST(? * 100.0 AS INTEGER)");
  d.findComposite = find.c_str();
  // Blobs compare byte for byte; the driver hands data out as text to be
  // decoded, which is dear, while a bound blob goes in as it is.
  d.compositeDataIs = "SELECT data = ? FROM composite WHERE composite_id = ?";
  d.longBinary = true;
  d.tablesPresent =
      "SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' "
      "AND name IN ('file', 'chunk', 'composite')";
  d.schema = SplitSchema(kSqliteSchema);
  d.schemaObjects = 3;
  return d;
}

Dialect MakePostgresql() {
  Dialect d = MakePortable();
  d.engine = Engine::kPostgresql;
  d.name = "PostgreSQL";
  // Under READ COMMITTED two writers could both read a composite's old
  // bytes and the later UPDATE would drop the earlier one's chunk; the
  // table lock (which conflicts with itself, not with readers) makes them
  // take turns for the whole transaction.
  d.lockForWrite = "LOCK TABLE composite IN SHARE ROW EXCLUSIVE MODE";
  static const std::string insertFile = std::string(d.insertFile) + " RETURNING file_id";
  static const std::string insertComposite =
      std::string(d.insertComposite) + " RETURNING composite_id";
  d.insertFile = insertFile.c_str();
  d.insertComposite = insertComposite.c_str();
  d.identityFrom = IdentityFrom::kSameResult;
  d.lastIdentity = nullptr;
  // A cast to integer rounds; TRUNC first makes it truncate toward zero.
  // The column's expression is the one of the composite_open_bucket index.
  // Each candidate's chunks are summed through the (composite_id, ordinal)
  // index, in ordinal order: a join over the whole chunk table would be
  // planned as a scan of it once the table has grown past the statistics
  // a cached plan was made with, and the order makes the floating-point
  // sum the same whichever plan runs.
  static const std::string find =
      "SELECT c.composite_id, c.chunks, c.fft_rms, c.is_compressed, s.max_chunks_ordinal, "
      "s.sum_chunks_fft_rms FROM composite c CROSS JOIN LATERAL (SELECT "
      "MAX(ch.ordinal) AS max_chunks_ordinal, SUM(ch.fft_rms ORDER BY ch.ordinal) AS "
      "sum_chunks_fft_rms, COUNT(*) AS chunk_rows FROM chunk ch "
      "WHERE ch.composite_id = c.composite_id) s WHERE "
      "CAST(TRUNC(c.fft_rms * CAST(100 AS double precision)) AS integer) = "
      "CAST(TRUNC(CAST(? AS double precision) * CAST(100 AS double precision)) AS integer) "
      "AND c.chunks < 25 AND s.chunk_rows > 0 "
      "ORDER BY ABS(c.fft_rms - CAST(? AS double precision)), c.composite_id LIMIT 1";
  d.findComposite = find.c_str();
  // A file's chunks go through the store_append_chunks function of the
  // schema, many per call.
  d.appendChunks =
      "SELECT out_composite, out_chunks_before, out_compressed, out_start, out_fft, out_data, "
      "out_current, out_file FROM store_append_chunks(CAST(? AS integer), CAST(? AS integer), "
      "CAST(? AS double precision[]), "
      "CAST(? AS integer[]), CAST(? AS integer[]), CAST(? AS integer[]), CAST(? AS bigint[]), "
      "CAST(? AS boolean))";
  static const std::array<std::string, kDataBatchSizes> batches = [] {
    std::array<std::string, kDataBatchSizes> texts;
    for (int size = 0; size < kDataBatchSizes; ++size) {
      std::string& sql = texts[static_cast<std::size_t>(size)];
      sql =
          "UPDATE composite AS c SET data = v.data, is_compressed = v.is_compressed, "
          "chunks = v.chunks, fft_rms = v.fft_rms FROM (VALUES ";
      for (int row = 0; row < DataBatchRows(size); ++row) {
        if (row > 0) sql += ", ";
        sql +=
            "(CAST(? AS integer), CAST(? AS bytea), CAST(? AS boolean), CAST(? AS integer), "
            "CAST(CAST(? AS text) AS double precision))";
      }
      sql +=
          ") AS v (composite_id, data, is_compressed, chunks, fft_rms) "
          "WHERE c.composite_id = v.composite_id"
          " RETURNING c.composite_id, CAST(CAST(c.xmin AS text) AS bigint)";
    }
    return texts;
  }();
  for (int size = 0; size < kDataBatchSizes; ++size) {
    d.updateCompositeDataBatch[size] = batches[static_cast<std::size_t>(size)].c_str();
  }
  d.longBinary = false;  // the driver maps variable binary to bytea
  static const std::string updateData =
      "UPDATE composite SET data = ?, is_compressed = ?, chunks = ?, "
      "fft_rms = CAST(CAST(? AS text) AS double precision) WHERE composite_id = ? "
      "RETURNING composite_id, CAST(CAST(xmin AS text) AS bigint)";
  d.updateCompositeData = updateData.c_str();
  d.dataWritesReturnVersions = true;
  d.dataWritesSetCounts = true;
  d.tablesPresent =
      "SELECT (SELECT COUNT(*) FROM pg_catalog.pg_tables WHERE schemaname = current_schema() "
      "AND tablename IN ('file', 'chunk', 'composite')) + (SELECT COUNT(*) FROM "
      "pg_catalog.pg_proc p JOIN pg_catalog.pg_namespace n ON n.oid = p.pronamespace "
      "WHERE n.nspname = current_schema() AND p.proname = 'store_append_chunks' "
      "AND p.pronargs = 8)";
  d.schemaObjects = 4;
  // Concurrent CREATE ... IF NOT EXISTS can fail on PostgreSQL, and a
  // creator that runs while another caller already stores a file can
  // deadlock with it on the index builds' table locks.
  d.schemaLock = "SELECT pg_advisory_xact_lock(72011)";
  d.schema = SplitSchema(kPostgresqlSchema);
  return d;
}

}  // namespace

std::vector<std::string> SplitSchema(const std::string& text) {
  std::vector<std::string> statements;
  std::string current;
  bool inBody = false;  // between the "$$" quotes of a function body
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line.compare(first, 2, "--") == 0) continue;
    for (std::size_t at = line.find("$$"); at != std::string::npos; at = line.find("$$", at + 2)) {
      inBody = !inBody;
    }
    const std::size_t last = line.find_last_not_of(" \t\r");
    const bool ends = !inBody && line[last] == ';';
    line.erase(ends ? last : last + 1);
    if (!current.empty()) current += '\n';
    current += line;
    if (ends) {
      statements.push_back(current);
      current.clear();
    }
  }
  if (current.find_first_not_of(" \t\r\n") != std::string::npos) statements.push_back(current);
  return statements;
}

const Dialect& DialectOf(Engine engine) {
  static const Dialect sqlServer = MakeSqlServer();
  static const Dialect sqlite = MakeSqlite();
  static const Dialect postgresql = MakePostgresql();
  switch (engine) {
    case Engine::kSqlite:
      return sqlite;
    case Engine::kPostgresql:
      return postgresql;
    case Engine::kSqlServer:
      break;
  }
  return sqlServer;
}

const Dialect& DialectFor(const std::string& dbmsName) {
  if (dbmsName.find("SQLite") != std::string::npos) return DialectOf(Engine::kSqlite);
  if (dbmsName.find("PostgreSQL") != std::string::npos) return DialectOf(Engine::kPostgresql);
  return DialectOf(Engine::kSqlServer);
}

}  // namespace zelvarpack::store
