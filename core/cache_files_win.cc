// Windows side of the cache files' reading and publishing (see
// core/cache_files.h). A temporary file is written beside the final name
// and moved into place with MoveFileEx, which replaces in one step.
//
// Windows refuses to replace a file that a reader holds open (the readers'
// _SH_DENYWR open does not share deletion), so a replacing move that meets a
// reader waits 100 ms and tries again, like every other open of a cache file.
// A write-once move never replaces: an existing name means the work is done.
#include <direct.h>
#include <windows.h>

#include <cstdio>
#include <string>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/random_source.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack {

namespace {

constexpr DWORD kRetryMilliseconds = 100;

// A new, exclusively created temporary file beside `path`, shared with no
// one while it is written.
HANDLE CreateTemporary(const std::string& path, std::string& name) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (int attempt = 0; attempt < 8; ++attempt) {
    unsigned char random[8];
    FillRandom(random, sizeof random);
    name = path + ".tmp.";
    for (const unsigned char b : random) {
      name += kHex[b >> 4];
      name += kHex[b & 0xF];
    }
    const HANDLE file = ::CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE || ::GetLastError() != ERROR_FILE_EXISTS) return file;
  }
  return INVALID_HANDLE_VALUE;
}

bool WriteAll(HANDLE file, std::string_view bytes) {
  while (!bytes.empty()) {
    const DWORD piece = bytes.size() > 0x40000000u ? 0x40000000u : static_cast<DWORD>(bytes.size());
    DWORD written = 0;
    if (!::WriteFile(file, bytes.data(), piece, &written, nullptr) || written == 0) return false;
    bytes.remove_prefix(written);
  }
  return true;
}

// True while `path` names a plain file that can be written: then a failed
// replacing move is someone holding it open, worth waiting for. A folder or
// a read-only file under the name would refuse the move for ever.
bool ReplaceableFile(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES &&
         (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) == 0;
}

bool MoveReplacing(const std::string& from, const std::string& to) {
  for (;;) {
    if (::MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return true;
    const DWORD error = ::GetLastError();
    const bool held = error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION ||
                      (error == ERROR_ACCESS_DENIED && ReplaceableFile(to));
    if (!held) return false;
    ::Sleep(kRetryMilliseconds);
  }
}

}  // namespace

void EnsureFolder(const std::string& path) {
  if (!PathExists(path.c_str())) ::_mkdir(path.c_str());
}

std::unique_ptr<CZelvarBuffer> ReadCacheFile(const std::string& path, std::size_t maxBytes) {
  FILE* file = CZelvarUtils::OpenFileForReading(path);
  if (file == nullptr) return nullptr;
  auto bytes = std::make_unique<CZelvarBuffer>();
  unsigned char chunk[65536];
  bool ok = true;
  for (;;) {
    const std::size_t got = std::fread(chunk, 1, sizeof chunk, file);
    if (got == 0) {
      ok = std::ferror(file) == 0;
      break;
    }
    if (got > maxBytes - static_cast<std::size_t>(bytes->GetValueLength())) {
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
  const HANDLE file = CreateTemporary(path, temporary);
  if (file == INVALID_HANDLE_VALUE) return false;
  bool ok = true;
  for (const std::string_view piece : pieces) {
    if (!WriteAll(file, piece)) {
      ok = false;
      break;
    }
  }
  ok = ::CloseHandle(file) && ok;
  if (ok) {
    if (mode == Publish::kReplace) {
      ok = MoveReplacing(temporary, path);
    } else if (!::MoveFileExA(temporary.c_str(), path.c_str(), 0)) {
      // Without the replace flag the move fails when the name is taken: the
      // first whole file under it stays.
      const DWORD error = ::GetLastError();
      ok = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS;
    }
  }
  if (!ok || mode == Publish::kKeepExisting) ::DeleteFileA(temporary.c_str());
  return ok;
}

}  // namespace zelvarpack
