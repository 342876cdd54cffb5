// The chunked file store against real engines: a SQLite file through the
// SQLite ODBC driver, and a loopback PostgreSQL server through psqlODBC.
#include "store/file_store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "net/zlib_codec.h"
#include "store/look_ahead.h"
#include "store/odbc_connection.h"
#include "store/read_back.h"
#include "tests/store_databases.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"
#include "zelvarpack/zelvar_file_server.h"

namespace {

using zelvarpack::store::ReadStoredFile;
using zelvarpack::store::StoreFile;
using zelvarpack::store::StoreOptions;

struct EngineCase {
  const char* name;
  std::unique_ptr<StoreDatabase> (*make)();
  // Makes every chunk row of length 1234 fail to insert.
  const char* refuseChunksOf1234;
};

const EngineCase kSqlite{"Sqlite", NewSqliteDatabase,
                         "CREATE TRIGGER refuse_1234 BEFORE INSERT ON chunk "
                         "WHEN NEW.length = 1234 BEGIN SELECT RAISE(ABORT, 'refused'); END"};
const EngineCase kPostgres{"Postgres", NewPostgresDatabase,
                           "ALTER TABLE chunk ADD CONSTRAINT refuse_1234 CHECK (length <> 1234)"};

void PrintTo(const EngineCase& c, std::ostream* os) { *os << c.name; }

std::string RandomBytes(unsigned seed, std::size_t count) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (char& b : bytes) b = static_cast<char>(generator() & 0xFF);
  return bytes;
}

std::string RealFile(const std::string& path) {
  const std::string bytes = ReadWholeFile(path);
  EXPECT_FALSE(bytes.empty()) << path;
  return bytes;
}

std::string StoredBytes(const std::string& connection, std::int32_t id) {
  std::vector<unsigned char> bytes;
  std::string error;
  EXPECT_TRUE(ReadStoredFile(connection, id, bytes, &error)) << error;
  return std::string(bytes.begin(), bytes.end());
}

// A chunk of 184 bytes of value 57; its fingerprint (computed independently)
// is 1.2396975339113712, so it truncates to 123 when x 100.
const std::string kProbe(184, static_cast<char>(57));
constexpr double kProbeFingerprint = 1.2396975339113712;
// Doubles that went through the database: the SQLite ODBC driver hands them
// over as text of 15 significant digits.
constexpr double kStoredPrecision = 1e-12;

class FileStore : public ::testing::TestWithParam<EngineCase> {
 protected:
  void SetUp() override {
    db_ = GetParam().make();
    connection_ = db_->Connection();
    if (connection_.empty()) GTEST_SKIP() << db_->Why();
    handle_ = CZelvarFileServer::Create(reinterpret_cast<unsigned char*>(connection_.data()),
                                        static_cast<std::int32_t>(connection_.size()));
  }
  void TearDown() override { CZelvarFileServer::Destroy(handle_); }

  std::int32_t Add(const std::string& bytes) {
    std::string copy = bytes;
    return CZelvarFileServer::AddFile(handle_, reinterpret_cast<unsigned char*>(copy.data()),
                                      static_cast<std::int32_t>(copy.size()));
  }
  std::string Read(std::int32_t id) const { return StoredBytes(connection_, id); }
  void Sql(const std::string& sql) const { ASSERT_EQ(ExecuteSql(connection_, sql), "") << sql; }
  std::int32_t CompositeOf(std::int32_t fileId) const {
    const std::vector<ChunkRow> rows = ChunkRowsOf(connection_, fileId);
    return rows.empty() ? -1 : rows[0].compositeId;
  }
  CompositeRow Composite(std::int32_t id) const {
    for (const CompositeRow& row : CompositeRows(connection_)) {
      if (row.compositeId == id) return row;
    }
    ADD_FAILURE() << "no composite " << id;
    return {};
  }

  std::unique_ptr<StoreDatabase> db_;
  std::string connection_;
  void* handle_ = nullptr;
};

