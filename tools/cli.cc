#include "tools/cli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "zelvarpack/zelvar_buffer.h"

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

void WriteOutput(const std::string& path, const unsigned char* bytes, std::int32_t count) {
  FILE* out = path.empty() ? stdout : std::fopen(path.c_str(), "wb");
  if (out == nullptr) Fail("cannot open " + path + ": " + std::strerror(errno));
  const std::size_t size = static_cast<std::size_t>(count);
  bool ok = std::fwrite(bytes, 1, size, out) == size;
  ok = (path.empty() ? std::fflush(out) : std::fclose(out)) == 0 && ok;
  if (!ok) throw std::runtime_error("cannot write " + (path.empty() ? "standard output" : path));
}

StoredGetArguments ParseStoredGet(Arguments& args) {
  StoredGetArguments parsed;
  bool haveId = false;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      parsed.cache = args.TakeValue(arg);
    } else if (arg == "--gzip") {
      parsed.acceptGzip = true;
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else if (haveId) {
      Fail("only one ID may be given");
    } else {
      parsed.id = arg;
      haveId = true;
    }
  }
  if (!haveId) Fail("expected an ID");
  return parsed;
}

int ReportStored(const char* command, const std::string& id, CZelvarBuffer* bytes, bool wasGzip) {
  const std::unique_ptr<CZelvarBuffer> owned(bytes);
  if (!owned) {
    std::fprintf(stderr, "zelvarpack %s: nothing is stored under %s\n", command, id.c_str());
    return 1;
  }
  WriteOutput("", owned->GetValue(), owned->GetValueLength());
  std::fprintf(stderr, "{\"gzip\": %s}\n", wasGzip ? "true" : "false");
  return 0;
}

std::int32_t ParseSeconds(const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || value < 0 || value > 2147483) {
    Fail("'" + text + "' is not a number of seconds from 0 to 2147483");
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace zelvarpack::cli
