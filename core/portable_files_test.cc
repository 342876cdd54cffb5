#include "core/portable_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/temp_dir.h"

namespace {

using zelvarpack::IsFolder;
using zelvarpack::LinkFile;
using zelvarpack::MakeFolder;
using zelvarpack::OpenDescriptor;
using zelvarpack::PathExists;
using zelvarpack::ReadAt;
using zelvarpack::RenameReplacing;

// Bytes that a text-mode descriptor would change (CR/LF, ^Z) or stop at.
const std::string kAwkwardBytes(
    "a\nb\r\nc\x1a"
    "d\0e\n",
    11);

void WriteThrough(int fd, const std::string& bytes) {
  ASSERT_EQ(::write(fd, bytes.data(), static_cast<unsigned>(bytes.size())),
            static_cast<int>(bytes.size()));
}

TEST(PortableFiles, DescriptorsAreBinaryAndCreationIsExclusive) {
  TempDir dir;
  const std::string path = dir.File("bytes");
  int fd = OpenDescriptor(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(fd, 0);
  WriteThrough(fd, kAwkwardBytes);
  ::close(fd);
  EXPECT_EQ(ReadWholeFile(path), kAwkwardBytes) << "written without translation";

  fd = OpenDescriptor(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char back[64];
  EXPECT_EQ(::read(fd, back, sizeof back), static_cast<int>(kAwkwardBytes.size()))
      << "read without translation, past ^Z";
  ::close(fd);

  errno = 0;
  EXPECT_LT(OpenDescriptor(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644), 0);
  EXPECT_EQ(errno, EEXIST);
  errno = 0;
  EXPECT_LT(OpenDescriptor(dir.File("missing").c_str(), O_RDONLY), 0);
  EXPECT_EQ(errno, ENOENT);

  // O_TRUNC empties, O_CREAT alone keeps.
  fd = OpenDescriptor(path.c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ::close(fd);
  EXPECT_EQ(ReadWholeFile(path), kAwkwardBytes);
  fd = OpenDescriptor(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ::close(fd);
  EXPECT_EQ(ReadWholeFile(path), "");
}

TEST(PortableFiles, RenameReplacesAnExistingFileEvenWhileTheSourceIsOpen) {
  TempDir dir;
  const std::string target = dir.File("published");
  WriteWholeFile(target, "old");
  const std::string temporary = dir.File("published.tmp");
  const int fd = OpenDescriptor(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(fd, 0);
  WriteThrough(fd, "new");
  // Published while still open, as the media output files are; writing goes
  // on into the published file.
  ASSERT_TRUE(RenameReplacing(temporary, target));
  WriteThrough(fd, "er");
  ::close(fd);
  EXPECT_EQ(ReadWholeFile(target), "newer");
  EXPECT_FALSE(PathExists(temporary));
  EXPECT_FALSE(RenameReplacing(dir.File("missing"), target));
  EXPECT_EQ(ReadWholeFile(target), "newer");
}

TEST(PortableFiles, LinkNeverReplacesAndFoldersAreTold) {
  TempDir dir;
  const std::string first = dir.File("first");
  const std::string second = dir.File("second");
  WriteWholeFile(first, "one");
  WriteWholeFile(second, "two");
  errno = 0;
  EXPECT_FALSE(LinkFile(first, second));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(ReadWholeFile(second), "two");
  const std::string third = dir.File("third");
  if (LinkFile(first, third)) {
    EXPECT_EQ(ReadWholeFile(third), "one");
  } else {
    EXPECT_NE(errno, EEXIST) << "no hard links here, which is not 'exists'";
  }

  const std::string folder = dir.File("sub");
  EXPECT_FALSE(PathExists(folder));
  EXPECT_TRUE(MakeFolder(folder));
  EXPECT_FALSE(MakeFolder(folder)) << "already there";
  EXPECT_TRUE(IsFolder(folder));
  EXPECT_TRUE(PathExists(folder));
  EXPECT_FALSE(IsFolder(first));
  EXPECT_TRUE(PathExists(first));
}

TEST(PortableFiles, ReadAtReadsItsOwnOffsetFromAnyThread) {
  TempDir dir;
  const std::string path = dir.File("numbers");
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>(i * 7 % 251);
  WriteWholeFile(path, bytes);
  const int fd = OpenDescriptor(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);

  char one[16];
  EXPECT_EQ(ReadAt(fd, one, sizeof one, 4090), 6) << "short at the end";
  EXPECT_EQ(std::string(one, 6), bytes.substr(4090));
  EXPECT_EQ(ReadAt(fd, one, sizeof one, 4096), 0) << "end of file";
  EXPECT_EQ(ReadAt(fd, one, sizeof one, 1 << 20), 0) << "past the end";

  std::vector<std::thread> readers;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      char chunk[64];
      for (int round = 0; round < 200; ++round) {
        const std::uint64_t at = static_cast<std::uint64_t>((t * 977 + round * 61) % 4000);
        if (ReadAt(fd, chunk, sizeof chunk, at) != 64 ||
            std::string(chunk, 64) != bytes.substr(at, 64)) {
          ++wrong[t];
        }
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(wrong[t], 0) << "thread " << t;
  ::close(fd);
}

}  // namespace
