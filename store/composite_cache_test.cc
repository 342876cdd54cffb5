// The composite cache on its own (bound, recency, replacement), and as the
// file store uses it: what a committed file wrote is remembered, what a
// rolled-back file touched is forgotten, on SQLite and on a loopback
// PostgreSQL server.
#include "store/composite_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "store/file_store.h"
#include "tests/store_databases.h"

namespace {

using zelvarpack::store::CompositeCache;
using Entry = CompositeCache::Entry;

std::shared_ptr<const Entry> EntryOf(std::size_t plainBytes) {
  auto entry = std::make_shared<Entry>();
  entry->plain = std::make_shared<const std::vector<unsigned char>>(plainBytes, 'p');
  entry->chunks = 1;
  return entry;
}

std::vector<std::int32_t> Ids(const CompositeCache& cache) {
  std::vector<std::int32_t> ids;
  for (const auto& [id, entry] : cache.Snapshot()) ids.push_back(id);
  std::sort(ids.begin(), ids.end());
  return ids;
}

TEST(CompositeCache, EvictsTheLeastRecentlyUsedOnceOverItsBound) {
  const std::size_t one = EntryOf(1000)->Footprint();
  CompositeCache cache(2 * one + one / 2);  // room for two
  cache.Put(1, EntryOf(1000));
  cache.Put(2, EntryOf(1000));
  ASSERT_NE(cache.Find(1), nullptr);  // 1 is now the most recently used
  cache.Put(3, EntryOf(1000));
  EXPECT_EQ(Ids(cache), (std::vector<std::int32_t>{1, 3}));
  EXPECT_EQ(cache.Find(2), nullptr);
  // A larger entry pushes out as many as it needs.
  cache.Put(4, EntryOf(1800));
  EXPECT_EQ(Ids(cache), (std::vector<std::int32_t>{4}));
}

TEST(CompositeCache, ReplacingAnEntryCountsItsBytesOnce) {
  const std::size_t one = EntryOf(1000)->Footprint();
  CompositeCache cache(2 * one + one / 2);
  cache.Put(2, EntryOf(1000));
  for (int i = 0; i < 10; ++i) cache.Put(1, EntryOf(1000));
  EXPECT_EQ(Ids(cache), (std::vector<std::int32_t>{1, 2}));
  const std::shared_ptr<const Entry> newest = EntryOf(900);
  cache.Put(1, newest);
  EXPECT_EQ(cache.Find(1), newest);
}

TEST(CompositeCache, KeepsNothingLargerThanItsBoundAndForgetsOnRequest) {
  CompositeCache cache(EntryOf(1000)->Footprint());
  cache.Put(1, EntryOf(1000));
  cache.Put(2, EntryOf(5000));  // alone over the bound: not kept, 1 stays
  EXPECT_EQ(Ids(cache), (std::vector<std::int32_t>{1}));
  cache.Put(1, nullptr);  // a null entry forgets the old one
  EXPECT_EQ(cache.size(), 0u);
  cache.Put(3, EntryOf(10));
  cache.Forget(3);
  cache.Forget(99);  // unknown: nothing happens
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(cache.Find(3), nullptr);
}

struct Engine {
  const char* name;
  std::unique_ptr<StoreDatabase> (*make)();
  const char* refuseChunksOf1234;  // makes every chunk row of length 1234 fail
};

class CompositeCacheStore : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    db_ = GetParam().make();
    if (db_->Connection().empty()) GTEST_SKIP() << db_->Why();
    options_.cache = &cache_;
  }
  std::int32_t Store(const std::string& bytes, std::string* error = nullptr) {
    return zelvarpack::store::StoreFile(db_->Connection(),
                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<std::int32_t>(bytes.size()), options_, error);
  }
  std::int32_t CompositeOf(std::int32_t fileId) const {
    return ChunkRowsOf(db_->Connection(), fileId).at(0).compositeId;
  }
  std::unique_ptr<StoreDatabase> db_;
  CompositeCache cache_;
  zelvarpack::store::StoreOptions options_;
};

TEST_P(CompositeCacheStore, ARolledBackFileLeavesNoEntryForWhatItTouched) {
  std::string error;
  const std::string text(4096, 'y');
  const std::int32_t first = Store(text, &error);
  ASSERT_GT(first, 0) << error;
  const std::int32_t composite = CompositeOf(first);
  const std::shared_ptr<const Entry> remembered = cache_.Find(composite);
  ASSERT_NE(remembered, nullptr);
  EXPECT_EQ(remembered->chunks, 1);
  EXPECT_EQ(*remembered->plain, std::vector<unsigned char>(text.begin(), text.end()));

  // The first chunk joins the remembered composite, the second is refused:
  // the transaction rolls back, and the cache must not keep the appended
  // bytes nor the old entry (the row may have been rewritten meanwhile).
  // One chunk per round trip on PostgreSQL, so that the refusal comes after
  // the writer took the first chunk (a call refused whole touches nothing).
  options_.deferredBytesLimit = 2 * 4096;
  ASSERT_EQ(ExecuteSql(db_->Connection(), GetParam().refuseChunksOf1234), "");
  EXPECT_EQ(Store(text + std::string(1234, 'z')), -1);
  EXPECT_EQ(cache_.Find(composite), nullptr);

  // The composite is continued correctly from the database afterwards.
  const std::int32_t third = Store(text, &error);
  ASSERT_GT(third, 0) << error;
  EXPECT_EQ(CompositeOf(third), composite);
  std::vector<unsigned char> back;
  ASSERT_TRUE(zelvarpack::store::ReadStoredFile(db_->Connection(), third, back, &error)) << error;
  EXPECT_EQ(std::string(back.begin(), back.end()), text);
  ASSERT_NE(cache_.Find(composite), nullptr);
  EXPECT_EQ(cache_.Find(composite)->chunks, 2);
}

INSTANTIATE_TEST_SUITE_P(
    Engines, CompositeCacheStore,
    ::testing::Values(Engine{"Sqlite", NewSqliteDatabase,
                             "CREATE TRIGGER refuse_1234 BEFORE INSERT ON chunk "
                             "WHEN NEW.length = 1234 BEGIN SELECT RAISE(ABORT, 'refused'); END"},
                      Engine{
                          "Postgres", NewPostgresDatabase,
                          "ALTER TABLE chunk ADD CONSTRAINT refuse_1234 CHECK (length <> 1234)"}),
    [](const ::testing::TestParamInfo<Engine>& info) { return std::string(info.param.name); });

}  // namespace
