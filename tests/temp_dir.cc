// Test support shared by the suites (compiled into the test binary only).
#include "tests/temp_dir.h"

#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#if defined(_WIN32)

// No mkdtemp in the Windows C runtime: a random name, created exclusively
// (creation fails when the folder exists), tried until one is new.
TempDir::TempDir() {
  const std::filesystem::path base = std::filesystem::temp_directory_path();
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    char name[40];
    std::snprintf(name, sizeof name, "zelvarpack-test-%08x%08x", random(), random());
    std::error_code error;
    if (std::filesystem::create_directory(base / name, error) && !error) {
      path_ = base / name;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

#else

TempDir::TempDir() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "zelvarpack-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

#endif

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteWholeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}