TEST_P(FileStore, EmptyRandomAndRealFilesReadBackWhole) {
  const std::int32_t empty = Add("");
  ASSERT_GT(empty, 0);
  EXPECT_EQ(CountRows(connection_, "file"), 1);
  EXPECT_EQ(CountRows(connection_, "chunk"), 0);
  EXPECT_EQ(CountRows(connection_, "composite"), 0);
  EXPECT_EQ(Read(empty), "");

  const std::string odd = RandomBytes(1, 4097);
  const std::int32_t oddId = Add(odd);
  ASSERT_GT(oddId, empty);
  const std::vector<ChunkRow> rows = ChunkRowsOf(connection_, oddId);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].length, 4096);
  EXPECT_EQ(rows[1].length, 1);

  std::vector<std::pair<std::int32_t, std::string>> stored = {{oddId, odd}};
  for (const std::string& bytes :
       {RandomBytes(2, 70000), RealFile("/usr/share/common-licenses/GPL-3"),
        RealFile("/usr/share/common-licenses/Apache-2.0"),
        RealFile(std::string(ZP_SOURCE_DIR) + "/testdata/sample.html"),
        RealFile("/usr/share/common-licenses/GPL-3")}) {
    stored.emplace_back(Add(bytes), bytes);
    ASSERT_GT(stored.back().first, 0);
  }
  for (const auto& [id, bytes] : stored) EXPECT_EQ(Read(id), bytes) << "file " << id;

  // The fixed answers hold even right after a successful store.
  CZelvarFileServer server;
  EXPECT_EQ(server.RetrieveFileData(oddId), nullptr);
  EXPECT_EQ(server.RetrieveFileLength(), 0);
  EXPECT_TRUE(server.UpdateFile(oddId, nullptr, 0));
  EXPECT_TRUE(server.DeleteFileW(oddId));
  EXPECT_EQ(Read(oddId), odd);
}

TEST_P(FileStore, AlikeChunksGoIntoOneCompositeInOrder) {
  // 'x' everywhere: a uniform grid of 120, fingerprint 120 / 16 = 7.5.
  const std::int32_t first = Add(std::string(3 * 4096, 'x'));
  const std::int32_t second = Add(std::string(2 * 4096, 'x'));
  const std::vector<ChunkRow> rows = ChunkRows(connection_);
  ASSERT_EQ(rows.size(), 5u);
  const std::int32_t composite = rows[0].compositeId;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(rows[i].fileId, i < 3 ? first : second);
    EXPECT_EQ(rows[i].compositeId, composite);
    EXPECT_EQ(rows[i].ordinal, static_cast<std::int32_t>(i) + 1);
    EXPECT_EQ(rows[i].start, static_cast<std::int32_t>(i) * 4096 + 1);
    EXPECT_EQ(rows[i].length, 4096);
    EXPECT_EQ(rows[i].fftRms, 7.5);
  }
  const CompositeRow alike = Composite(composite);
  EXPECT_EQ(alike.chunks, 5);
  EXPECT_EQ(alike.fftRms, 7.5);
  ASSERT_TRUE(alike.isCompressed);
  std::unique_ptr<CZelvarBuffer> plain = zelvarpack::net::Decompress(
      alike.data.data(), alike.data.size(), zelvarpack::net::ZlibFormat::kGzip, 1 << 20);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(plain->GetValue()),
                        static_cast<std::size_t>(plain->GetValueLength())),
            std::string(5 * 4096, 'x'));

  // Random bytes do not shrink under gzip: kept as they are, flag 0.
  const std::string noise = RandomBytes(3, 4096);
  const CompositeRow raw = Composite(CompositeOf(Add(noise)));
  EXPECT_FALSE(raw.isCompressed);
  EXPECT_EQ(std::string(raw.data.begin(), raw.data.end()), noise);
}

