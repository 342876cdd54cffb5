#include "core/gzip_twin.h"

#include <cstdint>
#include <limits>
#include <string_view>

#include "core/cache_files.h"
#include "core/file_lock.h"
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
