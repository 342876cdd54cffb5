#include "store/odbc_connection.h"

#ifdef _WIN32
// ODBC32's headers build on the system's base types.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif
#include <sql.h>
#include <sqlext.h>

#include <algorithm>

namespace zelvarpack::store {

namespace {

static_assert(sizeof(SQLWCHAR) == 2, "the driver manager's wide characters are UTF-16");

bool Succeeded(SQLRETURN result) {
  return result == SQL_SUCCESS || result == SQL_SUCCESS_WITH_INFO;
}

// UTF-8 to UTF-16, NUL-terminated. A byte that does not start a valid
// sequence stands for itself (U+0000 to U+00FF), so any bytes convert.
std::vector<SQLWCHAR> Widen(const std::string& text) {
  std::vector<SQLWCHAR> out;
  out.reserve(text.size() + 1);
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  for (std::size_t i = 0; i < size;) {
    const unsigned char lead = bytes[i];
    int extra = 0;
    std::uint32_t code = lead;
    if (lead >= 0xC2 && lead <= 0xDF) {
      extra = 1;
      code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      extra = 2;
      code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      extra = 3;
      code = lead & 0x07u;
    }
    bool valid = i + static_cast<std::size_t>(extra) < size;
    for (int k = 1; valid && k <= extra; ++k) {
      const unsigned char next = bytes[i + static_cast<std::size_t>(k)];
      valid = (next & 0xC0) == 0x80;
      code = (code << 6) | (next & 0x3Fu);
    }
    if (extra == 2 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) valid = false;
    if (extra == 3 && (code < 0x10000 || code > 0x10FFFF)) valid = false;
    if (!valid) {
      extra = 0;
      code = lead;
    }
    if (code >= 0x10000) {
      code -= 0x10000;
      out.push_back(static_cast<SQLWCHAR>(0xD800 + (code >> 10)));
      out.push_back(static_cast<SQLWCHAR>(0xDC00 + (code & 0x3FF)));
    } else {
      out.push_back(static_cast<SQLWCHAR>(code));
    }
    i += static_cast<std::size_t>(extra) + 1;
  }
  out.push_back(0);
  return out;
}

// Diagnostics and engine names are ASCII in practice; anything else is
// written as '?'.
std::string Narrow(const SQLWCHAR* text, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count && text[i] != 0; ++i) {
    out.push_back(text[i] < 0x80 ? static_cast<char>(text[i]) : '?');
  }
  return out;
}

}  // namespace

OdbcConnection::~OdbcConnection() {
  if (connected_) SQLDisconnect(connection_);
  if (connection_ != nullptr) SQLFreeHandle(SQL_HANDLE_DBC, connection_);
  if (environment_ != nullptr) SQLFreeHandle(SQL_HANDLE_ENV, environment_);
}

void OdbcConnection::NoteError(short type, void* handle, const char* what) {
  SQLWCHAR state[6] = {};
  SQLWCHAR message[512] = {};
  SQLINTEGER native = 0;
  SQLSMALLINT length = 0;
  lastError_ = what;
  if (handle != nullptr &&
      Succeeded(SQLGetDiagRecW(type, handle, 1, state, &native, message, 512, &length))) {
    lastError_ += ": " + Narrow(state, 5) + " " +
                  Narrow(message, std::min<std::size_t>(static_cast<std::size_t>(length), 511));
  }
}

bool OdbcConnection::Connect(const std::string& connectionString, bool autocommit) {
  if (!Succeeded(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment_))) {
    environment_ = nullptr;
    lastError_ = "cannot allocate an ODBC environment";
    return false;
  }
  if (!Succeeded(SQLSetEnvAttr(environment_, SQL_ATTR_ODBC_VERSION,
                               reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0))) {
    NoteError(SQL_HANDLE_ENV, environment_, "SQLSetEnvAttr");
    return false;
  }
  if (!Succeeded(SQLAllocHandle(SQL_HANDLE_DBC, environment_, &connection_))) {
    connection_ = nullptr;
    NoteError(SQL_HANDLE_ENV, environment_, "SQLAllocHandle");
    return false;
  }
  std::vector<SQLWCHAR> wide = Widen(connectionString);
  SQLWCHAR completed[1024];
  SQLSMALLINT completedLength = 0;
  if (!Succeeded(SQLDriverConnectW(connection_, nullptr, wide.data(), SQL_NTS, completed, 1024,
                                   &completedLength, SQL_DRIVER_NOPROMPT))) {
    NoteError(SQL_HANDLE_DBC, connection_, "SQLDriverConnect");
    return false;
  }
  connected_ = true;
  if (!autocommit &&
      !Succeeded(SQLSetConnectAttrW(connection_, SQL_ATTR_AUTOCOMMIT,
                                    reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), 0))) {
    NoteError(SQL_HANDLE_DBC, connection_, "SQLSetConnectAttr");
    return false;
  }
  return true;
}

