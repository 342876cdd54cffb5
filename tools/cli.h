// Shared pieces of the zelvarpack command-line tool: argument walking, input
// reading and the byte-exact JSON string form used by every subcommand.
#ifndef ZELVARPACK_TOOLS_CLI_H_
#define ZELVARPACK_TOOLS_CLI_H_

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class CZelvarBuffer;

namespace zelvarpack::cli {

// The User-Agent the page commands send when none is given: a current
// desktop browser, so that images may become sprites.
inline constexpr char kDesktopUserAgent[] =
    "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/156.0.0.0 Safari/537.36";

// Thrown for bad usage or unreadable input; main prints the message on one
// line and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Walks a subcommand's arguments: options first or mixed with operands.
class Arguments {
 public:
  Arguments(int argc, char** argv, int first);
  bool Done() const { return next_ >= args_.size(); }
  // The next argument, consumed.
  std::string Take();
  // The value of an option that needs one ("--state rcdata").
  std::string TakeValue(const std::string& option);
  static bool IsOption(const std::string& arg) { return arg.size() > 1 && arg[0] == '-'; }

 private:
  std::vector<std::string> args_;
  std::size_t next_ = 0;
};

// The whole of FILE, or of standard input when path is empty or "-".
std::string ReadInput(const std::string& path);

// A JSON string of raw bytes: 0x20-0x7E stand for themselves (quote and
// backslash escaped), every other byte b is written \u00XX, so each code
// point maps back to exactly one byte.
void AppendJsonString(std::string& out, const unsigned char* bytes, std::size_t count);
void AppendJsonString(std::string& out, const std::string& bytes);

[[noreturn]] void Fail(const std::string& message);

// A whole number of seconds from 0 to 2147483 (the downloads' time-outs);
// anything else is a usage error.
std::int32_t ParseSeconds(const std::string& text);

// Writes `bytes` to FILE, or to standard output when `path` is empty; throws
// std::runtime_error when the bytes cannot be written.
void WriteOutput(const std::string& path, const unsigned char* bytes, std::int32_t count);

// The arguments of the "get" subcommands of the stores: [--cache DIR]
// [--gzip] ID.
struct StoredGetArguments {
  std::string cache = ".";
  std::string id;
  bool acceptGzip = false;
};
StoredGetArguments ParseStoredGet(Arguments& args);

// Finishes a "get": writes the bytes found (taking ownership) and reports the
// gzip choice on standard error, or says that nothing is stored (status 1).
int ReportStored(const char* command, const std::string& id, CZelvarBuffer* bytes, bool wasGzip);

}  // namespace zelvarpack::cli

// Subcommands; each returns the process exit status.
int RunHtmlTokens(zelvarpack::cli::Arguments& args);
int RunMeta(zelvarpack::cli::Arguments& args);
int RunId(zelvarpack::cli::Arguments& args);
int RunFetch(zelvarpack::cli::Arguments& args);
int RunJs(zelvarpack::cli::Arguments& args);
int RunCssTokens(zelvarpack::cli::Arguments& args);
int RunMinifyCss(zelvarpack::cli::Arguments& args);
int RunFilterCss(zelvarpack::cli::Arguments& args);
int RunCss(zelvarpack::cli::Arguments& args);
int RunStyle(zelvarpack::cli::Arguments& args);
int RunAudio(zelvarpack::cli::Arguments& args);
int RunVideo(zelvarpack::cli::Arguments& args);
int RunStore(zelvarpack::cli::Arguments& args);
int RunSprite(zelvarpack::cli::Arguments& args);
int RunOptimize(zelvarpack::cli::Arguments& args);
int RunServe(zelvarpack::cli::Arguments& args);
int RunSavings(zelvarpack::cli::Arguments& args);
int RunProxy(zelvarpack::cli::Arguments& args);

#endif  // ZELVARPACK_TOOLS_CLI_H_
