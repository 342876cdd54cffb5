// zelvarpack store add | get | stats: the chunked file store from the
// command line.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "store/file_store.h"
#include "store/look_ahead.h"
#include "store/session_pool.h"
#include "tools/cli.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;
namespace store = zelvarpack::store;

namespace {

constexpr char kDefaultDatabase[] = "zelvarpack-store.db";
// A progress bar is drawn, on a terminal, past either of these.
constexpr std::size_t kQuietFiles = 5;
constexpr std::uint64_t kQuietBytes = 8u << 20;

struct Options {
  std::string connection;
  std::string output;
  std::vector<std::string> operands;
};

// --db takes an ODBC connection string (anything with '=') or the path of
// a SQLite database file; without it, a SQLite file in the current folder.
std::string ConnectionFor(const std::string& db) {
  if (db.find('=') != std::string::npos) return db;
  if (store::SqliteDriverPath().empty()) {
    Fail("the SQLite ODBC driver is not installed (Debian: libsqliteodbc); give --db CONNECTION");
  }
  const std::filesystem::path path = db.empty() ? kDefaultDatabase : db;
  return store::SqliteConnectionString(std::filesystem::absolute(path).string());
}

Options ParseOptions(Arguments& args, bool takesOutput) {
  Options options;
  std::string db;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--db") {
      db = args.TakeValue(arg);
    } else if (takesOutput && arg == "-o") {
      options.output = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      options.operands.push_back(arg);
    }
  }
  options.connection = ConnectionFor(db);
  return options;
}

bool IsStandardInput(const std::string& path) { return path.empty() || path == "-"; }

class ProgressBar {
 public:
  ProgressBar(std::size_t files, std::uint64_t bytes)
      : files_(files),
        bytes_(bytes),
        shown_(::isatty(STDERR_FILENO) == 1 && (files > kQuietFiles || bytes > kQuietBytes)) {}
  ~ProgressBar() {
    if (shown_) std::fputs("\r\033[K", stderr);
  }

  void Update(std::size_t filesDone, std::uint64_t bytesDone) const {
    if (!shown_) return;
    constexpr int kWidth = 30;
    const double part = bytes_ == 0 ? 1.0 : static_cast<double>(bytesDone) / bytes_;
    const int filled = static_cast<int>(part * kWidth);
    std::fprintf(stderr, "\r[%.*s%*s] %3d%%  %zu/%zu files  %.1f/%.1f MB", filled,
                 "##############################", kWidth - filled, "",
                 static_cast<int>(part * 100), filesDone, files_, bytesDone / 1e6, bytes_ / 1e6);
    std::fflush(stderr);
  }

 private:
  std::size_t files_;
  std::uint64_t bytes_;
  bool shown_;
};

