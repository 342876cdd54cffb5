#include "zelvarpack/zelvar_js_server.h"

#include <cstddef>
#include <limits>
#include <memory>
#include <string_view>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/identifiers.h"
#include "net/zlib_codec.h"

namespace {

constexpr std::size_t kAnySize = std::numeric_limits<std::int32_t>::max();

std::string_view Bytes(CZelvarBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.GetValue()),
          static_cast<std::size_t>(buffer.GetValueLength())};
}

}  // namespace

CZelvarJSServer::CZelvarJSServer(char* cachePath)
    : cachePath_(cachePath != nullptr ? cachePath : "") {}

CZelvarJSServer::~CZelvarJSServer() = default;

std::string CZelvarJSServer::Store() {
  const std::string id =
      ContentId(content_.GetValue(), static_cast<std::size_t>(content_.GetValueLength()));
  const std::string folder = cachePath_ + "/js";
  const std::string path = folder + "/" + id;
  if (zelvarpack::PathExists(path.c_str())) return id;
  zelvarpack::EnsureFolder(folder);
  const std::unique_ptr<CZelvarBuffer> gzip = zelvarpack::net::Compress(
      content_.GetValue(), static_cast<std::size_t>(content_.GetValueLength()),
      zelvarpack::net::ZlibFormat::kGzip);
  // The gzip twin goes first: the plain file is what marks the work done, so
  // once it exists its twin does too, even after a crash in between.
  using zelvarpack::Publish;
  if (zelvarpack::PublishFile(path + ".g", {Bytes(*gzip)}, Publish::kKeepExisting)) {
    zelvarpack::PublishFile(path, {Bytes(content_)}, Publish::kKeepExisting);
  }
  return id;
}

CZelvarBuffer* CZelvarJSServer::GetRawId(std::string id, bool& wasGzip) {
  if (!IsGuidShaped(id)) return nullptr;
  const std::string path = cachePath_ + "/js/" + id;
  std::unique_ptr<CZelvarBuffer> plain = zelvarpack::ReadCacheFile(path, kAnySize);
  std::unique_ptr<CZelvarBuffer> gzip = zelvarpack::ReadCacheFile(path + ".g", kAnySize);
  if (!plain || !wasGzip) {
    if (gzip) wasGzip = false;
    return plain.release();
  }
  if (!gzip) return plain.release();  // wasGzip stays as it came; the flag stays false
  if (gzip->GetValueLength() == 0 || gzip->GetValueLength() >= plain->GetValueLength()) {
    wasGzip = false;
    return plain.release();
  }
  wasGzip_ = true;
  return gzip.release();
}
