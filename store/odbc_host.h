// Where the ODBC drivers live and how they name files, for the code that
// builds connection strings (the store's tools and tests).
//
// On Linux the driver manager (unixODBC) loads a driver named by its library
// path, and file names pass through as they are. A Windows build running
// under Wine reaches the host's unixODBC through ODBC32: its drivers are the
// host's libraries, named by their host (Unix) paths, and they open files by
// host paths too, so a Windows path is translated on the way. On Windows
// itself a driver is named by its registered name.
//
// Safe from any thread.
#ifndef ZELVARPACK_STORE_ODBC_HOST_H_
#define ZELVARPACK_STORE_ODBC_HOST_H_

#include <initializer_list>
#include <string>

namespace zelvarpack::store {

// What to write after "DRIVER=" for the first of `libraries` (host library
// paths) that exists; failing that, on Windows, "{name}" for the first
// registered driver whose name starts with `registeredPrefix`. "" when
// there is none.
std::string FindOdbcDriver(std::initializer_list<const char*> libraries,
                           const char* registeredPrefix);

// `path` (absolute) as the drivers expect a file name: on Linux and on
// Windows itself unchanged, under Wine the host path of the same file.
std::string DriverFilePath(const std::string& path);

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_ODBC_HOST_H_
