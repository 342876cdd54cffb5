#include "zelvarpack/zelvar_utils.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "core/file_lock.h"
#include "tests/temp_dir.h"

namespace {

std::string ReadAll(FILE* file) {
  std::string bytes;
  char chunk[256];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  return bytes;
}

TEST(OpenFile, MissingFileForReadingIsNull) {
  TempDir dir;
  EXPECT_EQ(CZelvarUtils::OpenFileForReading(dir.File("absent")), nullptr);
}

TEST(OpenFile, WriterTruncatesAndReadersShare) {
  TempDir dir;
  const std::string path = dir.File("entry");
  WriteWholeFile(path, "old content that is longer");
  FILE* writer = CZelvarUtils::OpenFileForWriting(path);
  ASSERT_NE(writer, nullptr);
  std::fputs("new", writer);
  std::fclose(writer);

  FILE* first = CZelvarUtils::OpenFileForReading(path);
  FILE* second = CZelvarUtils::OpenFileForReading(path);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(ReadAll(first), "new");
  EXPECT_EQ(ReadAll(second), "new");
  std::fclose(first);
  std::fclose(second);
}

// A reader in another process must wait while a writer holds the file, and
// then see the writer's whole content, never a part of it.
TEST(OpenFile, ReaderInAnotherProcessWaitsForWriter) {
  TempDir dir;
  const std::string path = dir.File("entry");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FILE* writer = CZelvarUtils::OpenFileForWriting(path);
    std::fputs("first half ", writer);
    std::fflush(writer);
    (void)!::write(ready[1], "x", 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    std::fputs("second half", writer);
    std::fclose(writer);
    ::_exit(0);
  }
  char signal;
  ASSERT_EQ(::read(ready[0], &signal, 1), 1);
  FILE* reader = CZelvarUtils::OpenFileForReading(path);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(ReadAll(reader), "first half second half");
  std::fclose(reader);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ::close(ready[0]);
  ::close(ready[1]);
}

// A new file gets its name only once the writer holds it: a reader that
// races the writer, opening the path the moment it appears, always waits and
// reads the whole content, never the empty file of a writer that has created
// the file but not yet locked it.
TEST(OpenFile, ReaderNeverSeesANewFileBeingWritten) {
  TempDir dir;
  for (int round = 0; round < 200; ++round) {
    const std::string path = dir.File("new" + std::to_string(round));
    std::atomic<bool> started{false};
    std::string seen;
    std::thread reader([&] {
      started = true;
      while (!zelvarpack::PathExists(path.c_str())) {
      }
      FILE* file = CZelvarUtils::OpenFileForReading(path);
      if (file == nullptr) return;
      seen = ReadAll(file);
      std::fclose(file);
    });
    while (!started.load()) {
    }
    FILE* writer = CZelvarUtils::OpenFileForWriting(path);
    ASSERT_NE(writer, nullptr);
    std::fputs("complete", writer);
    std::fclose(writer);
    reader.join();
    ASSERT_EQ(seen, "complete") << "round " << round;
  }
}

// Two writers creating the same new file one after the other both get it
// whole in turn; no temporary name is left behind in the folder.
TEST(OpenFile, WritersRacingForANewFileTakeTurns) {
  TempDir dir;
  const std::string path = dir.File("shared");
  auto write = [&](const char* text) {
    FILE* file = CZelvarUtils::OpenFileForWriting(path);
    std::fputs(text, file);
    std::fclose(file);
  };
  std::thread first([&] { write("first writer"); });
  std::thread second([&] { write("second writer"); });
  first.join();
  second.join();
  const std::string content = ReadWholeFile(path);
  EXPECT_TRUE(content == "first writer" || content == "second writer") << content;
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    ++entries;
  }
  EXPECT_EQ(entries, 1);
}

// A writer waits while a reader holds the file; the reader's bytes are never
// truncated under it.
TEST(OpenFile, WriterWaitsForReader) {
  TempDir dir;
  const std::string path = dir.File("entry");
  WriteWholeFile(path, "cached");
  FILE* reader = CZelvarUtils::OpenFileForReading(path);
  ASSERT_NE(reader, nullptr);
  std::atomic<bool> writerOpened{false};
  std::thread writer([&] {
    FILE* file = CZelvarUtils::OpenFileForWriting(path);
    writerOpened = true;
    std::fputs("replaced", file);
    std::fclose(file);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_FALSE(writerOpened.load());
  EXPECT_EQ(ReadAll(reader), "cached");
  std::fclose(reader);
  writer.join();
  EXPECT_TRUE(writerOpened.load());
  EXPECT_EQ(ReadWholeFile(path), "replaced");
}

}  // namespace