TEST_P(FileStore, ChoosesTheNearestOpenCompositeWithTheSameTruncatedFingerprint) {
  // Four one-byte files make four composites (fingerprints v / 256); their
  // fingerprints and sizes are then set by hand.
  std::int32_t a = 0, b = 0, c = 0, d = 0;
  for (auto [value, composite] :
       {std::pair<int, std::int32_t*>{10, &a}, {60, &b}, {110, &c}, {160, &d}}) {
    *composite = CompositeOf(Add(std::string(1, static_cast<char>(value))));
  }
  ASSERT_EQ(CountRows(connection_, "composite"), 4);
  const auto set = [&](std::int32_t id, const char* fft, int chunks) {
    Sql(std::string("UPDATE composite SET fft_rms = ") + fft +
        ", chunks = " + std::to_string(chunks) + " WHERE composite_id = " + std::to_string(id));
  };
  set(a, "1.234", 1);    // 123: joins
  set(b, "1.241", 1);    // nearer, but 124
  set(c, "1.2397", 25);  // nearest of all, but full
  set(d, "1.2301", 24);  // 123, farther than a

  const std::int32_t first = Add(kProbe);
  std::vector<ChunkRow> rows = ChunkRowsOf(connection_, first);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_NEAR(rows[0].fftRms, kProbeFingerprint, kStoredPrecision);
  EXPECT_EQ(rows[0].compositeId, a);
  EXPECT_EQ(rows[0].ordinal, 2);
  EXPECT_EQ(rows[0].start, 2);
  EXPECT_EQ(rows[0].length, 184);
  // The new mean comes from the chunk rows, not from the composite's value.
  EXPECT_NEAR(Composite(a).fftRms, (10.0 / 256 + kProbeFingerprint) / 2, kStoredPrecision);
  EXPECT_EQ(Composite(a).chunks, 2);

  // a has left bucket 123; d, with 24 chunks, is still open.
  rows = ChunkRowsOf(connection_, Add(kProbe));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].compositeId, d);
  EXPECT_EQ(Composite(d).chunks, 25);

  // Now every composite of bucket 123 is full: a new one.
  rows = ChunkRowsOf(connection_, Add(kProbe));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(CountRows(connection_, "composite"), 5);
  EXPECT_EQ(rows[0].ordinal, 1);
  EXPECT_EQ(rows[0].start, 1);
  EXPECT_NEAR(Composite(rows[0].compositeId).fftRms, kProbeFingerprint, kStoredPrecision);
}

TEST_P(FileStore, FailureMidwayLeavesNothingBehind) {
  const std::int32_t base = Add(std::string(4096, 'y'));
  ASSERT_GT(base, 0);
  Sql(GetParam().refuseChunksOf1234);
  const std::vector<CompositeRow> composites = CompositeRows(connection_);
  const std::vector<ChunkRow> chunks = ChunkRows(connection_);

  // The first chunk joins base's composite, the second makes a new one, the
  // third is refused.
  const std::string refused =
      std::string(4096, 'y') + RandomBytes(4, 4096) + std::string(1234, 'z');
  EXPECT_EQ(Add(refused), -1);
  EXPECT_EQ(CompositeRows(connection_), composites);
  EXPECT_EQ(ChunkRows(connection_), chunks);
  EXPECT_EQ(CountRows(connection_, "file"), 1);

  const std::int32_t next = Add(std::string(4096, 'y'));
  ASSERT_GT(next, 0);
  const std::vector<ChunkRow> rows = ChunkRowsOf(connection_, next);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].ordinal, 2);
  EXPECT_EQ(rows[0].start, 4097);
}

TEST_P(FileStore, DeferredCompressionCommitsTheSameRowsAndBytes) {
  const std::vector<std::string> files = {RealFile("/usr/share/common-licenses/GPL-3"),
                                          std::string(7 * 4096 + 5, 'x'),
                                          RandomBytes(5, 3 * 4096),
                                          RealFile("/usr/share/common-licenses/GFDL-1.3"),
                                          RealFile("/usr/share/common-licenses/GPL-3"),
                                          RealFile("/usr/share/common-licenses/GPL-2")};
  std::unique_ptr<StoreDatabase> eager = GetParam().make();
  std::unique_ptr<StoreDatabase> spilling = GetParam().make();
  StoreOptions everyAppend;
  everyAppend.deferCompression = false;
  StoreOptions smallMemory;
  smallMemory.deferredBytesLimit = 20000;
  for (const std::string& bytes : files) {
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto size = static_cast<std::int32_t>(bytes.size());
    const std::int32_t id = Add(bytes);
    std::string error;
    EXPECT_EQ(StoreFile(eager->Connection(), data, size, everyAppend, &error), id) << error;
    EXPECT_EQ(StoreFile(spilling->Connection(), data, size, smallMemory, &error), id) << error;
  }
  const std::vector<CompositeRow> composites = CompositeRows(connection_);
  ASSERT_GT(composites.size(), 5u);
  ASSERT_LT(composites.size(), ChunkRows(connection_).size());  // some were shared
  EXPECT_TRUE(CompositeRows(eager->Connection()) == composites);
  EXPECT_TRUE(CompositeRows(spilling->Connection()) == composites);
  EXPECT_EQ(ChunkRows(eager->Connection()), ChunkRows(connection_));
  EXPECT_EQ(ChunkRows(spilling->Connection()), ChunkRows(connection_));
}

