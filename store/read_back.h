// Reading the store's rows back: a composite's stored data and its bytes,
// for the file writer (which appends to composites) and for reading a whole
// stored file again (ReadStoredFile and ReadStoreTotals in
// store/file_store.h). Each call uses the caller's session, on the caller's
// thread.
#ifndef ZELVARPACK_STORE_READ_BACK_H_
#define ZELVARPACK_STORE_READ_BACK_H_

#include <cstdint>
#include <unordered_map>

#include "store/odbc_connection.h"
#include "store/session_pool.h"
#include "store/sql_dialect.h"
#include "store/stored_form.h"

namespace zelvarpack::store {

// The first column of the statement's only row, closing its cursor.
bool ReadOneInt32(OdbcStatement* statement, std::int32_t& value);

// The identity of the row `insert` (just executed) added, as the dialect
// hands it out.
bool ReadIdentity(Session& statements, const Dialect& d, OdbcStatement* insert, std::int32_t& id);

// Adds the (composite_id, version) rows of a data write to `versions`, when
// the dialect's data writes return them.
bool ReadVersions(const Dialect& d, OdbcStatement* write,
                  std::unordered_map<std::int32_t, std::int64_t>& versions);

// Reads a composite's flag and data by id.
bool ReadCompositeData(Session& statements, const Dialect& d, std::int32_t id, Bytes& data,
                       bool& compressed);

// Whether composite `id`'s data is exactly `data`, asked through the
// dialect's compositeDataIs (which must not be null): `same` is false when
// it differs or the composite is missing.
bool CompositeDataIs(Session& statements, const Dialect& d, std::int32_t id, const Bytes& data,
                     bool& same);

// Reads a composite's uncompressed bytes by id.
bool ReadComposite(Session& statements, const Dialect& d, std::int32_t id, Bytes& plain);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_READ_BACK_H_
