#include "store/read_back.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "store/file_store.h"

namespace zelvarpack::store {

bool ReadOneInt32(OdbcStatement* statement, std::int32_t& value) {
  const bool ok = statement->Fetch() == OdbcStatement::Row::kRow && statement->GetInt32(1, value);
  statement->CloseCursor();
  return ok;
}

bool ReadCompositeData(Session& statements, const Dialect& d, std::int32_t id, Bytes& data,
                       bool& compressed) {
  OdbcStatement* read = statements.Prepared(d.compositeData);
  if (read == nullptr) return false;
  read->SetInt32(1, id);
  const bool ok = read->Execute() && read->Fetch() == OdbcStatement::Row::kRow &&
                  read->GetBit(1, compressed) && read->GetBinary(2, data);
  read->CloseCursor();
  return ok;
}

bool CompositeDataIs(Session& statements, const Dialect& d, std::int32_t id, const Bytes& data,
                     bool& same) {
  same = false;
  OdbcStatement* compare = statements.Prepared(d.compositeDataIs);
  if (compare == nullptr) return false;
  compare->SetBinary(1, data.data(), data.size(), d.longBinary);
  compare->SetInt32(2, id);
  if (!compare->Execute()) return false;
  const OdbcStatement::Row row = compare->Fetch();
  const bool ok = row == OdbcStatement::Row::kEnd ||
                  (row == OdbcStatement::Row::kRow && compare->GetBit(1, same));
  compare->CloseCursor();
  return ok;
}

bool ReadComposite(Session& statements, const Dialect& d, std::int32_t id, Bytes& plain) {
  bool compressed = false;
  Bytes data;
  return ReadCompositeData(statements, d, id, data, compressed) && Unpack(data, compressed, plain);
}

bool ReadIdentity(Session& statements, const Dialect& d, OdbcStatement* insert, std::int32_t& id) {
  switch (d.identityFrom) {
    case IdentityFrom::kNextResult:
      return insert->NextResult() && ReadOneInt32(insert, id);
    case IdentityFrom::kSameResult:
      return ReadOneInt32(insert, id);
    case IdentityFrom::kSeparateQuery: {
      insert->CloseCursor();
      OdbcStatement* last = statements.Prepared(d.lastIdentity);
      return last != nullptr && last->Execute() && ReadOneInt32(last, id);
    }
  }
  return false;
}

bool ReadVersions(const Dialect& d, OdbcStatement* write,
                  std::unordered_map<std::int32_t, std::int64_t>& versions) {
  if (!d.dataWritesReturnVersions) return true;
  for (;;) {
    const OdbcStatement::Row row = write->Fetch();
    if (row == OdbcStatement::Row::kEnd) break;
    std::int32_t id = 0;
    std::int64_t version = 0;
    if (row != OdbcStatement::Row::kRow || !write->GetInt32(1, id) ||
        !write->GetInt64(2, version)) {
      return false;
    }
    versions[id] = version;
  }
  write->CloseCursor();
  return true;
}

namespace {

void Report(std::string* error, const std::string& what) {
  if (error != nullptr) *error = what;
}

}  // namespace

bool ReadStoredFile(const std::string& connection, std::int32_t fileId, Bytes& bytes,
                    std::string* error) {
  bytes.clear();
  Session statements;
  OdbcConnection& db = statements.db();
  if (!db.Connect(connection, true)) {
    Report(error, db.LastError());
    return false;
  }
  const Dialect& d = DialectFor(db.DbmsName());
  std::int32_t size = 0;
  OdbcStatement* sizeOf = statements.Prepared(d.fileSize);
  if (sizeOf == nullptr) {
    Report(error, db.LastError());
    return false;
  }
  sizeOf->SetInt32(1, fileId);
  if (!sizeOf->Execute()) {
    Report(error, db.LastError());
    return false;
  }
  if (!ReadOneInt32(sizeOf, size)) {
    Report(error, db.LastError().empty() ? "no such file" : db.LastError());
    return false;
  }

  struct Piece {
    std::int32_t composite, start, length;
  };
  std::vector<Piece> pieces;
  OdbcStatement* list = statements.Prepared(d.fileChunks);
  if (list == nullptr) {
    Report(error, db.LastError());
    return false;
  }
  list->SetInt32(1, fileId);
  bool ok = list->Execute();
  for (OdbcStatement::Row row; ok && (row = list->Fetch()) != OdbcStatement::Row::kEnd;) {
    Piece piece{};
    ok = row == OdbcStatement::Row::kRow && list->GetInt32(1, piece.composite) &&
         list->GetInt32(2, piece.start) && list->GetInt32(3, piece.length);
    pieces.push_back(piece);
  }
  list->CloseCursor();

  std::map<std::int32_t, Bytes> composites;
  bytes.reserve(static_cast<std::size_t>(std::max(size, 0)));
  for (std::size_t i = 0; ok && i < pieces.size(); ++i) {
    const Piece& piece = pieces[i];
    auto found = composites.find(piece.composite);
    if (found == composites.end()) {
      Bytes plain;
      if (!ReadComposite(statements, d, piece.composite, plain)) {
        ok = false;
        break;
      }
      found = composites.emplace(piece.composite, std::move(plain)).first;
    }
    const Bytes& plain = found->second;
    if (piece.start < 1 || piece.length < 0 ||
        static_cast<std::size_t>(piece.start - 1) + static_cast<std::size_t>(piece.length) >
            plain.size()) {
      ok = false;
      break;
    }
    bytes.insert(bytes.end(), plain.begin() + (piece.start - 1),
                 plain.begin() + (piece.start - 1 + piece.length));
  }
  if (ok && bytes.size() == static_cast<std::size_t>(size)) return true;
  Report(error,
         db.LastError().empty() ? "the stored chunks do not make up the file" : db.LastError());
  bytes.clear();
  return false;
}

bool ReadStoreTotals(const std::string& connection, StoreTotals& totals, std::string* error) {
  OdbcConnection db;
  if (!db.Connect(connection, true)) {
    Report(error, db.LastError());
    return false;
  }
  const Dialect& d = DialectFor(db.DbmsName());
  std::unique_ptr<OdbcStatement> query = db.NewStatement();
  const bool ok = query != nullptr && query->Prepare(d.totals) && query->Execute() &&
                  query->Fetch() == OdbcStatement::Row::kRow && query->GetInt64(1, totals.files) &&
                  query->GetInt64(2, totals.chunks) && query->GetInt64(3, totals.composites) &&
                  query->GetInt64(4, totals.originalBytes) &&
                  query->GetInt64(5, totals.storedBytes);
  if (!ok) Report(error, db.LastError().empty() ? "no totals" : db.LastError());
  return ok;
}

}  // namespace zelvarpack::store
