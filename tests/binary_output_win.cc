// Windows only: the test program's standard output and error are binary, as
// on Linux. CTest reads the test list (--gtest_list_tests) line by line and
// would otherwise find a carriage return at the end of every name.
#include <fcntl.h>
#include <io.h>

#include <cstdio>

namespace {

const bool kBinaryOutput = [] {
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
  return true;
}();

}  // namespace
