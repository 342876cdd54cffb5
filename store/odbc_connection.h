// The store's seam over the ODBC driver manager (unixODBC on Linux): one
// connection with its own environment, and prepared statements with
// parameters bound by value. Text goes to the driver manager as UTF-16 (the
// wide entry points); connection strings and SQL are given as UTF-8.
//
// Nothing else in the engine includes the ODBC headers.
//
// Every call reports failure by its result; the first diagnostic record of
// the last failing call is kept as LastError() for tools and tests. The
// library itself never prints it.
//
// Thread safety: a connection and its statements belong to one thread.
#ifndef ZELVARPACK_STORE_ODBC_CONNECTION_H_
#define ZELVARPACK_STORE_ODBC_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zelvarpack::store {

class OdbcStatement;

class OdbcConnection {
 public:
  OdbcConnection() = default;
  // Disconnects and frees the handles. REQUIRES: every statement made by
  // this connection is destroyed first.
  ~OdbcConnection();
  OdbcConnection(const OdbcConnection&) = delete;
  OdbcConnection& operator=(const OdbcConnection&) = delete;

  // Allocates an environment (ODBC 3) and a connection, connects without
  // prompting, and switches autocommit off unless `autocommit`.
  bool Connect(const std::string& connectionString, bool autocommit);

  // The driver's name for its database engine ("SQLite", "PostgreSQL",
  // "Microsoft SQL Server"), or "" when it cannot be read.
  std::string DbmsName();

  // True when the driver knows the connection is lost (the server closed
  // it, say); false when alive or when the driver cannot tell.
  bool IsDead();

  bool Commit();
  bool Rollback();

  // A new statement on this connection, or null.
  std::unique_ptr<OdbcStatement> NewStatement();

  // Prepares and runs `sql` without parameters, discarding any result.
  bool ExecuteDirect(const std::string& sql);

  const std::string& LastError() const { return lastError_; }

 private:
  friend class OdbcStatement;
  // Records the first diagnostic of `handle` (of ODBC handle type `type`).
  void NoteError(short type, void* handle, const char* what);

  void* environment_ = nullptr;
  void* connection_ = nullptr;
  bool connected_ = false;
  std::string lastError_;
};

class OdbcStatement {
 public:
  enum class Row { kRow, kEnd, kError };

  ~OdbcStatement();
  OdbcStatement(const OdbcStatement&) = delete;
  OdbcStatement& operator=(const OdbcStatement&) = delete;

  bool Prepare(const std::string& sql);

  // Parameter values for the next Execute, by 1-based position. Binary
  // bytes are borrowed: they must stay valid until Execute returns.
  void SetInt32(int position, std::int32_t value);
  void SetDouble(int position, double value);
  void SetBit(int position, bool value);
  // ASCII text, borrowed like binary bytes.
  void SetText(int position, const std::string& text);
  // `longBinary` binds as a long binary type, else as a variable binary.
  void SetBinary(int position, const unsigned char* bytes, std::size_t count, bool longBinary);

  // Closes any open cursor, binds the values set so far and executes the
  // prepared statement. A statement that touched no row succeeds.
  bool Execute();
  Row Fetch();
  // Moves to the next result of a batch; false when there is none or on
  // failure.
  bool NextResult();
  void CloseCursor();

  // Column values of the current row, by 1-based position; within one row,
  // read columns in increasing order. A NULL reads as 0 / empty.
  bool GetInt32(int column, std::int32_t& value);
  bool GetInt64(int column, std::int64_t& value);
  bool GetDouble(int column, double& value);
  bool GetBit(int column, bool& value);
  // The whole value, fetched in 4096-byte pieces.
  bool GetBinary(int column, std::vector<unsigned char>& bytes);

 private:
  friend class OdbcConnection;
  OdbcStatement(OdbcConnection* owner, void* handle) : owner_(owner), handle_(handle) {}

  struct Parameter {
    enum class Kind {
      kUnset,
      kInt32,
      kDouble,
      kBit,
      kText,
      kBinary,
      kLongBinary
    } kind = Kind::kUnset;
    std::int32_t int32 = 0;
    double real = 0;
    unsigned char bit = 0;
    const unsigned char* bytes = nullptr;
    std::int64_t count = 0;  // SQLLEN: the length or indicator
  };
  Parameter& At(int position);
  bool Check(short result, const char* what);

  OdbcConnection* owner_;
  void* handle_;
  std::vector<Parameter> parameters_;
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_ODBC_CONNECTION_H_
