// A fresh folder under the system's temporary folder, removed with its
// contents when the test ends. Each test gets its own, so CTest can run tests
// in parallel.
#ifndef ZELVARPACK_TESTS_TEMP_DIR_H_
#define ZELVARPACK_TESTS_TEMP_DIR_H_

#include <filesystem>
#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Whole contents of a file, or "" when it cannot be read.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& bytes);

#endif  // ZELVARPACK_TESTS_TEMP_DIR_H_
