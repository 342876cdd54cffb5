// Windows side of the driver lookup. Wine's kernel32 carries two functions
// of its own that translate between Windows and host paths; their presence
// is how the library knows that ODBC32 leads to the host's driver manager.
// windows.h first: the ODBC headers build on its types.
#include <windows.h>
// (keeps the two blocks apart when includes are sorted)
#include <sql.h>
#include <sqlext.h>

#include <cwchar>
#include <string>
#include <vector>

#include "store/odbc_host.h"

namespace zelvarpack::store {

namespace {

using ToHostPath = char*(CDECL*)(const WCHAR*);
using ToWindowsPath = WCHAR*(CDECL*)(const char*);

// Both translations, or neither when this is not Wine. Their results are
// allocated on the process heap.
struct WinePaths {
  ToHostPath toHost = nullptr;
  ToWindowsPath toWindows = nullptr;
};

const WinePaths& Wine() {
  static const WinePaths paths = [] {
    WinePaths found;
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    if (kernel == nullptr) return found;
    auto host = ::GetProcAddress(kernel, "wine_get_unix_file_name");
    auto windows = ::GetProcAddress(kernel, "wine_get_dos_file_name");
    if (host == nullptr || windows == nullptr) return found;
    found.toHost = reinterpret_cast<ToHostPath>(reinterpret_cast<void*>(host));
    found.toWindows = reinterpret_cast<ToWindowsPath>(reinterpret_cast<void*>(windows));
    return found;
  }();
  return paths;
}

bool HostFileExists(const WinePaths& wine, const char* hostPath) {
  WCHAR* windowsPath = wine.toWindows(hostPath);
  if (windowsPath == nullptr) return false;
  const DWORD attributes = ::GetFileAttributesW(windowsPath);
  ::HeapFree(::GetProcessHeap(), 0, windowsPath);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// The first driver registered with the driver manager whose name starts
// with `prefix` (names are ASCII), or "".
std::string RegisteredDriver(const char* prefix) {
  SQLHENV environment = SQL_NULL_HENV;
  if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &environment))) return "";
  std::string found;
  if (SQL_SUCCEEDED(SQLSetEnvAttr(environment, SQL_ATTR_ODBC_VERSION,
                                  reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0))) {
    SQLWCHAR name[256];
    SQLWCHAR attributes[1024];
    SQLSMALLINT nameLength = 0;
    SQLSMALLINT attributesLength = 0;
    SQLUSMALLINT direction = SQL_FETCH_FIRST;
    const std::string wanted = prefix;
    while (found.empty() &&
           SQL_SUCCEEDED(SQLDriversW(environment, direction, name, 256, &nameLength, attributes,
                                     1024, &attributesLength))) {
      direction = SQL_FETCH_NEXT;
      std::string narrow;
      for (int i = 0; i < 256 && name[i] != 0; ++i) {
        narrow.push_back(name[i] < 0x80 ? static_cast<char>(name[i]) : '?');
      }
      if (narrow.compare(0, wanted.size(), wanted) == 0) found = "{" + narrow + "}";
    }
  }
  SQLFreeHandle(SQL_HANDLE_ENV, environment);
  return found;
}

}  // namespace

std::string FindOdbcDriver(std::initializer_list<const char*> libraries,
                           const char* registeredPrefix) {
  const WinePaths& wine = Wine();
  if (wine.toWindows != nullptr) {
    for (const char* path : libraries) {
      if (HostFileExists(wine, path)) return path;
    }
  }
  return registeredPrefix == nullptr ? "" : RegisteredDriver(registeredPrefix);
}

std::string DriverFilePath(const std::string& path) {
  const WinePaths& wine = Wine();
  if (wine.toHost == nullptr || path.empty()) return path;
  const int length = ::MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, nullptr, 0);
  if (length <= 0) return path;
  std::vector<WCHAR> wide(static_cast<std::size_t>(length));
  ::MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, wide.data(), length);
  char* hostPath = wine.toHost(wide.data());
  if (hostPath == nullptr) return path;
  std::string translated = hostPath;
  ::HeapFree(::GetProcessHeap(), 0, hostPath);
  return translated;
}

}  // namespace zelvarpack::store
