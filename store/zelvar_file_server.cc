#include "zelvarpack/zelvar_file_server.h"

#include <string>

#include "store/file_store.h"
#include "store/session_pool.h"

namespace {

// What a handle owns: the connection string, NUL-terminated, what it
// remembers of the composites its calls committed (see CompositeCache) and
// the sessions its calls left open (see SessionPool).
struct FileServerHandle {
  std::string connection;
  zelvarpack::store::CompositeCache cache;
  zelvarpack::store::SessionPool sessions;
};

}  // namespace

void* CZelvarFileServer::Create(unsigned char* connectionString, std::int32_t length) {
  auto* handle = new FileServerHandle;
  if (connectionString != nullptr && length > 0) {
    handle->connection.assign(reinterpret_cast<const char*>(connectionString),
                              static_cast<std::size_t>(length));
  }
  return handle;
}

std::int32_t CZelvarFileServer::AddFile(void* handle, unsigned char* bytes, std::int32_t length) {
  if (handle == nullptr) return -1;
  try {
    auto* server = static_cast<FileServerHandle*>(handle);
    zelvarpack::store::StoreOptions options;
    options.cache = &server->cache;
    options.sessions = &server->sessions;
    return zelvarpack::store::StoreFile(server->connection, bytes, length, options);
  } catch (...) {
    return -1;
  }
}

void CZelvarFileServer::Destroy(void* handle) { delete static_cast<FileServerHandle*>(handle); }

bool CZelvarFileServer::UpdateFile(std::int32_t, unsigned char*, std::int32_t) { return true; }

bool CZelvarFileServer::DeleteFileW(std::int32_t) { return true; }

unsigned char* CZelvarFileServer::RetrieveFileData(std::int32_t) { return nullptr; }

std::int32_t CZelvarFileServer::RetrieveFileLength() { return 0; }
