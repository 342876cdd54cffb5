// zelvarpack optimize: the page optimiser from the command line.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "page/page_state.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_html_server.h"
#include "zelvarpack/zelvar_utils.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;
using zelvarpack::cli::ParseSeconds;

namespace {

struct Options {
  std::string url;
  std::string file;
  std::string pageUrl;
  std::string cache = ".";
  std::int32_t timeout = 10;
  std::string handlerPath;
  std::string serverAddress;
  bool fetchForeign = false;
  bool keepComments = false;
  std::string userAgent = zelvarpack::cli::kDesktopUserAgent;
  std::string clientAddress;
  std::string output;
};

Options Parse(Arguments& args) {
  Options options;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--url") {
      options.url = args.TakeValue(arg);
    } else if (arg == "--file") {
      options.file = args.TakeValue(arg);
    } else if (arg == "--page-url") {
      options.pageUrl = args.TakeValue(arg);
    } else if (arg == "--cache") {
      options.cache = args.TakeValue(arg);
    } else if (arg == "--timeout") {
      options.timeout = ParseSeconds(args.TakeValue(arg));
    } else if (arg == "--handler-path") {
      options.handlerPath = args.TakeValue(arg);
    } else if (arg == "--server-address") {
      options.serverAddress = args.TakeValue(arg);
    } else if (arg == "--fetch-foreign") {
      options.fetchForeign = true;
    } else if (arg == "--keep-comments") {
      options.keepComments = true;
    } else if (arg == "--user-agent") {
      options.userAgent = args.TakeValue(arg);
    } else if (arg == "--client-address") {
      options.clientAddress = args.TakeValue(arg);
    } else if (arg == "-o") {
      options.output = args.TakeValue(arg);
    } else {
      Fail("unknown argument " + arg);
    }
  }
  if (options.url.empty() == options.file.empty()) Fail("give either --url URL or --file PAGE");
  if (!options.file.empty() && options.pageUrl.empty()) Fail("--file needs --page-url URL");
  if (options.pageUrl.empty()) options.pageUrl = options.url;
  return options;
}

std::string DownloadPage(const Options& options) {
  CZelvarUtils utils;
  std::string url = options.url;
  std::int32_t sent = 0, received = 0, uncompressed = 0;
  bool cacheable = false;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, options.userAgent.c_str(),
      reinterpret_cast<unsigned char*>(url.data()), reinterpret_cast<unsigned char*>(url.data()),
      sent, received, uncompressed, cacheable, options.timeout > 0 ? options.timeout : 60));
  if (!body || body->GetValueLength() == 0) {
    throw std::runtime_error("could not download " + options.url);
  }
  return std::string(reinterpret_cast<const char*>(body->GetValue()),
                     static_cast<std::size_t>(body->GetValueLength()));
}

void AppendField(std::string& json, const char* name, long long value) {
  json += json.size() > 1 ? ",\"" : "\"";
  json += name;
  json += "\":";
  json += std::to_string(value);
}

void AppendField(std::string& json, const char* name, const std::string& value) {
  json += json.size() > 1 ? ",\"" : "\"";
  json += name;
  json += "\":";
  zelvarpack::cli::AppendJsonString(json, value);
}

}  // namespace

int RunOptimize(Arguments& args) {
  const Options options = Parse(args);
  std::string page =
      options.file.empty() ? DownloadPage(options) : zelvarpack::cli::ReadInput(options.file);
  std::string cache = options.cache;
  std::string handlerPath = options.handlerPath;
  std::string client = options.clientAddress;
  std::string server = options.serverAddress;
  std::string pageUrl = options.pageUrl;
  CZelvarHtmlServer optimiser(
      cache.data(), 1, options.fetchForeign, options.keepComments, server.empty(), options.timeout,
      handlerPath.data(), nullptr,
      client.empty() ? nullptr : reinterpret_cast<unsigned char*>(client.data()),
      static_cast<std::int32_t>(client.size()),
      server.empty() ? nullptr : reinterpret_cast<unsigned char*>(server.data()),
      static_cast<std::int32_t>(server.size()), reinterpret_cast<unsigned char*>(pageUrl.data()),
      static_cast<std::int32_t>(pageUrl.size()), nullptr, nullptr, nullptr, nullptr,
      options.userAgent.c_str());
  optimiser.AddWork(reinterpret_cast<unsigned char*>(page.data()),
                    static_cast<std::int32_t>(page.size()));
  optimiser.DoWork();

  bool plainOnly = false;
  CZelvarBuffer* result = optimiser.GetRawZelvarBuffer(plainOnly);
  const std::int32_t pageBytes = result->GetValueLength();
  bool gzip = true;
  const std::int32_t gzipPageBytes = optimiser.GetRawZelvarBuffer(gzip)->GetValueLength();

  const zelvarpack::page::PageState& state = zelvarpack::page::StateOf(optimiser);
  std::string json = "{";
  AppendField(json, "pageBytesBefore", static_cast<long long>(page.size()));
  AppendField(json, "pageBytesAfter", pageBytes);
  AppendField(json, "bytesBefore",
              optimiser.GetBytesBefore(false) + static_cast<long long>(page.size()));
  AppendField(json, "bytesAfter", optimiser.GetBytesAfter(pageBytes, false));
  AppendField(json, "bytesAfterGzip", optimiser.GetBytesAfter(gzipPageBytes, true));
  AppendField(json, "resourceBytesBefore", optimiser.GetBytesBefore(false));
  AppendField(json, "resourceBytesBeforeGzip", optimiser.GetBytesBefore(true));
  AppendField(json, "requestsBefore", optimiser.GetRequestsBefore());
  AppendField(json, "requestsAfter", optimiser.GetRequestsAfter());
  AppendField(json, "id", optimiser.GetId());
  AppendField(json, "stylesheetId", state.linkedStylesId);
  AppendField(json, "inlineStyleId", state.inlineStylesId);
  AppendField(json, "scriptId", state.fetchedScriptsId);
  AppendField(json, "inlineScriptId", state.inlineScriptsId);
  AppendField(json, "gifSheetId", state.sheetIds[0]);
  AppendField(json, "jpgSheetId", state.sheetIds[1]);
  AppendField(json, "png24SheetId", state.sheetIds[2]);
  AppendField(json, "png32SheetId", state.sheetIds[3]);
  AppendField(json, "sendStats", static_cast<long long>(optimiser.GetSendStats()));
  json += "}\n";

  zelvarpack::cli::WriteOutput(options.output, result->GetValue(), result->GetValueLength());
  std::fputs(json.c_str(), options.output.empty() ? stderr : stdout);
  return 0;
}
