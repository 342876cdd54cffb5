#include "core/cache_files.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/temp_dir.h"

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

// A writer killed at any moment leaves no file or a whole one under the
// final name; the kill lands wherever it lands, and either outcome passes.
TEST(PublishFile, KilledWriterLeavesNoPartialFile) {
  TempDir dir;
  const std::string path = dir.File("big");
  const std::string content(32 << 20, 'b');
  for (int round = 0; round < 4; ++round) {
    std::filesystem::remove(path);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      (void)!::write(ready[1], "r", 1);
      for (int i = 0; i < 1000; ++i) PublishFile(path, {content}, Publish::kReplace);
      ::_exit(0);
    }
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    for (int spin = 0; spin < round * 200000; ++spin) {
      asm volatile("" ::: "memory");
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
    if (std::filesystem::exists(path)) {
      EXPECT_EQ(std::filesystem::file_size(path), content.size());
    }
  }
}

TEST(ReadCacheFile, ReadsWholeFilesWithinTheLimit) {
  TempDir dir;
  WriteWholeFile(dir.File("f"), "0123456789");
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("f"), 10)->GetValueLength(), 10);
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("f"), 9), nullptr);
  EXPECT_EQ(zelvarpack::ReadCacheFile(dir.File("absent"), 10), nullptr);
}

}  // namespace