TEST_P(FileStore, ContinuedCompressionCommitsTheSameRowsAndBytes) {
  // Files stored with a cache that outlives the calls, interleaved with a
  // writer that has none (its updates must not be continued from stale
  // state) and with a file that fails and rolls back, against the same
  // sequence stored with compression after every append.
  const std::string gpl3 = RealFile("/usr/share/common-licenses/GPL-3");
  const std::vector<std::string> files = {gpl3,
                                          RealFile("/usr/share/common-licenses/GFDL-1.3"),
                                          gpl3.substr(0, 6 * 4096 + 100),
                                          gpl3.substr(3 * 4096) + gpl3,
                                          gpl3.substr(0, 2 * 4096 + 1234),  // refused
                                          RandomBytes(11, 5 * 4096),
                                          RealFile("/usr/share/common-licenses/GPL-2"),
                                          gpl3,
                                          RealFile("/usr/share/common-licenses/LGPL-2.1"),
                                          gpl3.substr(17)};
  std::unique_ptr<StoreDatabase> eager = GetParam().make();
  StoreOptions everyAppend;
  everyAppend.deferCompression = false;
  zelvarpack::store::CompositeCache cache;
  StoreOptions cached;
  cached.cache = &cache;
  const StoreOptions uncached;
  std::int32_t last = -1;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (i == 4) {  // the tables exist now
      ASSERT_EQ(ExecuteSql(eager->Connection(), GetParam().refuseChunksOf1234), "");
      Sql(GetParam().refuseChunksOf1234);
    }
    const auto* data = reinterpret_cast<const unsigned char*>(files[i].data());
    const auto size = static_cast<std::int32_t>(files[i].size());
    std::string error;
    const std::int32_t expected = StoreFile(eager->Connection(), data, size, everyAppend, &error);
    last = StoreFile(connection_, data, size, i % 3 == 2 ? uncached : cached, &error);
    EXPECT_EQ(last, expected) << i << ": " << error;
    EXPECT_EQ(expected < 0, i == 4);
  }
  EXPECT_GT(cache.size(), 0u);
  const std::vector<CompositeRow> composites = CompositeRows(connection_);
  ASSERT_LT(composites.size(), ChunkRows(connection_).size());  // some were shared
  EXPECT_TRUE(CompositeRows(eager->Connection()) == composites);
  EXPECT_EQ(ChunkRows(eager->Connection()), ChunkRows(connection_));
  EXPECT_EQ(Read(last), files.back());
}

