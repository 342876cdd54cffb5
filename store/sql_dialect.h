// The statements of the chunked file store for each database engine it
// knows, chosen by the name the ODBC driver reports for its engine.
//
// SQL Server's statements are the reference forms. SQLite and PostgreSQL get
// statements with the same meaning in their own syntax; in particular the
// composite search compares fingerprints x 100 truncated toward zero on
// every engine (PostgreSQL's cast to integer rounds, so it truncates first).
//
// Immutable tables; safe from any thread.
#ifndef ZELVARPACK_STORE_SQL_DIALECT_H_
#define ZELVARPACK_STORE_SQL_DIALECT_H_

#include <string>
#include <vector>

namespace zelvarpack::store {

enum class Engine { kSqlServer, kSqlite, kPostgresql };

// Where a new identity value (file_id, composite_id) comes from after its
// INSERT: the second result of the same batch (SQL Server's trailing
// SELECT @@IDENTITY), the INSERT's own result (RETURNING), or a separate
// query run right after it.
enum class IdentityFrom { kNextResult, kSameResult, kSeparateQuery };

// The updateCompositeDataBatch statements write 2, 4, 8 or 16 composites.
constexpr int kDataBatchSizes = 4;
constexpr int DataBatchRows(int size) { return 2 << size; }

// Columns of appendChunks's rows: the composite that took the chunk, its
// chunks before (0 for a new one), its is_compressed flag, the chunk's
// start, the composite's fft_rms after, its stored data (NULL when new,
// among the ids the caller holds, already sent for an earlier chunk, or
// current), and whether the row is still at the version the caller knows
// (then the caller's bytes are the stored ones and no data is sent), and
// the file the chunks belong to.
struct AppendColumns {
  static constexpr int kCompositeId = 1, kChunksBefore = 2, kIsCompressed = 3, kStart = 4,
                       kFftRms = 5, kData = 6, kCurrent = 7, kFileId = 8;
};

// Column positions (1-based) of the composite search's row; 0 when absent.
struct MatchColumns {
  int compositeId;
  int chunks;
  int data;
  int fftRms;
  int isCompressed;
  int maxOrdinal;
  int sumFftRms;
};

struct Dialect {
  Engine engine;
  const char* name;
  // Run first in every storing transaction, or null: serialises writers
  // where the engine would otherwise let two of them update one composite
  // from the same old bytes. A transaction that stores its chunks through
  // appendChunks leaves it out: that call takes the same lock first.
  const char* lockForWrite;
  // (original_size) -> file_id
  const char* insertFile;
  IdentityFrom identityFrom;
  // For kSeparateQuery: one row, one column, the identity just made.
  const char* lastIdentity;
  // (fft_rms, fft_rms) -> at most one row, see `match`.
  const char* findComposite;
  MatchColumns match;
  // (composite_id) -> is_compressed, data
  const char* compositeData;
  // Or null. (data, composite_id) -> one row, one column: whether the
  // composite's data is exactly the given bytes; the database compares
  // them, so that the data need not come back to be compared here.
  const char* compositeDataIs;
  // (data, fft_rms, is_compressed) -> composite_id
  const char* insertComposite;
  // (data, fft_rms, is_compressed, composite_id): one more chunk.
  const char* updateComposite;
  // (fft_rms, composite_id): one more chunk, bytes written later.
  const char* updateCompositeCounts;
  // (data, is_compressed, composite_id), or with dataWritesSetCounts
  // (data, is_compressed, chunks, fft_rms as text, composite_id); with
  // dataWritesReturnVersions, like the batches below, a row (composite_id,
  // row version) per row written.
  const char* updateCompositeData;
  // (file_id, ordinal, composite_id, start, length, fft_rms)
  const char* insertChunk;
  // Or null. With deferred compression, in place of the search and the
  // inserts and updates of many chunks, one call (one round trip on a
  // server) that stores a run of a file's chunks in order. Parameters:
  // (file_id, or 0 to insert the file's row first in the same call;
  // original_size, for that row; the chunks' fft_rms as an array literal
  // "{0.5,1.25}", their
  // lengths as one, the ids of composites whose bytes the caller holds as
  // one, the ids of composites the caller knows as last written and, as a
  // bigint array, the row version it knows for each; whether this is the
  // file's last call: then the stored composites' counts are left to the
  // data writes, see dataWritesSetCounts). New composites get
  // empty data, to be written before the commit. One row per chunk, see
  // AppendColumns.
  const char* appendChunks;
  // Or nulls. (composite_id, data, is_compressed), with dataWritesSetCounts
  // followed by (chunks, fft_rms as text), x DataBatchRows(size): the
  // deferred data writes of several composites in one statement.
  const char* updateCompositeDataBatch[kDataBatchSizes];
  // The data writes return each row's new version: a number the database
  // changes with every update of the row (PostgreSQL's xmin).
  bool dataWritesReturnVersions;
  // The data writes set chunks and fft_rms too, and the last appendChunks
  // call of a file leaves the composites' counts to them (one row version
  // per composite and file instead of two). Fingerprints go as text, in
  // the shortest form that reads back as the same double.
  bool dataWritesSetCounts;
  // Binds composite data as a long binary (else as a variable binary).
  bool longBinary;

  // One row, one column: how many of the schema's objects exist.
  const char* tablesPresent;
  // How many there are when the schema is complete.
  int schemaObjects;
  // Run before creating the tables, or null: makes callers that all found
  // tables missing take turns (each looks again once it has the lock).
  const char* schemaLock;
  // The table definitions, one statement per entry.
  std::vector<std::string> schema;

  // Reading back. (file_id) -> original_size
  const char* fileSize;
  // (file_id) -> composite_id, start, length; in the file's order
  const char* fileChunks;
  // One row: files, chunks, composites, sum of original sizes, sum of
  // stored data lengths.
  const char* totals;
};

// The dialect for a driver's engine name; SQL Server's statements for an
// engine this store does not know.
const Dialect& DialectFor(const std::string& dbmsName);
const Dialect& DialectOf(Engine engine);

// Statements of a schema file: comment lines (starting "--") dropped, cut
// after each semicolon that ends a line.
std::vector<std::string> SplitSchema(const std::string& text);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_SQL_DIALECT_H_
