#include "zelvarpack/zelvar_utils.h"

#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/file_lock.h"
#include "tests/temp_dir.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace {

std::string ReadAll(FILE* file) {
  std::string bytes;
  char chunk[256];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  return bytes;
}

// The tests below start this test program a second time as "the other
// process" of a file-sharing pair, on every platform the same way. The
// parent says what the child is to do through the environment:
// ZP_SHARING_ROLE (writer or reader), ZP_SHARING_PATH (the shared file),
// ZP_SHARING_READY (created once the child holds the file), ZP_SHARING_GO
// (created by the parent when the child may let go) and ZP_SHARING_OUT
// (where a reader child leaves the bytes it read). The child plays its part
// before any test runs and exits.

bool WaitForFile(const std::string& path) {
  for (int i = 0; i < 6000; ++i) {  // at most a minute: a lost parent must not hang us
    if (zelvarpack::PathExists(path.c_str())) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

int PlaySharingChild(const char* role) {
  const std::string path = std::getenv("ZP_SHARING_PATH");
  const std::string ready = std::getenv("ZP_SHARING_READY");
  const std::string go = std::getenv("ZP_SHARING_GO");
  if (std::string(role) == "writer") {
    FILE* writer = CZelvarUtils::OpenFileForWriting(path);
    std::fputs("first half ", writer);
    std::fflush(writer);
    WriteWholeFile(ready, "");
    if (!WaitForFile(go)) return 3;
    std::fputs("second half", writer);
    std::fclose(writer);
    return 0;
  }
  FILE* reader = CZelvarUtils::OpenFileForReading(path);
  if (reader == nullptr) return 2;
  WriteWholeFile(ready, "");
  if (!WaitForFile(go)) return 3;
  const std::string seen = ReadAll(reader);
  std::fclose(reader);
  WriteWholeFile(std::getenv("ZP_SHARING_OUT"), seen);
  return 0;
}

const bool kIsSharingChild = [] {
  const char* role = std::getenv("ZP_SHARING_ROLE");
  if (role == nullptr) return false;
  const int status = PlaySharingChild(role);
  std::fflush(nullptr);
  std::_Exit(status);
}();

// Another copy of this program playing `role` on `dir`'s files ("shared",
// "ready", "go", "out").
class SharingChild {
 public:
  SharingChild(const TempDir& dir, const char* role) {
    const std::pair<const char*, std::string> settings[] = {{"ZP_SHARING_ROLE", role},
                                                            {"ZP_SHARING_PATH", dir.File("shared")},
                                                            {"ZP_SHARING_READY", dir.File("ready")},
                                                            {"ZP_SHARING_GO", dir.File("go")},
                                                            {"ZP_SHARING_OUT", dir.File("out")}};
    for (const auto& [name, value] : settings) SetVariable(name, value.c_str());
#ifdef _WIN32
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (::CreateProcessW(self, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                         &startup, &process)) {
      ::CloseHandle(process.hThread);
      process_ = process.hProcess;
    }
#else
    char self[] = "/proc/self/exe";
    char* const arguments[] = {self, nullptr};
    if (::posix_spawn(&pid_, self, nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
#endif
    for (const auto& setting : settings) SetVariable(setting.first, nullptr);
  }

  bool Started() const {
#ifdef _WIN32
    return process_ != nullptr;
#else
    return pid_ > 0;
#endif
  }

  // The child's exit status, or -1.
  int Wait() {
#ifdef _WIN32
    DWORD status = static_cast<DWORD>(-1);
    if (::WaitForSingleObject(process_, INFINITE) != WAIT_OBJECT_0 ||
        !::GetExitCodeProcess(process_, &status)) {
      return -1;
    }
    ::CloseHandle(process_);
    process_ = nullptr;
    return static_cast<int>(status);
#else
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
  }

 private:
  static void SetVariable(const char* name, const char* value) {
#ifdef _WIN32
    ::_putenv_s(name, value == nullptr ? "" : value);
#else
    if (value == nullptr) {
      ::unsetenv(name);
    } else {
      ::setenv(name, value, 1);
    }
#endif
  }

#ifdef _WIN32
  HANDLE process_ = nullptr;
#else
  pid_t pid_ = -1;
#endif
};

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
  SharingChild child(dir, "writer");
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(WaitForFile(dir.File("ready")));
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
  SharingChild child(dir, "reader");
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(WaitForFile(dir.File("ready")));
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
