// zelvarpack css-tokens, minify-css, filter-css, css store|get and style.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "css/css_tokenizer.h"
#include "css/style_finder.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_css_server.h"

using zelvarpack::cli::AppendJsonString;
using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;
using zelvarpack::cli::StoredGetArguments;

namespace {

void AppendText(std::string& line, const CssText& text) {
  AppendJsonString(line, text.data, static_cast<std::size_t>(text.length));
}

// One JSON array per token, named as in the tokenizer's table.
class TokenPrinter : public CCssTokenizerEvents {
 public:
  explicit TokenPrinter(FILE* out) : out_(out) {}

  void OnToken(CssText* ident, CssText* function, CssText* atKeyword, CssText* hash,
               CssQuotedText* string, void* badString, CssQuotedText* url, void* badUrl,
               CssText* delim, CssText* number, CssText* percentage, CssTextPair* dimension,
               CssTextPair* unicodeRange, void* whitespace, void* comment, void* cdo, void* cdc,
               void* colon, void* semicolon, void* openBracket, void* closeBracket, void* openParen,
               void* closeParen, void* openBrace, void* closeBrace) override {
    line_.clear();  // not `= "["`: g++ 12 warns falsely (-Wrestrict) at -O3
    line_.push_back('[');
    if (ident != nullptr) Named("ident", *ident);
    if (function != nullptr) Named("function", *function);
    if (atKeyword != nullptr) Named("at-keyword", *atKeyword);
    if (hash != nullptr) Named("hash", *hash);
    if (string != nullptr) Quoted("string", *string);
    if (badString != nullptr) line_ += "\"bad-string\"";
    if (url != nullptr) Quoted("url", *url);
    if (badUrl != nullptr) line_ += "\"bad-url\"";
    if (delim != nullptr) Named("delim", *delim);
    if (number != nullptr) Named("number", *number);
    if (percentage != nullptr) Named("percentage", *percentage);
    if (dimension != nullptr) Pair("dimension", *dimension);
    if (unicodeRange != nullptr) Pair("unicode-range", *unicodeRange);
    if (whitespace != nullptr) line_ += "\"whitespace\"";
    if (comment != nullptr) {
      // A licence notice ("/*!") carries its text; other comments none.
      const auto* text = static_cast<const CssText*>(comment);
      if (text->length > 0) {
        Named("comment", *text);
      } else {
        line_ += "\"comment\"";
      }
    }
    if (cdo != nullptr) line_ += "\"CDO\"";
    if (cdc != nullptr) line_ += "\"CDC\"";
    if (colon != nullptr) line_ += "\":\"";
    if (semicolon != nullptr) line_ += "\";\"";
    if (openBracket != nullptr) line_ += "\"[\"";
    if (closeBracket != nullptr) line_ += "\"]\"";
    if (openParen != nullptr) line_ += "\"(\"";
    if (closeParen != nullptr) line_ += "\")\"";
    if (openBrace != nullptr) line_ += "\"{\"";
    if (closeBrace != nullptr) line_ += "\"}\"";
    line_ += "]\n";
    std::fwrite(line_.data(), 1, line_.size(), out_);
  }

 private:
  void Named(const char* kind, const CssText& text) {
    line_ += "\"";
    line_ += kind;
    line_ += "\", ";
    AppendText(line_, text);
  }
  void Quoted(const char* kind, const CssQuotedText& quoted) {
    Named(kind, quoted.text);
    line_ += ", " + std::to_string(quoted.quote);
  }
  void Pair(const char* kind, const CssTextPair& pair) {
    Named(kind, pair.first);
    line_ += ", ";
    AppendText(line_, pair.second);
  }

  FILE* out_;
  std::string line_;
};

std::string OnlyFile(Arguments& args) {
  std::string path;
  bool havePath = false;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (Arguments::IsOption(arg)) Fail("unknown option " + arg);
    if (havePath) Fail("only one input file may be given");
    path = arg;
    havePath = true;
  }
  return path;
}

// Sheets for minify-css and css store: "[--name URL] FILE..." (the name is
// the first file's; the others are named by their paths).
struct SheetArguments {
  std::string cache = ".";
  std::string name;
  bool haveName = false;
  std::vector<std::string> files;
};

SheetArguments ParseSheets(Arguments& args, bool allowCache) {
  SheetArguments parsed;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--name") {
      parsed.name = args.TakeValue(arg);
      parsed.haveName = true;
    } else if (allowCache && arg == "--cache") {
      parsed.cache = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      parsed.files.push_back(arg);
    }
  }
  if (parsed.files.empty()) Fail("expected at least one stylesheet FILE");
  return parsed;
}

void Minify(CZelvarCssServer& server, const SheetArguments& sheets) {
  for (std::size_t i = 0; i < sheets.files.size(); ++i) {
    std::string bytes = zelvarpack::cli::ReadInput(sheets.files[i]);
    std::string name = (i == 0 && sheets.haveName) ? sheets.name : sheets.files[i];
    server.AddWork(name.data(), reinterpret_cast<unsigned char*>(bytes.data()),
                   static_cast<std::int32_t>(bytes.size()));
  }
  server.DoWork();
}

