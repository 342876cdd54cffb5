// The session pool on its own (which session a Take returns, the idle bound
// and time-out), prepared statements kept per session on SQLite, and a kept
// session that the loopback PostgreSQL server closed.
#include "store/session_pool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "store/file_store.h"
#include "tests/store_databases.h"
#include "tests/temp_dir.h"

namespace {

using zelvarpack::store::Session;
using zelvarpack::store::SessionPool;

TEST(SessionPool, TakesTheMostRecentSessionKeptForTheSameConnection) {
  SessionPool pool;
  EXPECT_EQ(pool.Take("a"), nullptr);
  auto older = std::make_unique<Session>();
  auto newer = std::make_unique<Session>();
  auto other = std::make_unique<Session>();
  const Session* newerAddress = newer.get();
  const Session* olderAddress = older.get();
  pool.Give("a", std::move(older));
  pool.Give("b", std::move(other));
  pool.Give("a", std::move(newer));
  EXPECT_EQ(pool.idle(), 3u);
  std::unique_ptr<Session> taken = pool.Take("a");
  EXPECT_EQ(taken.get(), newerAddress);
  EXPECT_TRUE(taken->reused);
  EXPECT_EQ(pool.Take("a").get(), olderAddress);
  EXPECT_EQ(pool.Take("a"), nullptr);
  EXPECT_EQ(pool.idle(), 1u);  // b's
}

TEST(SessionPool, KeepsAtMostItsBoundDroppingTheOldest) {
  SessionPool pool(2);
  std::vector<const Session*> given;
  for (int i = 0; i < 3; ++i) {
    auto session = std::make_unique<Session>();
    given.push_back(session.get());
    pool.Give("a", std::move(session));
  }
  EXPECT_EQ(pool.idle(), 2u);
  EXPECT_EQ(pool.Take("a").get(), given[2]);
  EXPECT_EQ(pool.Take("a").get(), given[1]);
  EXPECT_EQ(pool.Take("a"), nullptr);
}

TEST(SessionPool, ClosesSessionsIdleLongerThanAllowed) {
  SessionPool pool(4, std::chrono::milliseconds(20));
  pool.Give("a", std::make_unique<Session>());
  pool.Give("b", std::make_unique<Session>());
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(pool.Take("a"), nullptr);
  EXPECT_EQ(pool.idle(), 0u);  // b's expired as well
}

TEST(SessionPool, PreparesEachStatementOnceAndForgetsOnesThatFail) {
  if (zelvarpack::store::SqliteDriverPath().empty()) GTEST_SKIP() << "no SQLite ODBC driver";
  std::unique_ptr<StoreDatabase> db = NewSqliteDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  Session session;
  ASSERT_TRUE(session.db().Connect(db->Connection(), true));
  static const char kOne[] = "SELECT 1";
  static const char kBroken[] = "SELECT FROM WHERE";
  zelvarpack::store::OdbcStatement* one = session.Prepared(kOne);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(session.Prepared(kOne), one);
  EXPECT_EQ(session.Prepared(kBroken), nullptr);
  EXPECT_EQ(session.Prepared(kBroken), nullptr);  // tried again, not kept as null
}

std::string RandomBytes(unsigned seed, std::size_t count) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& b : bytes) b = static_cast<char>(generator() & 0xFF);
  return bytes;
}

std::string StoredBytes(const std::string& connection, std::int32_t id) {
  std::vector<unsigned char> bytes;
  std::string error;
  EXPECT_TRUE(zelvarpack::store::ReadStoredFile(connection, id, bytes, &error)) << error;
  return std::string(bytes.begin(), bytes.end());
}

TEST(SessionPoolPostgres, KeptSessionsAreReusedAndReplacedOnceTheServerClosedThem) {
  std::unique_ptr<StoreDatabase> db = NewPostgresDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  SessionPool sessions;
  zelvarpack::store::StoreOptions options;
  options.sessions = &sessions;
  const std::string files[] = {ReadWholeFile("/usr/share/common-licenses/GPL-3"),
                               RandomBytes(7, 9000),
                               ReadWholeFile("/usr/share/common-licenses/GPL-2")};
  const auto store = [&](const std::string& bytes) {
    std::string error;
    const std::int32_t id = zelvarpack::store::StoreFile(
        db->Connection(), reinterpret_cast<const unsigned char*>(bytes.data()),
        static_cast<std::int32_t>(bytes.size()), options, &error);
    EXPECT_GT(id, 0) << error;
    return id;
  };
  const auto sessionsOnServer = [&] {
    return CountRows(db->Connection(),
                     "pg_stat_activity WHERE datname = current_database() "
                     "AND pid <> pg_backend_pid()");
  };
  const std::int32_t first = store(files[0]);
  const std::int32_t second = store(files[1]);
  EXPECT_EQ(sessions.idle(), 1u);
  EXPECT_EQ(sessionsOnServer(), 1);  // both files went through one connection

  // The server ends the kept session (a restart, an idle time-out): the next
  // file is stored on a new one rather than failing, and only the live
  // session is kept.
  ASSERT_EQ(ExecuteSql(db->Connection(),
                       "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE "
                       "datname = current_database() AND pid <> pg_backend_pid()"),
            "");
  const std::int32_t third = store(files[2]);
  EXPECT_EQ(sessions.idle(), 1u);
  EXPECT_EQ(StoredBytes(db->Connection(), first), files[0]);
  EXPECT_EQ(StoredBytes(db->Connection(), second), files[1]);
  EXPECT_EQ(StoredBytes(db->Connection(), third), files[2]);
}

}  // namespace