TEST_P(FileStore, ContinuedCompressionThroughFullCompositesCommitsTheSameRowsAndBytes) {
  // The same texts again and again, cut at other places, until composites
  // fill up and new ones open: continued streams (kept for composites that
  // can still grow, none for full ones) across many files and within one
  // (a small deferral limit writes composites early and touches them again).
  const std::string gpl3 = RealFile("/usr/share/common-licenses/GPL-3");
  const std::string gpl2 = RealFile("/usr/share/common-licenses/GPL-2");
  std::vector<std::string> files;
  for (std::size_t i = 0; i < 14; ++i) {
    files.push_back(i % 4 == 3 ? gpl2.substr(i * 97) : gpl3.substr(i * 131));
    // Runs whose chunks all share one fingerprint: 25 fill a composite.
    if (i % 4 == 1) files.push_back(gpl3.substr(i * 1000, 3000) + std::string(9 * 4096, 'z'));
  }
  files.push_back(gpl3 + gpl2 + gpl3);
  std::unique_ptr<StoreDatabase> eager = GetParam().make();
  StoreOptions everyAppend;
  everyAppend.deferCompression = false;
  zelvarpack::store::CompositeCache cache;
  StoreOptions cached;
  cached.cache = &cache;
  StoreOptions spilling = cached;
  spilling.deferredBytesLimit = 30000;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto* data = reinterpret_cast<const unsigned char*>(files[i].data());
    const auto size = static_cast<std::int32_t>(files[i].size());
    std::string error;
    const std::int32_t expected = StoreFile(eager->Connection(), data, size, everyAppend, &error);
    ASSERT_GT(expected, 0) << error;
    EXPECT_EQ(StoreFile(connection_, data, size, i % 5 == 4 ? spilling : cached, &error), expected)
        << i << ": " << error;
  }
  const std::vector<CompositeRow> composites = CompositeRows(connection_);
  std::size_t full = 0;
  for (const CompositeRow& row : composites) full += row.chunks == 25 ? 1 : 0;
  EXPECT_GT(full, 0u);
  EXPECT_LT(full, composites.size());
  EXPECT_GT(cache.size(), 0u);
  EXPECT_TRUE(CompositeRows(eager->Connection()) == composites);
  EXPECT_EQ(ChunkRows(eager->Connection()), ChunkRows(connection_));
  EXPECT_EQ(Read(static_cast<std::int32_t>(files.size())), files.back());
}

TEST_P(FileStore, LookAheadCommitsTheSameRowsAndBytes) {
  // Each call names the next file, whose composites are compressed ahead
  // from a guess at the database's search; the rows must be those of
  // compressing after every append whatever the guess was worth: a clean
  // run (every guess right), a call naming another file than the one that
  // follows, a writer without the look-ahead appending behind its back to
  // the composites it guessed, a file that is refused and rolled back, and
  // a named file whose bytes change, in place, before it is stored.
  const std::string gpl3 = RealFile("/usr/share/common-licenses/GPL-3");
  const std::string gpl2 = RealFile("/usr/share/common-licenses/GPL-2");
  std::vector<std::string> files;
  for (std::size_t i = 0; i < 12; ++i) {
    files.push_back(i % 3 == 2 ? gpl2.substr(i * 211) : gpl3.substr(i * 131));
    if (i % 4 == 1) files.push_back(gpl3.substr(i * 1000, 3000) + std::string(9 * 4096, 'z'));
  }
  const std::size_t clean = files.size();
  files.push_back(RealFile("/usr/share/common-licenses/LGPL-2.1"));
  files.push_back(gpl3.substr(0, 2 * 4096 + 1234));  // refused
  files.push_back(gpl3.substr(20000));
  files.push_back(gpl2);
  files.push_back(gpl3.substr(5 * 4096 + 7));
  files.push_back(gpl2.substr(99));
  const std::size_t refused = clean + 1;
  const std::size_t misnamed = clean + 2;   // names a file that does not follow
  const std::size_t overtaken = clean + 3;  // another writer stores the next file first
  const std::size_t changed = clean + 4;    // names a buffer that then changes
  std::string buffer(files[changed + 1].size(), 'q');

  std::unique_ptr<StoreDatabase> eager = GetParam().make();
  StoreOptions everyAppend;
  everyAppend.deferCompression = false;
  zelvarpack::store::CompositeCache cache;
  zelvarpack::store::LookAhead lookAhead;
  StoreOptions ahead;
  ahead.cache = &cache;
  ahead.lookAhead = &lookAhead;
  const StoreOptions plain;
  const auto bytesOf = [&](std::size_t i) {
    return reinterpret_cast<const unsigned char*>(i == changed + 1 ? buffer.data()
                                                                   : files[i].data());
  };
  const auto sizeOf = [&](std::size_t i) { return static_cast<std::int32_t>(files[i].size()); };
  std::string error;
  std::int32_t last = -1;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (i == clean) {
      // Every composite of every file after the first was guessed right.
      EXPECT_GT(lookAhead.used(), 20u);
      EXPECT_EQ(lookAhead.missed(), 0u);
      EXPECT_GT(lookAhead.known(), 0u);
    }
    if (i == refused) {
      ASSERT_EQ(ExecuteSql(eager->Connection(), GetParam().refuseChunksOf1234), "");
      Sql(GetParam().refuseChunksOf1234);
    }
    if (i == changed + 1) buffer.replace(0, buffer.size(), files[i]);  // same place
    if (i == overtaken + 1) {
      const std::int32_t expected =
          StoreFile(eager->Connection(), bytesOf(i), sizeOf(i), everyAppend, &error);
      ASSERT_EQ(StoreFile(connection_, bytesOf(i), sizeOf(i), plain, &error), expected) << error;
    }
    const std::size_t next = i == misnamed ? i + 2 : i + 1;
    ahead.nextBytes = next < files.size() ? bytesOf(next) : nullptr;
    ahead.nextCount = next < files.size() ? sizeOf(next) : 0;
    const std::int32_t expected =
        StoreFile(eager->Connection(), bytesOf(i), sizeOf(i), everyAppend, &error);
    EXPECT_EQ(expected < 0, i == refused);
    last = StoreFile(connection_, bytesOf(i), sizeOf(i), ahead, &error);
    EXPECT_EQ(last, expected) << i << ": " << error;
  }
  EXPECT_GT(lookAhead.missed(), 0u);  // the overtaken file's guesses
  const std::vector<CompositeRow> composites = CompositeRows(connection_);
  ASSERT_LT(composites.size(), ChunkRows(connection_).size());  // some were shared
  EXPECT_TRUE(CompositeRows(eager->Connection()) == composites);
  EXPECT_EQ(ChunkRows(eager->Connection()), ChunkRows(connection_));
  EXPECT_EQ(Read(last), files.back());
}

