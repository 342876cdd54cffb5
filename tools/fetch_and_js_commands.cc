// zelvarpack fetch and zelvarpack js.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/cli.h"
#include "zelvarpack/zelvar_js_server.h"
#include "zelvarpack/zelvar_utils.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;
using zelvarpack::cli::ParseSeconds;
using zelvarpack::cli::StoredGetArguments;

namespace {

constexpr std::int32_t kDefaultTimeoutSeconds = 30;

struct BufferDeleter {
  void operator()(CZelvarBuffer* buffer) const { delete buffer; }
};
using Buffer = std::unique_ptr<CZelvarBuffer, BufferDeleter>;

int RunJsStore(Arguments& args) {
  std::string cache = ".";
  std::vector<std::string> files;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      cache = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) Fail("expected at least one script FILE");
  CZelvarJSServer server(cache.data());
  for (const std::string& file : files) {
    std::string bytes = zelvarpack::cli::ReadInput(file);
    server.GetContent()->AddValue(bytes.data(), static_cast<std::int32_t>(bytes.size()));
  }
  std::printf("%s\n", server.Store().c_str());
  return 0;
}

int RunJsGet(Arguments& args) {
  StoredGetArguments get = zelvarpack::cli::ParseStoredGet(args);
  CZelvarJSServer server(get.cache.data());
  bool wasGzip = get.acceptGzip;
  CZelvarBuffer* bytes = server.GetRawId(get.id, wasGzip);
  return zelvarpack::cli::ReportStored("js get", get.id, bytes, server.GetWasGzip());
}

}  // namespace

int RunFetch(Arguments& args) {
  std::string url;
  std::string cache;
  std::string userAgent;
  std::string output;
  bool haveCache = false;
  bool haveUserAgent = false;
  bool haveUrl = false;
  std::int32_t timeout = kDefaultTimeoutSeconds;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      cache = args.TakeValue(arg);
      haveCache = true;
    } else if (arg == "--timeout") {
      timeout = ParseSeconds(args.TakeValue(arg));
    } else if (arg == "--user-agent") {
      userAgent = args.TakeValue(arg);
      haveUserAgent = true;
    } else if (arg == "-o") {
      output = args.TakeValue(arg);
      if (output.empty()) Fail("option -o needs a file name");
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else if (haveUrl) {
      Fail("only one URL may be given");
    } else {
      url = arg;
      haveUrl = true;
    }
  }
  if (!haveUrl) Fail("expected a URL");
  CZelvarUtils utils;
  std::int32_t sent = 0, received = 0, uncompressed = 0;
  bool cacheable = false;
  Buffer body(utils.DownloadUrl(
      haveCache ? cache.data() : nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      haveUserAgent ? userAgent.c_str() : nullptr, reinterpret_cast<unsigned char*>(url.data()),
      reinterpret_cast<unsigned char*>(url.data()), sent, received, uncompressed, cacheable,
      timeout));
  zelvarpack::cli::WriteOutput(output, body->GetValue(), body->GetValueLength());
  std::fprintf(stderr,
               "{\"bytesSent\": %d, \"bytesReceived\": %d, \"bytesUncompressed\": %d, "
               "\"cacheable\": %s}\n",
               static_cast<int>(sent), static_cast<int>(received), static_cast<int>(uncompressed),
               cacheable ? "true" : "false");
  return 0;
}

int RunJs(Arguments& args) {
  if (args.Done()) Fail("expected 'store' or 'get'");
  const std::string action = args.Take();
  if (action == "store") return RunJsStore(args);
  if (action == "get") return RunJsGet(args);
  Fail("unknown action '" + action + "' (expected 'store' or 'get')");
}
