#include "store/odbc_host.h"

#include <unistd.h>

namespace zelvarpack::store {

std::string FindOdbcDriver(std::initializer_list<const char*> libraries, const char*) {
  for (const char* path : libraries) {
    if (::access(path, R_OK) == 0) return path;
  }
  return "";
}

std::string DriverFilePath(const std::string& path) { return path; }

}  // namespace zelvarpack::store