std::string OdbcConnection::DbmsName() {
  SQLWCHAR name[128] = {};
  SQLSMALLINT length = 0;
  if (!Succeeded(SQLGetInfoW(connection_, SQL_DBMS_NAME, name, sizeof name, &length))) {
    NoteError(SQL_HANDLE_DBC, connection_, "SQLGetInfo");
    return "";
  }
  return Narrow(name, 127);
}

bool OdbcConnection::IsDead() {
  if (!connected_) return true;
  SQLUINTEGER dead = SQL_CD_FALSE;
  if (!Succeeded(SQLGetConnectAttrW(connection_, SQL_ATTR_CONNECTION_DEAD, &dead, 0, nullptr))) {
    return false;
  }
  return dead == SQL_CD_TRUE;
}

bool OdbcConnection::Commit() {
  if (Succeeded(SQLEndTran(SQL_HANDLE_DBC, connection_, SQL_COMMIT))) return true;
  NoteError(SQL_HANDLE_DBC, connection_, "commit");
  return false;
}

bool OdbcConnection::Rollback() {
  if (Succeeded(SQLEndTran(SQL_HANDLE_DBC, connection_, SQL_ROLLBACK))) return true;
  NoteError(SQL_HANDLE_DBC, connection_, "rollback");
  return false;
}

std::unique_ptr<OdbcStatement> OdbcConnection::NewStatement() {
  SQLHANDLE handle = SQL_NULL_HANDLE;
  if (!Succeeded(SQLAllocHandle(SQL_HANDLE_STMT, connection_, &handle))) {
    NoteError(SQL_HANDLE_DBC, connection_, "SQLAllocHandle");
    return nullptr;
  }
  return std::unique_ptr<OdbcStatement>(new OdbcStatement(this, handle));
}

bool OdbcConnection::ExecuteDirect(const std::string& sql) {
  std::unique_ptr<OdbcStatement> statement = NewStatement();
  return statement != nullptr && statement->Prepare(sql) && statement->Execute();
}

OdbcStatement::~OdbcStatement() { SQLFreeHandle(SQL_HANDLE_STMT, handle_); }

bool OdbcStatement::Check(short result, const char* what) {
  if (Succeeded(result)) return true;
  owner_->NoteError(SQL_HANDLE_STMT, handle_, what);
  return false;
}

bool OdbcStatement::Prepare(const std::string& sql) {
  std::vector<SQLWCHAR> wide = Widen(sql);
  parameters_.clear();
  return Check(SQLPrepareW(handle_, wide.data(), SQL_NTS), "SQLPrepare");
}

OdbcStatement::Parameter& OdbcStatement::At(int position) {
  const auto index = static_cast<std::size_t>(position - 1);
  if (parameters_.size() <= index) parameters_.resize(index + 1);
  return parameters_[index];
}

void OdbcStatement::SetInt32(int position, std::int32_t value) {
  Parameter& parameter = At(position);
  parameter.kind = Parameter::Kind::kInt32;
  parameter.int32 = value;
}

void OdbcStatement::SetDouble(int position, double value) {
  Parameter& parameter = At(position);
  parameter.kind = Parameter::Kind::kDouble;
  parameter.real = value;
}

void OdbcStatement::SetBit(int position, bool value) {
  Parameter& parameter = At(position);
  parameter.kind = Parameter::Kind::kBit;
  parameter.bit = value ? 1 : 0;
}

void OdbcStatement::SetText(int position, const std::string& text) {
  Parameter& parameter = At(position);
  parameter.kind = Parameter::Kind::kText;
  parameter.bytes = reinterpret_cast<const unsigned char*>(text.data());
  parameter.count = static_cast<std::int64_t>(text.size());
}

void OdbcStatement::SetBinary(int position, const unsigned char* bytes, std::size_t count,
                              bool longBinary) {
  Parameter& parameter = At(position);
  parameter.kind = longBinary ? Parameter::Kind::kLongBinary : Parameter::Kind::kBinary;
  parameter.bytes = bytes;
  parameter.count = static_cast<std::int64_t>(count);
}