int RunStoreAdd(Arguments& args) {
  const Options options = ParseOptions(args, false);
  if (options.operands.empty()) Fail("expected at least one FILE");
  std::uint64_t total = 0;
  for (const std::string& path : options.operands) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) total += static_cast<std::uint64_t>(info.st_size);
  }
  ProgressBar progress(options.operands.size(), total);
  int status = 0;
  std::uint64_t done = 0;
  store::CompositeCache cache;
  store::StoreOptions storeOptions;
  storeOptions.cache = &cache;
  store::SessionPool sessions;
  storeOptions.sessions = &sessions;
  // Each file is read before the one before it is stored, so that the store
  // compresses it while that one's writes and commit are with the database.
  // A file that cannot be read stops the command when its turn comes, as
  // it would unread.
  store::LookAhead lookAhead;
  storeOptions.lookAhead = &lookAhead;
  std::string buffers[2];
  std::exception_ptr unreadable[2];
  const auto readInto = [&](std::size_t i) {
    const std::size_t slot = i % 2;
    unreadable[slot] = nullptr;
    try {
      buffers[slot] = zelvarpack::cli::ReadInput(options.operands[i]);
    } catch (...) {
      buffers[slot].clear();
      unreadable[slot] = std::current_exception();
    }
  };
  readInto(0);
  for (std::size_t i = 0; i < options.operands.size(); ++i) {
    const std::string& path = options.operands[i];
    if (unreadable[i % 2] != nullptr) std::rethrow_exception(unreadable[i % 2]);
    const std::string& bytes = buffers[i % 2];
    storeOptions.nextBytes = nullptr;
    storeOptions.nextCount = 0;
    // Standard input is read in its turn.
    if (i + 1 < options.operands.size() && !IsStandardInput(options.operands[i + 1])) {
      readInto(i + 1);
      if (unreadable[(i + 1) % 2] == nullptr) {
        const std::string& next = buffers[(i + 1) % 2];
        storeOptions.nextBytes = reinterpret_cast<const unsigned char*>(next.data());
        storeOptions.nextCount = static_cast<std::int32_t>(next.size());
      }
    }
    std::string error;
    const std::int32_t id =
        store::StoreFile(options.connection, reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<std::int32_t>(bytes.size()), storeOptions, &error);
    if (id < 0) {
      std::fprintf(stderr, "\r\033[Kzelvarpack store: %s not stored: %s\n", path.c_str(),
                   error.c_str());
      status = 1;
    } else {
      std::printf("%" PRId32 "\n", id);
      std::fflush(stdout);
    }
    done += bytes.size();
    progress.Update(i + 1, done);
    if (i + 1 < options.operands.size() && IsStandardInput(options.operands[i + 1])) {
      readInto(i + 1);
    }
  }
  return status;
}

int RunStoreGet(Arguments& args) {
  const Options options = ParseOptions(args, true);
  if (options.operands.size() != 1) Fail("expected one file ID");
  const std::string& text = options.operands[0];
  errno = 0;
  char* end = nullptr;
  const long long id = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || id < 0 || id > INT32_MAX) {
    Fail("'" + text + "' is not a file id");
  }
  std::vector<unsigned char> bytes;
  std::string error;
  if (!store::ReadStoredFile(options.connection, static_cast<std::int32_t>(id), bytes, &error)) {
    throw std::runtime_error("file " + text + ": " + error);
  }
  FILE* out = options.output.empty() ? stdout : std::fopen(options.output.c_str(), "wb");
  if (out == nullptr) Fail("cannot open " + options.output + ": " + std::strerror(errno));
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
  ok = (options.output.empty() ? std::fflush(out) : std::fclose(out)) == 0 && ok;
  if (!ok) throw std::runtime_error("cannot write the file");
  return 0;
}

int RunStoreStats(Arguments& args) {
  const Options options = ParseOptions(args, false);
  if (!options.operands.empty()) Fail("unexpected " + options.operands[0]);
  store::StoreTotals totals;
  std::string error;
  if (!store::ReadStoreTotals(options.connection, totals, &error)) throw std::runtime_error(error);
  std::printf("files: %" PRId64 "\nchunks: %" PRId64 "\ncomposites: %" PRId64
              "\noriginal bytes: %" PRId64 "\nstored bytes: %" PRId64 "\n",
              totals.files, totals.chunks, totals.composites, totals.originalBytes,
              totals.storedBytes);
  if (totals.storedBytes > 0) {
    std::printf("compression ratio: %.3f\n",
                static_cast<double>(totals.originalBytes) / totals.storedBytes);
  } else {
    std::printf("compression ratio: -\n");
  }
  return 0;
}

}  // namespace

int RunStore(Arguments& args) {
  if (args.Done()) Fail("expected add, get or stats");
  const std::string action = args.Take();
  if (action == "add") return RunStoreAdd(args);
  if (action == "get") return RunStoreGet(args);
  if (action == "stats") return RunStoreStats(args);
  Fail("unknown store command '" + action + "' (add, get or stats)");
}
