// Reading composites back on SQLite, where the database compares a
// composite's data with bytes the writer remembers instead of sending it.
#include "store/read_back.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

#include "store/file_store.h"
#include "tests/store_databases.h"

namespace {

using zelvarpack::store::Bytes;
using zelvarpack::store::CompositeDataIs;
using zelvarpack::store::DialectFor;
using zelvarpack::store::Session;

TEST(StoreReadBack, TheDatabaseComparesCompositeDataByteForByte) {
  std::unique_ptr<StoreDatabase> db = NewSqliteDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  // A file of random bytes: one composite, stored as it is (gzip is longer).
  std::mt19937 generator(17);
  std::string file(3000, '\0');
  for (char& b : file) b = static_cast<char>(generator());
  ASSERT_EQ(zelvarpack::store::StoreFile(db->Connection(),
                                         reinterpret_cast<const unsigned char*>(file.data()),
                                         static_cast<std::int32_t>(file.size())),
            1);
  const Bytes stored(file.begin(), file.end());
  ASSERT_EQ(CompositeRows(db->Connection()).at(0).data, stored);

  Session session;
  ASSERT_TRUE(session.db().Connect(db->Connection(), true));
  const auto& d = DialectFor(session.db().DbmsName());
  ASSERT_NE(d.compositeDataIs, nullptr);
  bool same = false;
  ASSERT_TRUE(CompositeDataIs(session, d, 1, stored, same));
  EXPECT_TRUE(same);

  Bytes changed = stored;
  changed[1234] ^= 1;
  Bytes shorter(stored.begin(), stored.end() - 1);
  Bytes longer = stored;
  longer.push_back(0);
  for (const Bytes* other : {&changed, &shorter, &longer}) {
    ASSERT_TRUE(CompositeDataIs(session, d, 1, *other, same));
    EXPECT_FALSE(same) << other->size();
  }
  ASSERT_TRUE(CompositeDataIs(session, d, 2, stored, same));  // no such composite
  EXPECT_FALSE(same);
}

}  // namespace
