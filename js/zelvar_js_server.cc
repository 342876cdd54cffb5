#include "zelvarpack/zelvar_js_server.h"

#include <cstddef>

#include "core/gzip_twin.h"
#include "core/identifiers.h"

CZelvarJSServer::CZelvarJSServer(char* cachePath)
    : cachePath_(cachePath != nullptr ? cachePath : "") {}

CZelvarJSServer::~CZelvarJSServer() = default;

std::string CZelvarJSServer::Store() {
  const std::string id =
      ContentId(content_.GetValue(), static_cast<std::size_t>(content_.GetValueLength()));
  zelvarpack::StoreWithGzipTwin(cachePath_ + "/js", id, content_.GetValue(),
                                static_cast<std::size_t>(content_.GetValueLength()));
  return id;
}

CZelvarBuffer* CZelvarJSServer::GetRawId(std::string id, bool& wasGzip) {
  if (!IsGuidShaped(id)) return nullptr;
  return zelvarpack::ChooseServedBody(zelvarpack::ReadWithGzipTwin(cachePath_ + "/js/" + id),
                                      wasGzip, wasGzip_);
}
