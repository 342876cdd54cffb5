#include "zelvarpack/zelvar_utils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/file_lock.h"
#include "tests/child_process.h"
#include "tests/temp_dir.h"

namespace {

std::string ReadAll(FILE* file) {
  std::string bytes;
  char chunk[256];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  return bytes;
}

// The other process of a file-sharing pair is a second copy of this test
// program (tests/child_process.h). ZP_SHARING_ROLE is "writer" or
// "reader"; the child works on the files of ZP_SHARING_DIR: "shared" (the
// file they share), "ready" (made once the child holds it), "go" (made by the
// parent when the child may let go) and "out" (what a reader child read).
int PlaySharingPart(const char* role) {
  const std::filesystem::path dir = std::getenv("ZP_SHARING_DIR");
  const std::string path = (dir / "shared").string();
  if (std::string(role) == "writer") {
    FILE* writer = CZelvarUtils::OpenFileForWriting(path);
    std::fputs("first half ", writer);
    std::fflush(writer);
    WriteWholeFile((dir / "ready").string(), "");
    if (!WaitForPath((dir / "go").string())) return 3;
    std::fputs("second half", writer);
    std::fclose(writer);
    return 0;
  }
  FILE* reader = CZelvarUtils::OpenFileForReading(path);
  if (reader == nullptr) return 2;
  WriteWholeFile((dir / "ready").string(), "");
  if (!WaitForPath((dir / "go").string())) return 3;
  const std::string seen = ReadAll(reader);
  std::fclose(reader);
  WriteWholeFile((dir / "out").string(), seen);
  return 0;
}

const bool kIsSharingChild = PlayChildPartIfAsked("ZP_SHARING_ROLE", PlaySharingPart);

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
  ASSERT_FALSE(kIsSharingChild);
  TempDir dir;
  ChildProcess child({{"ZP_SHARING_ROLE", "writer"}, {"ZP_SHARING_DIR", dir.path().string()}});
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(WaitForPath(dir.File("ready")));
  std::atomic<bool> released{false};
  bool openedAfterRelease = false;
  std::string seen;
  std::thread reader([&] {
    FILE* file = CZelvarUtils::OpenFileForReading(dir.File("shared"));
    openedAfterRelease = released.load();
    if (file == nullptr) return;
    seen = ReadAll(file);
    std::fclose(file);
  });
  // Long enough for the reader to have been refused a few times.
  std::this_thread::sleep_for(std::chrono::milliseconds(350));
  released = true;
  WriteWholeFile(dir.File("go"), "");
  reader.join();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(openedAfterRelease);
  EXPECT_EQ(seen, "first half second half");
}

// A writer waits while a reader in another process holds the file, and does
// not empty it under that reader.
TEST(OpenFile, WriterWaitsForReaderInAnotherProcess) {
  TempDir dir;
  WriteWholeFile(dir.File("shared"), "cached by an earlier writer");
  ChildProcess child({{"ZP_SHARING_ROLE", "reader"}, {"ZP_SHARING_DIR", dir.path().string()}});
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(WaitForPath(dir.File("ready")));
  std::atomic<bool> released{false};
  bool openedAfterRelease = false;
  std::thread writer([&] {
    FILE* file = CZelvarUtils::OpenFileForWriting(dir.File("shared"));
    openedAfterRelease = released.load();
    std::fputs("replaced", file);
    std::fclose(file);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(350));
  released = true;
  WriteWholeFile(dir.File("go"), "");
  writer.join();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(openedAfterRelease);
  EXPECT_EQ(ReadWholeFile(dir.File("out")), "cached by an earlier writer");
  EXPECT_EQ(ReadWholeFile(dir.File("shared")), "replaced");
}

// Readers that keep opening a file that a writer keeps rewriting, piece by
// piece, only ever see one whole version.
TEST(OpenFile, ReadersSeeOnlyWholeVersionsOfARewrittenFile) {
  TempDir dir;
  const std::string path = dir.File("entry");
  auto version = [](int n) {
    return "<" + std::to_string(n) + ":" +
           std::string(static_cast<std::size_t>(100 + n * 37), 'v') + ":" + std::to_string(n) + ">";
  };
  WriteWholeFile(path, version(0));
  constexpr int kVersions = 12;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int n = 1; n <= kVersions; ++n) {
      FILE* file = CZelvarUtils::OpenFileForWriting(path);
      const std::string text = version(n);
      const std::size_t half = text.size() / 2;
      std::fwrite(text.data(), 1, half, file);
      std::fflush(file);
      std::this_thread::sleep_for(std::chrono::milliseconds(15));
      std::fwrite(text.data() + half, 1, text.size() - half, file);
      std::fclose(file);
      std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
    done = true;
  });
  std::vector<std::string> torn[2];
  int reads[2] = {0, 0};
  std::thread readers[2];
  for (int r = 0; r < 2; ++r) {
    readers[r] = std::thread([&, r] {
      while (!done.load()) {
        FILE* file = CZelvarUtils::OpenFileForReading(path);
        if (file == nullptr) continue;
        const std::string seen = ReadAll(file);
        std::fclose(file);
        ++reads[r];
        bool whole = false;
        for (int n = 0; n <= kVersions && !whole; ++n) whole = seen == version(n);
        if (!whole) torn[r].push_back(seen);
      }
    });
  }
  writer.join();
  for (std::thread& reader : readers) reader.join();
  for (int r = 0; r < 2; ++r) {
    EXPECT_GT(reads[r], 0);
    EXPECT_TRUE(torn[r].empty()) << torn[r].front();
  }
  EXPECT_EQ(ReadWholeFile(path), version(kVersions));
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
