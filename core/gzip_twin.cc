#include "core/gzip_twin.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/identifiers.h"
#include "net/zlib_codec.h"

namespace zelvarpack {

namespace {

constexpr std::size_t kAnySize = std::numeric_limits<std::int32_t>::max();

}  // namespace

void StoreWithGzipTwin(const std::string& folder, const std::string& id, const unsigned char* bytes,
                       std::size_t length) {
  const std::string path = folder + "/" + id;
  if (PathExists(path.c_str())) return;
  EnsureFolder(folder);
  const std::unique_ptr<CZelvarBuffer> gzip = net::Compress(bytes, length, net::ZlibFormat::kGzip);
  const std::string_view compressed(reinterpret_cast<const char*>(gzip->GetValue()),
                                    static_cast<std::size_t>(gzip->GetValueLength()));
  if (PublishFile(path + ".g", {compressed}, Publish::kKeepExisting)) {
    PublishFile(path, {std::string_view(reinterpret_cast<const char*>(bytes), length)},
                Publish::kKeepExisting);
  }
}

namespace {

bool HoldsExactly(const std::string& path, const unsigned char* bytes, std::size_t length) {
  const std::unique_ptr<CZelvarBuffer> stored = ReadCacheFile(path, kAnySize);
  return stored && static_cast<std::size_t>(stored->GetValueLength()) == length &&
         (length == 0 || std::memcmp(stored->GetValue(), bytes, length) == 0);
}

void PublishTwin(const std::string& path, const unsigned char* bytes, std::size_t length,
                 Publish mode) {
  const std::unique_ptr<CZelvarBuffer> gzip = net::Compress(bytes, length, net::ZlibFormat::kGzip);
  PublishFile(path + ".g",
              {std::string_view(reinterpret_cast<const char*>(gzip->GetValue()),
                                static_cast<std::size_t>(gzip->GetValueLength()))},
              mode);
}

}  // namespace

std::string ContentIdCandidate(std::int32_t hash, int attempt) {
  const std::uint32_t step = 0x9E3779B9u * static_cast<std::uint32_t>(attempt);
  return IdFromNumber(static_cast<std::int32_t>(static_cast<std::uint32_t>(hash) + step));
}

std::string StoreContentWithGzipTwin(const std::string& folder, std::int32_t hash,
                                     const unsigned char* bytes, std::size_t length) {
  bool folderMade = false;
  for (int attempt = 0; attempt < kContentIdCandidates; ++attempt) {
    const std::string id = ContentIdCandidate(hash, attempt);
    const std::string path = folder + "/" + id;
    if (PathExists(path.c_str())) {
      if (!HoldsExactly(path, bytes, length)) continue;
      if (!PathExists((path + ".g").c_str()))
        PublishTwin(path, bytes, length, Publish::kKeepExisting);
      return id;
    }
    if (!folderMade) {
      EnsureFolder(folder);
      folderMade = true;
    }
    const std::string_view plain(reinterpret_cast<const char*>(bytes), length);
    if (!PublishFile(path, {plain}, Publish::kKeepExisting)) return {};
    if (!HoldsExactly(path, bytes, length)) continue;  // another's bytes won the name
    // The plain file is ours: a twin left by a writer of other bytes that
    // crashed before its plain file is replaced.
    PublishTwin(path, bytes, length, Publish::kReplace);
    return id;
  }
  return {};
}

PlainAndGzip ReadWithGzipTwin(const std::string& path) {
  PlainAndGzip pair;
  pair.plain = ReadCacheFile(path, kAnySize);
  pair.gzip = ReadCacheFile(path + ".g", kAnySize);
  return pair;
}

CZelvarBuffer* ChooseServedBody(PlainAndGzip pair, bool& acceptsGzip, bool& servedGzip) {
  if (!pair.plain || !acceptsGzip) {
    if (pair.gzip) acceptsGzip = false;
    return pair.plain.release();
  }
  if (!pair.gzip) return pair.plain.release();
  if (pair.gzip->GetValueLength() == 0 ||
      pair.gzip->GetValueLength() >= pair.plain->GetValueLength()) {
    acceptsGzip = false;
    return pair.plain.release();
  }
  servedGzip = true;
  return pair.gzip.release();
}

}  // namespace zelvarpack
