#include "zelvarpack/zelvar_js_server.h"

#include <cstddef>

#include "core/gzip_twin.h"
#include "core/identifiers.h"

CZelvarJSServer::CZelvarJSServer(char* cachePath)
    : cachePath_(cachePath != nullptr ? cachePath : "") {}

CZelvarJSServer::~CZelvarJSServer() = default;

std::string CZelvarJSServer::Store() {
  const std::size_t length = static_cast<std::size_t>(content_.GetValueLength());
  return zelvarpack::StoreContentWithGzipTwin(
      cachePath_ + "/js", CollateHash(content_.GetValue(), length), content_.GetValue(), length);
}

CZelvarBuffer* CZelvarJSServer::GetRawId(std::string id, bool& wasGzip) {
  if (!IsGuidShaped(id)) return nullptr;
  return zelvarpack::ChooseServedBody(zelvarpack::ReadWithGzipTwin(cachePath_ + "/js/" + id),
                                      wasGzip, wasGzip_);
}
