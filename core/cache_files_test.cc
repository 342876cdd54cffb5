#include "core/cache_files.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/child_process.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

using zelvarpack::Publish;
using zelvarpack::PublishFile;

std::size_t CountEntries(const std::filesystem::path& folder) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    (void)entry;
    ++count;
  }
  return count;
}

TEST(PublishFile, ReplacesOrKeepsAndLeavesNoTemporaryFiles) {
  TempDir dir;
  const std::string path = dir.File("entry");
  EXPECT_TRUE(PublishFile(path, {"one", "\n", "two"}, Publish::kReplace));
  EXPECT_EQ(ReadWholeFile(path), "one\ntwo");
  EXPECT_TRUE(PublishFile(path, {"three"}, Publish::kReplace));
  EXPECT_EQ(ReadWholeFile(path), "three");
  EXPECT_TRUE(PublishFile(path, {"four"}, Publish::kKeepExisting));
  EXPECT_EQ(ReadWholeFile(path), "three");
  EXPECT_TRUE(PublishFile(dir.File("fresh"), {"five"}, Publish::kKeepExisting));
  EXPECT_EQ(ReadWholeFile(dir.File("fresh")), "five");
  EXPECT_EQ(CountEntries(dir.path()), 2u);
  EXPECT_FALSE(PublishFile(dir.File("missing/entry"), {"x"}, Publish::kReplace));
}

constexpr std::size_t kBigFileBytes = std::size_t{32} << 20;

// The killed writer of the test below, a second copy of this program:
// publishes `path` over and over after making "<path>.ready".
int PublishUntilKilled(const char* path) {
  const std::string content(kBigFileBytes, 'b');
  WriteWholeFile(std::string(path) + ".ready", "");
  for (int i = 0; i < 1000; ++i) PublishFile(path, {content}, Publish::kReplace);
  return 0;
}

const bool kIsPublishingChild = PlayChildPartIfAsked("ZP_PUBLISH_UNTIL_KILLED", PublishUntilKilled);

// A writer killed at any moment leaves no file or a whole one under the
// final name; the kill lands wherever it lands, and either outcome passes.
TEST(PublishFile, KilledWriterLeavesNoPartialFile) {
  ASSERT_FALSE(kIsPublishingChild);
  TempDir dir;
  const std::string path = dir.File("big");
  for (int round = 0; round < 4; ++round) {
    std::filesystem::remove(path);
    std::filesystem::remove(path + ".ready");
    ChildProcess child({{"ZP_PUBLISH_UNTIL_KILLED", path}});
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(WaitForPath(path + ".ready"));
    std::this_thread::sleep_for(std::chrono::milliseconds(round * 40));
    child.Kill();
    child.Wait();
    if (std::filesystem::exists(path)) {
      EXPECT_EQ(std::filesystem::file_size(path), kBigFileBytes);
    }
  }
}

// Replacing a file that a reader holds open: the reader keeps reading the
// whole old content, and the new content is under the name once the reader
// is done. (POSIX renames over the open file at once; Windows refuses to
// replace an open file, and the publisher waits for the reader.)
TEST(PublishFile, ReplacingAFileBeingReadLeavesTheReaderItsContent) {
  TempDir dir;
  const std::string path = dir.File("entry");
  const std::string old(200000, 'o');
  ASSERT_TRUE(PublishFile(path, {old}, Publish::kReplace));
  FILE* reader = CZelvarUtils::OpenFileForReading(path);
  ASSERT_NE(reader, nullptr);
  std::atomic<bool> readerDone{false};
  bool published = false;
  bool publishedAfterReader = false;
  std::thread publisher([&] {
    published = PublishFile(path, {"new"}, Publish::kReplace);
    publishedAfterReader = readerDone.load();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  std::string seen;
  char chunk[4096];
  for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, reader)) > 0;) {
    seen.append(chunk, got);
  }
  readerDone = true;
  std::fclose(reader);
  publisher.join();
  EXPECT_EQ(seen, old);
  EXPECT_TRUE(published);
  EXPECT_EQ(ReadWholeFile(path), "new");
#ifdef _WIN32
  EXPECT_TRUE(publishedAfterReader);
#else
  (void)publishedAfterReader;
#endif
  EXPECT_EQ(CountEntries(dir.path()), 1u) << "no temporary file is left behind";
}

TEST(ReadCacheFile, ReadsWholeFilesWithinTheLimit) {
  TempDir dir;
  WriteWholeFile(dir.File("f"), "0123456789");
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("f"), 10)->GetValueLength(), 10);
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("f"), 9), nullptr);
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("absent"), 10), nullptr);
}

}  // namespace
