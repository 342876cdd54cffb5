// zelvarpack savings and zelvarpack proxy: the two page copiers from the
// command line. Both take a page by address (downloaded) or from a file,
// and write index.html, and savings the resources it saved, into a folder.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "tools/cli.h"
#include "zelvarpack/proxy.h"
#include "zelvarpack/savings_calculator.h"
#include "zelvarpack/zelvar_utils.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

namespace {

struct Options {
  std::string url;
  std::string file;
  std::string pageUrl;
  std::string dir;
  std::string serverUrl;
  std::string userAgent = zelvarpack::cli::kDesktopUserAgent;
};

Options Parse(Arguments& args, bool withUserAgent) {
  Options options;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--url") {
      options.url = args.TakeValue(arg);
    } else if (arg == "--file") {
      options.file = args.TakeValue(arg);
    } else if (arg == "--page-url") {
      options.pageUrl = args.TakeValue(arg);
    } else if (arg == "--dir") {
      options.dir = args.TakeValue(arg);
    } else if (arg == "--server-url") {
      options.serverUrl = args.TakeValue(arg);
    } else if (withUserAgent && arg == "--user-agent") {
      options.userAgent = args.TakeValue(arg);
    } else {
      Fail("unknown argument " + arg);
    }
  }
  if (options.url.empty() == options.file.empty()) Fail("give either --url URL or --file PAGE");
  if (!options.file.empty() && options.pageUrl.empty()) Fail("--file needs --page-url URL");
  if (options.dir.empty()) Fail("--dir DIR is needed");
  if (options.pageUrl.empty()) options.pageUrl = options.url;
  std::error_code error;
  std::filesystem::create_directories(options.dir, error);
  if (!std::filesystem::is_directory(options.dir)) Fail("cannot make the folder " + options.dir);
  return options;
}

std::string ReadPage(const Options& options) {
  if (!options.file.empty()) return zelvarpack::cli::ReadInput(options.file);
  CZelvarUtils utils;
  std::string url = options.url;
  std::int32_t sent = 0, received = 0, uncompressed = 0;
  bool cacheable = false;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, options.userAgent.c_str(),
      reinterpret_cast<unsigned char*>(url.data()), reinterpret_cast<unsigned char*>(url.data()),
      sent, received, uncompressed, cacheable, 60));
  if (!body || body->GetValueLength() == 0) {
    throw std::runtime_error("could not download " + options.url);
  }
  return std::string(reinterpret_cast<const char*>(body->GetValue()),
                     static_cast<std::size_t>(body->GetValueLength()));
}

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }
std::int32_t Length(const std::string& text) { return static_cast<std::int32_t>(text.size()); }

std::string IndexJson(const std::string& dir) {
  std::string json = "\"index\":";
  zelvarpack::cli::AppendJsonString(json, (std::filesystem::path(dir) / "index.html").string());
  return json;
}

}  // namespace

int RunSavings(Arguments& args) {
  Options options = Parse(args, true);
  std::string page = ReadPage(options);
  void* calculator = CSavingsCalculator::Create(Bytes(options.dir), Length(options.dir),
                                                Bytes(options.pageUrl), Length(options.pageUrl),
                                                Bytes(options.serverUrl), Length(options.serverUrl),
                                                nullptr, nullptr, options.userAgent.c_str());
  if (calculator == nullptr) throw std::bad_alloc();
  CSavingsCalculator::AddWork(calculator, Bytes(page), Length(page));
  CSavingsCalculator::DoWork(calculator);
  std::int32_t totals[4] = {0, 0, 0, 0};
  CSavingsCalculator::Destroy(calculator, totals[0], totals[1], totals[2], totals[3]);
  const std::string json = "{\"bytes\":" + std::to_string(totals[0]) +
                           ",\"bytesNotCacheable\":" + std::to_string(totals[1]) +
                           ",\"bytesDecoded\":" + std::to_string(totals[2]) +
                           ",\"bytesDecodedNotCacheable\":" + std::to_string(totals[3]) + "," +
                           IndexJson(options.dir) + "}\n";
  std::fputs(json.c_str(), stdout);
  return 0;
}

int RunProxy(Arguments& args) {
  Options options = Parse(args, false);
  std::string page = ReadPage(options);
  void* proxy =
      CProxy::Create(Bytes(options.dir), Length(options.dir), Bytes(options.pageUrl),
                     Length(options.pageUrl), Bytes(options.serverUrl), Length(options.serverUrl));
  if (proxy == nullptr) throw std::bad_alloc();
  CProxy::AddWork(proxy, Bytes(page), Length(page));
  CProxy::DoWork(proxy);
  CProxy::Destroy(proxy);
  const std::string json = "{" + IndexJson(options.dir) + "}\n";
  std::fputs(json.c_str(), stdout);
  return 0;
}