int RunCssStore(Arguments& args) {
  const SheetArguments sheets = ParseSheets(args, true);
  std::string cache = sheets.cache;
  CZelvarCssServer server(cache.data());
  Minify(server, sheets);
  std::printf("%s\n", server.GetMinifiedId().c_str());
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int RunCssGet(Arguments& args) {
  StoredGetArguments get = zelvarpack::cli::ParseStoredGet(args);
  CZelvarCssServer server(get.cache.data());
  bool gzip = get.acceptGzip;
  CZelvarBuffer* bytes = server.GetMinifiedId(get.id, gzip);
  return zelvarpack::cli::ReportStored("css get", get.id, bytes, server.GetWasGzip());
}

}  // namespace

int RunCssTokens(Arguments& args) {
  std::string sheet = zelvarpack::cli::ReadInput(OnlyFile(args));
  TokenPrinter printer(stdout);
  CCssTokenizer tokenizer;
  tokenizer.events = &printer;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(sheet.data()),
                     static_cast<std::int32_t>(sheet.size()));
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int RunMinifyCss(Arguments& args) {
  const SheetArguments sheets = ParseSheets(args, false);
  char noCache[] = "";
  CZelvarCssServer server(noCache);
  Minify(server, sheets);
  CZelvarBuffer* output = server.GetOutput();
  zelvarpack::cli::WriteOutput("", output->GetValue(), output->GetValueLength());
  return 0;
}

// filter-css [--cache DIR] [--server-url URL] [--timeout S] --name URL FILE:
// one stylesheet response through filter mode; the sprite sheets go to the
// cache, the filtered sheet to standard output.
int RunFilterCss(Arguments& args) {
  std::string cache = ".";
  std::string serverUrl;
  std::string name;
  bool haveName = false;
  std::int32_t timeout = 2;
  std::string path;
  bool havePath = false;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      cache = args.TakeValue(arg);
    } else if (arg == "--server-url") {
      serverUrl = args.TakeValue(arg);
    } else if (arg == "--name") {
      name = args.TakeValue(arg);
      haveName = true;
    } else if (arg == "--timeout") {
      const std::string value = args.TakeValue(arg);
      char* end = nullptr;
      const long seconds = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || seconds < 0 || seconds > 3600) {
        Fail("--timeout takes whole seconds from 0 to 3600");
      }
      timeout = static_cast<std::int32_t>(seconds);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else if (havePath) {
      Fail("only one stylesheet FILE may be given");
    } else {
      path = arg;
      havePath = true;
    }
  }
  if (!haveName) Fail("expected --name URL, the sheet's own address");
  if (!havePath) Fail("expected the stylesheet FILE");
  std::string bytes = zelvarpack::cli::ReadInput(path);
  CZelvarCssServer server(cache.data());
  server.SetIsFilter(timeout, serverUrl.data());
  server.AddWork(name.data(), reinterpret_cast<unsigned char*>(bytes.data()),
                 static_cast<std::int32_t>(bytes.size()));
  server.DoWork();
  CZelvarBuffer* output = server.GetOutput();
  zelvarpack::cli::WriteOutput("", output->GetValue(), output->GetValueLength());
  return 0;
}

int RunCss(Arguments& args) {
  if (args.Done()) Fail("expected 'store' or 'get'");
  const std::string action = args.Take();
  if (action == "store") return RunCssStore(args);
  if (action == "get") return RunCssGet(args);
  Fail("unknown action '" + action + "' (expected 'store' or 'get')");
}

int RunStyle(Arguments& args) {
  if (args.Done()) Fail("expected the STYLE-TEXT");
  std::string text = args.Take();
  if (!args.Done()) Fail("unexpected argument " + args.Take());
  CStyleFinder finder;
  finder.Find(reinterpret_cast<unsigned char*>(text.data()),
              static_cast<std::int32_t>(text.size()));
  static constexpr const char* kNames[CStyleFinder::kSlotCount] = {
      "height", "paddingBottom", "paddingLeft", "paddingRight", "paddingTop", "width"};
  std::string line = "{\"hasBackground\": ";
  line += finder.hasBackground ? "true" : "false";
  line += ", \"hasBackgroundImage\": ";
  line += finder.hasBackgroundImage ? "true" : "false";
  for (int slot = 0; slot < CStyleFinder::kSlotCount; ++slot) {
    CZelvarBuffer* value = finder.Value(static_cast<CStyleFinder::Slot>(slot));
    line += ", \"";
    line += kNames[slot];
    line += "\": ";
    AppendJsonString(line, value->GetValue(), static_cast<std::size_t>(value->GetValueLength()));
  }
  line += ", \"isPercentage\": ";
  line += finder.isPercentage ? "true" : "false";
  line += ", \"hasUrl\": ";
  line += finder.hasUrl ? "true" : "false";
  line += "}\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}
