#include "tools/cli.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zelvarpack::cli {

Arguments::Arguments(int argc, char** argv, int first) {
  for (int i = first; i < argc; ++i) args_.emplace_back(argv[i]);
}

std::string Arguments::Take() { return args_.at(next_++); }

std::string Arguments::TakeValue(const std::string& option) {
  if (Done()) Fail("option " + option + " needs a value");
  return Take();
}

std::string ReadInput(const std::string& path) {
  const bool standardInput = path.empty() || path == "-";
  FILE* file = standardInput ? stdin : std::fopen(path.c_str(), "rb");
  if (file == nullptr) Fail("cannot open " + path + ": " + std::strerror(errno));
  std::string bytes;
  char chunk[1 << 16];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  const bool failed = std::ferror(file) != 0;
  const int error = errno;
  if (!standardInput) std::fclose(file);
  if (failed) {
    Fail("cannot read " + (standardInput ? std::string("standard input") : path) + ": " +
         std::strerror(error));
  }
  if (bytes.size() > 0x7FFFFFF0u) Fail("input larger than 2 GiB is not supported");
  return bytes;
}

void AppendJsonString(std::string& out, const unsigned char* bytes, std::size_t count) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  for (std::size_t i = 0; i < count; ++i) {
    const unsigned char b = bytes[i];
    if (b == '"' || b == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(b));
    } else if (b >= 0x20 && b <= 0x7E) {
      out.push_back(static_cast<char>(b));
    } else {
      out += "\\u00";
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 0xF]);
    }
  }
  out.push_back('"');
}

void AppendJsonString(std::string& out, const std::string& bytes) {
  AppendJsonString(out, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

void Fail(const std::string& message) { throw UsageError(message); }

}  // namespace zelvarpack::cli