bool OdbcStatement::Execute() {
  CloseCursor();
  static_assert(sizeof(SQLLEN) == sizeof(std::int64_t));
  for (std::size_t i = 0; i < parameters_.size(); ++i) {
    Parameter& p = parameters_[i];
    const auto number = static_cast<SQLUSMALLINT>(i + 1);
    SQLRETURN result = SQL_ERROR;
    switch (p.kind) {
      case Parameter::Kind::kInt32:
        result = SQLBindParameter(handle_, number, SQL_PARAM_INPUT, SQL_C_SLONG, SQL_INTEGER, 0, 0,
                                  &p.int32, 0, nullptr);
        break;
      case Parameter::Kind::kDouble:
        result = SQLBindParameter(handle_, number, SQL_PARAM_INPUT, SQL_C_DOUBLE, SQL_DOUBLE, 0, 0,
                                  &p.real, 0, nullptr);
        break;
      case Parameter::Kind::kBit:
        result = SQLBindParameter(handle_, number, SQL_PARAM_INPUT, SQL_C_BIT, SQL_BIT, 1, 0,
                                  &p.bit, 0, nullptr);
        break;
      case Parameter::Kind::kText:
        result = SQLBindParameter(handle_, number, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR,
                                  static_cast<SQLULEN>(std::max<std::int64_t>(p.count, 1)), 0,
                                  const_cast<unsigned char*>(p.bytes), static_cast<SQLLEN>(p.count),
                                  reinterpret_cast<SQLLEN*>(&p.count));
        break;
      case Parameter::Kind::kBinary:
      case Parameter::Kind::kLongBinary:
        // A zero column size is refused by some drivers; an empty value
        // still binds with its zero length.
        result = SQLBindParameter(
            handle_, number, SQL_PARAM_INPUT, SQL_C_BINARY,
            p.kind == Parameter::Kind::kLongBinary ? SQL_LONGVARBINARY : SQL_VARBINARY,
            static_cast<SQLULEN>(std::max<std::int64_t>(p.count, 1)), 0,
            const_cast<unsigned char*>(p.bytes), static_cast<SQLLEN>(p.count),
            reinterpret_cast<SQLLEN*>(&p.count));
        break;
      case Parameter::Kind::kUnset:
        owner_->lastError_ = "parameter " + std::to_string(i + 1) + " has no value";
        return false;
    }
    if (!Check(result, "SQLBindParameter")) return false;
  }
  const SQLRETURN result = SQLExecute(handle_);
  return result == SQL_NO_DATA || Check(result, "SQLExecute");
}

OdbcStatement::Row OdbcStatement::Fetch() {
  const SQLRETURN result = SQLFetch(handle_);
  if (result == SQL_NO_DATA) return Row::kEnd;
  return Check(result, "SQLFetch") ? Row::kRow : Row::kError;
}

bool OdbcStatement::NextResult() {
  const SQLRETURN result = SQLMoreResults(handle_);
  return result != SQL_NO_DATA && Check(result, "SQLMoreResults");
}

void OdbcStatement::CloseCursor() { SQLFreeStmt(handle_, SQL_CLOSE); }

bool OdbcStatement::GetInt32(int column, std::int32_t& value) {
  SQLINTEGER got = 0;
  SQLLEN indicator = 0;
  if (!Check(
          SQLGetData(handle_, static_cast<SQLUSMALLINT>(column), SQL_C_SLONG, &got, 0, &indicator),
          "SQLGetData")) {
    return false;
  }
  value = indicator == SQL_NULL_DATA ? 0 : got;
  return true;
}

bool OdbcStatement::GetInt64(int column, std::int64_t& value) {
  SQLBIGINT got = 0;
  SQLLEN indicator = 0;
  if (!Check(SQLGetData(handle_, static_cast<SQLUSMALLINT>(column), SQL_C_SBIGINT, &got, 0,
                        &indicator),
             "SQLGetData")) {
    return false;
  }
  value = indicator == SQL_NULL_DATA ? 0 : got;
  return true;
}

bool OdbcStatement::GetDouble(int column, double& value) {
  SQLDOUBLE got = 0;
  SQLLEN indicator = 0;
  if (!Check(
          SQLGetData(handle_, static_cast<SQLUSMALLINT>(column), SQL_C_DOUBLE, &got, 0, &indicator),
          "SQLGetData")) {
    return false;
  }
  value = indicator == SQL_NULL_DATA ? 0 : got;
  return true;
}

bool OdbcStatement::GetBit(int column, bool& value) {
  unsigned char got = 0;
  SQLLEN indicator = 0;
  if (!Check(SQLGetData(handle_, static_cast<SQLUSMALLINT>(column), SQL_C_BIT, &got, 0, &indicator),
             "SQLGetData")) {
    return false;
  }
  value = indicator != SQL_NULL_DATA && got != 0;
  return true;
}

bool OdbcStatement::GetBinary(int column, std::vector<unsigned char>& bytes) {
  constexpr SQLLEN kPiece = 4096;
  bytes.clear();
  unsigned char piece[kPiece];
  for (;;) {
    SQLLEN indicator = 0;
    const SQLRETURN result = SQLGetData(handle_, static_cast<SQLUSMALLINT>(column), SQL_C_BINARY,
                                        piece, kPiece, &indicator);
    if (result == SQL_NO_DATA) return true;
    if (!Check(result, "SQLGetData")) return false;
    if (indicator == SQL_NULL_DATA) return true;
    const SQLLEN got = indicator == SQL_NO_TOTAL || indicator > kPiece ? kPiece : indicator;
    bytes.insert(bytes.end(), piece, piece + got);
    // SQL_SUCCESS: this piece was the last; with info (01004): more to come.
    if (result == SQL_SUCCESS) return true;
  }
}

}  // namespace zelvarpack::store