INSTANTIATE_TEST_SUITE_P(Engines, FileStore, ::testing::Values(kSqlite, kPostgres),
                         [](const ::testing::TestParamInfo<EngineCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(FileServer, UnreachableDatabaseGivesMinusOne) {
  std::string connection = "DRIVER=/nonexistent/driver.so;Database=x;";
  void* handle = CZelvarFileServer::Create(reinterpret_cast<unsigned char*>(connection.data()),
                                           static_cast<std::int32_t>(connection.size()));
  unsigned char byte = 'a';
  EXPECT_EQ(CZelvarFileServer::AddFile(handle, &byte, 1), -1);
  CZelvarFileServer::Destroy(handle);
  CZelvarFileServer::Destroy(nullptr);
}

// Two tool processes store overlapping real files into one PostgreSQL
// database at the same time; every file of both reads back intact.
TEST(FileStorePostgres, TwoProcessesAddAtOnce) {
  std::unique_ptr<StoreDatabase> db = NewPostgresDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  TempDir dir;
  std::vector<std::string> paths[2];
  std::vector<std::string> contents[2];
  const char* licenses[] = {"GPL-3", "GPL-2", "LGPL-2.1", "GFDL-1.3", "MPL-2.0", "Apache-2.0"};
  for (int p = 0; p < 2; ++p) {
    for (int i = 0; i < 6; ++i) {
      const std::string bytes =
          i % 2 == 0 ? RealFile(std::string("/usr/share/common-licenses/") + licenses[(i + p) % 6])
                     : RandomBytes(100 * p + i, 5000 + 3000 * i);
      paths[p].push_back(dir.File(std::to_string(p) + "_" + std::to_string(i)));
      WriteWholeFile(paths[p].back(), bytes);
      contents[p].push_back(bytes);
    }
  }
  ToolRun runs[2];
  std::thread tools[2];
  for (int p = 0; p < 2; ++p) {
    std::string args = "store add --db '" + db->Connection() + "'";
    for (const std::string& path : paths[p]) args += " '" + path + "'";
    tools[p] = std::thread([&runs, p, args] { runs[p] = RunTool(args, ToolErrors::kMerged); });
  }
  for (std::thread& tool : tools) tool.join();
  for (int p = 0; p < 2; ++p) {
    SCOPED_TRACE(p);
    ASSERT_EQ(runs[p].status, 0) << runs[p].out;
    std::istringstream ids(runs[p].out);
    for (const std::string& bytes : contents[p]) {
      std::int32_t id = 0;
      ASSERT_TRUE(ids >> id);
      std::vector<unsigned char> back;
      std::string error;
      ASSERT_TRUE(ReadStoredFile(db->Connection(), id, back, &error)) << error;
      EXPECT_TRUE(std::string(back.begin(), back.end()) == bytes) << "file " << id;
    }
  }
  EXPECT_EQ(CountRows(db->Connection(), "file"), 12);
}

TEST(FileStorePostgres, ADatabaseWithoutTheChunkFunctionGetsItBack) {
  // Tables made by an earlier version of the store, without the function.
  std::unique_ptr<StoreDatabase> db = NewPostgresDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  const std::string text = RealFile("/usr/share/common-licenses/GPL-3");
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const auto size = static_cast<std::int32_t>(text.size());
  std::string error;
  const std::int32_t first = StoreFile(db->Connection(), bytes, size, {}, &error);
  ASSERT_GT(first, 0) << error;
  ASSERT_EQ(ExecuteSql(db->Connection(), "DROP FUNCTION store_append_chunks"), "");
  const std::int32_t second = StoreFile(db->Connection(), bytes, size, {}, &error);
  ASSERT_GT(second, 0) << error;
  EXPECT_EQ(StoredBytes(db->Connection(), second), text);
  // The second copy's chunks joined the first's composites.
  EXPECT_EQ(ChunkRowsOf(db->Connection(), second)[0].compositeId,
            ChunkRowsOf(db->Connection(), first)[0].compositeId);
}

TEST(FileStoreSqlite, DatabasesNamedByPathSyncEveryCommit) {
  // A file reported stored must survive a crash: the write-ahead log is
  // synced at every commit (the driver's default syncs at checkpoints).
  if (zelvarpack::store::SqliteDriverPath().empty()) GTEST_SKIP() << "no SQLite ODBC driver";
  TempDir dir;
  zelvarpack::store::OdbcConnection db;
  ASSERT_TRUE(db.Connect(zelvarpack::store::SqliteConnectionString(dir.File("store.db")), true))
      << db.LastError();
  std::unique_ptr<zelvarpack::store::OdbcStatement> pragma = db.NewStatement();
  ASSERT_NE(pragma, nullptr);
  std::int32_t level = -1;
  ASSERT_TRUE(pragma->Prepare("PRAGMA synchronous") && pragma->Execute() &&
              zelvarpack::store::ReadOneInt32(pragma.get(), level))
      << db.LastError();
  EXPECT_EQ(level, 2);  // FULL
}

TEST(FileStorePostgres, ADatabaseWithAnEarlierChunkFunctionGetsTheCurrentOneBeside) {
  // Tables made by an earlier version of the store, whose chunk function
  // took other parameters (here one that must never run).
  std::unique_ptr<StoreDatabase> db = NewPostgresDatabase();
  if (db->Connection().empty()) GTEST_SKIP() << db->Why();
  const std::string text = RealFile("/usr/share/common-licenses/GPL-3");
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const auto size = static_cast<std::int32_t>(text.size());
  std::string error;
  ASSERT_GT(StoreFile(db->Connection(), bytes, size, {}, &error), 0) << error;
  ASSERT_EQ(ExecuteSql(db->Connection(), "DROP FUNCTION store_append_chunks"), "");
  ASSERT_EQ(ExecuteSql(db->Connection(),
                       "CREATE FUNCTION store_append_chunks(integer, double precision[], "
                       "integer[], integer[], integer[], bigint[]) RETURNS SETOF integer "
                       "LANGUAGE plpgsql AS $$ BEGIN RAISE EXCEPTION 'earlier'; END; $$"),
            "");
  const std::int32_t second = StoreFile(db->Connection(), bytes, size, {}, &error);
  ASSERT_GT(second, 0) << error;
  EXPECT_EQ(StoredBytes(db->Connection(), second), text);
  EXPECT_EQ(ChunkRowsOf(db->Connection(), second).size(), (text.size() + 4095) / 4096);
}

}  // namespace
