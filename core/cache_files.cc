#include "core/cache_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/portable_files.h"
#include "core/random_source.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack {

namespace {

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A new, exclusively created temporary file beside `path`.
int CreateTemporary(const std::string& path, std::string& name) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (int attempt = 0; attempt < 8; ++attempt) {
    unsigned char random[8];
    FillRandom(random, sizeof random);
    name = path + ".tmp.";
    for (const unsigned char b : random) {
      name += kHex[b >> 4];
      name += kHex[b & 0xF];
    }
    const int fd = OpenDescriptor(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

}  // namespace

void EnsureFolder(const std::string& path) {
  if (!PathExists(path)) MakeFolder(path);
}

std::unique_ptr<CZelvarBuffer> ReadCacheFile(const std::string& path, std::size_t maxBytes) {
  FILE* file = CZelvarUtils::OpenFileForReading(path);
  if (file == nullptr) return nullptr;
  const int fd = ::fileno(file);
  auto bytes = std::make_unique<CZelvarBuffer>();
  unsigned char chunk[65536];
  bool ok = true;
  while (true) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ok = got == 0;
      break;
    }
    if (static_cast<std::size_t>(got) >
        maxBytes - static_cast<std::size_t>(bytes->GetValueLength())) {
      ok = false;
      break;
    }
    bytes->Append(chunk, static_cast<std::int32_t>(got));
  }
  std::fclose(file);
  if (!ok) return nullptr;
  return bytes;
}

bool PublishFile(const std::string& path, std::initializer_list<std::string_view> pieces,
                 Publish mode) {
  std::string temporary;
  const int fd = CreateTemporary(path, temporary);
  if (fd < 0) return false;
  bool ok = true;
  for (const std::string_view piece : pieces) {
    if (!WriteAll(fd, piece)) {
      ok = false;
      break;
    }
  }
  ok = ::close(fd) == 0 && ok;
  if (ok) {
    if (mode == Publish::kReplace) {
      ok = RenameReplacing(temporary, path);
    } else {
      // link() never replaces: the first whole file under the name stays. On
      // a file system without hard links, a rename when the name is free
      // comes close (two racing writers of equal content both succeed).
      if (!LinkFile(temporary, path) && errno != EEXIST) {
        ok = PathExists(path) || RenameReplacing(temporary, path);
      }
    }
  }
  if (!ok || mode == Publish::kKeepExisting) ::unlink(temporary.c_str());
  return ok;
}

}  // namespace zelvarpack
