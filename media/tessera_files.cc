#include "media/tessera_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/identifiers.h"
#include "media/media_io.h"

namespace zelvarpack {

TesseraFiles::~TesseraFiles() {
  for (const std::string& name : names_) ::unlink(PathOf(name).c_str());
}

std::uint32_t TesseraFiles::Start(std::string& name) {
  name = NewGuidString();
  names_.push_back(name);
  return nextRecord_++;
}

namespace {

// One record: the file's size, big-endian, then its bytes; the file is
// deleted once copied.
void CopyRecord(const std::string& path, OutputFile& data) {
  const int fd = OpenRetrying(path.c_str(), O_RDONLY);
  if (fd < 0) ThrowMediaError(kCouldNotOpenFile);
  struct stat info;
  if (::fstat(fd, &info) != 0) {
    CloseFile(fd);
    ThrowMediaError(kCouldNotOpenFile);
  }
  const auto size = static_cast<std::uint32_t>(info.st_size);
  const unsigned char length[4] = {
      static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
      static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
  data.Write(length, sizeof length);
  unsigned char chunk[4096];
  std::int64_t got;
  while ((got = ReadFully(fd, chunk, sizeof chunk)) > 0) {
    data.Write(chunk, static_cast<std::size_t>(got));
  }
  CloseFile(fd);
  if (got < 0) ThrowMediaError(kCouldNotOpenFile);
  ::unlink(path.c_str());
}

}  // namespace

void TesseraFiles::AppendRecords(OutputFile& data) {
  std::size_t copied = 0;
  try {
    for (; copied < names_.size(); ++copied) CopyRecord(PathOf(names_[copied]), data);
  } catch (...) {
    names_.erase(names_.begin(), names_.begin() + static_cast<std::ptrdiff_t>(copied));
    throw;
  }
  names_.clear();
}

}  // namespace zelvarpack
