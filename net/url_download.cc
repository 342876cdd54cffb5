// CZelvarUtils::DownloadUrl: one GET with a revalidating disk cache.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/identifiers.h"
#include "net/http_client.h"
#include "net/http_date.h"
#include "net/url_helpers.h"
#include "net/zlib_codec.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::net {

namespace {

// Bodies larger than this, as received or decoded, are failures.
constexpr std::size_t kMaxBodyBytes = std::size_t{256} << 20;
// A cache entry is its body plus three short lines.
constexpr std::size_t kMaxEntryBytes = kMaxBodyBytes + (std::size_t{1} << 20);

// The counters are 32-bit and wrap like the platform's `long`.
void Add(std::int32_t& counter, std::int64_t amount) {
  counter = static_cast<std::int32_t>(static_cast<std::uint32_t>(counter) +
                                      static_cast<std::uint32_t>(amount));
}

// atol with 32-bit saturation: leading blanks, an optional sign, digits.
std::int32_t ParseLong(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > std::numeric_limits<std::int32_t>::max()) {
      return negative ? std::numeric_limits<std::int32_t>::min()
                      : std::numeric_limits<std::int32_t>::max();
    }
  }
  return static_cast<std::int32_t>(negative ? -value : value);
}

// Cache entry, as written by WriteEntry:
//   entry     = travelled LF etag LF lastModified LF body
//   travelled = decimal size of the body as it travelled ("%d"; the
//               compressed size when it came compressed)
//   etag, lastModified = the response's validators as received, or empty
//   body      = the decoded body, to the end of the file
struct CacheEntry {
  bool read = false;  // the file existed and could be read
  std::int32_t travelled = 0;
  std::string etag;
  std::string lastModified;
  bool hasBody = false;  // false with fewer than three line ends
  std::string body;
};

// The whole entry file into `bytes`; false when it does not exist, cannot be
// read or holds more than kMaxEntryBytes. Shares the file with other readers
// and waits while a writer holds it, as CZelvarUtils::OpenFileForReading
// does, but a revalidation reads an entry on every page, so the common case
// costs an open, the lock, one fstat and one read: no separate existence
// check (a failed open that finds no file is the check) and no read just to
// see the end (the lock keeps the size that fstat reports).
bool ReadEntryFile(const std::string& path, std::string& bytes) {
  FILE* file = zelvarpack::TryOpenLocked(path.c_str(), zelvarpack::FileShare::kReaders);
  if (file == nullptr) {
    if (!zelvarpack::PathExists(path.c_str())) return false;
    file = CZelvarUtils::OpenFileForReading(path);  // held by a writer: waits
    if (file == nullptr) return false;
  }
  const int fd = ::fileno(file);
  struct stat info {};
  bool ok = ::fstat(fd, &info) == 0 && info.st_size >= 0 &&
            static_cast<std::uint64_t>(info.st_size) <= kMaxEntryBytes;
  std::size_t length = 0;
  if (ok) {
    // One byte more than the size: a file that grew anyway is read on.
    bytes.resize(static_cast<std::size_t>(info.st_size) + 1);
    while (true) {
      if (length == bytes.size()) {
        if (bytes.size() > kMaxEntryBytes) {
          ok = false;
          break;
        }
        bytes.resize(std::min(bytes.size() * 2, kMaxEntryBytes + 1));
      }
      const ssize_t got = ::read(fd, bytes.data() + length, bytes.size() - length);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        ok = got == 0;
        break;
      }
      length += static_cast<std::size_t>(got);
      // A regular file reads short only at its end.
      if (length < bytes.size() && S_ISREG(info.st_mode)) break;
    }
  }
  std::fclose(file);
  if (!ok || length > kMaxEntryBytes) return false;
  bytes.resize(length);
  return true;
}

CacheEntry ReadEntry(const std::string& path) {
  CacheEntry entry;
  std::string file;
  if (!ReadEntryFile(path, file)) return entry;
  entry.read = true;
  std::string_view rest(file);
  std::string_view lines[3];
  int found = 0;
  for (; found < 3; ++found) {
    const std::size_t end = rest.find('\n');
    if (end == std::string_view::npos) {
      lines[found] = rest;  // an unterminated last line still counts
      break;
    }
    lines[found] = rest.substr(0, end);
    rest.remove_prefix(end + 1);
  }
  entry.travelled = ParseLong(lines[0]);
  entry.etag = std::string(lines[1]);
  entry.lastModified = std::string(lines[2]);
  if (found == 3) {
    entry.hasBody = true;
    entry.body = std::string(rest);
  }
  return entry;
}

void WriteEntry(const std::string& path, std::int32_t travelled, const std::string& etag,
                const std::string& lastModified, CZelvarBuffer& body) {
  const std::string head = std::to_string(travelled) + '\n' + etag + '\n' + lastModified + '\n';
  const std::string_view bytes(reinterpret_cast<const char*>(body.GetValue()),
                               static_cast<std::size_t>(body.GetValueLength()));
  PublishFile(path, {head, bytes}, Publish::kReplace);  // failure is skipped silently
}

// The byte size the platform reports for the final response's raw header
// block: UTF-16 text with CRLF line ends, the closing empty line and a
// terminating NUL.
std::int64_t RawHeaderBytes(const std::vector<std::string>& lines) {
  std::int64_t characters = 2 + 1;  // the empty line and the terminator
  for (const std::string& line : lines) characters += static_cast<std::int64_t>(line.size()) + 2;
  return characters * 2;
}

bool HasLineBreak(std::string_view value) {
  return value.find_first_of("\r\n") != std::string_view::npos;
}

// True when `header` is "max-age=N" with N > 0 read like _wtol.
bool MaxAgeAllowsKeeping(const std::string& cacheControl, bool& found) {
  const std::size_t at = cacheControl.find("max-age=");
  found = at != std::string::npos;
  return found && ParseLong(std::string_view(cacheControl).substr(at + 8)) > 0;
}

}  // namespace

}  // namespace zelvarpack::net

CZelvarBuffer* CZelvarUtils::DownloadUrl(char* cacheDirectory, const char* acceptCharset,
                                         const char* acceptLanguage, const char* referer,
                                         const char* forwardedFor, const char* reservedA,
                                         const char* reservedB, const char* userAgent,
                                         unsigned char* pageUrl, unsigned char* url,
                                         std::int32_t& bytesSent, std::int32_t& bytesReceived,
                                         std::int32_t& bytesUncompressed, bool& cacheable,
                                         std::int32_t timeoutSeconds) {
  using namespace zelvarpack::net;
  bytesSent = 0;
  bytesReceived = 0;
  bytesUncompressed = 0;
  cacheable = false;
  auto result = std::make_unique<CZelvarBuffer>();
  if (url == nullptr) return result.release();

  const std::string decoded = DecodeUrlEntities(reinterpret_cast<const char*>(url));

  std::string entryPath;
  CacheEntry cached;
  if (cacheDirectory != nullptr) {
    const std::string folder = std::string(cacheDirectory) + "/res";
    entryPath = folder + "/" +
                MakeCacheName(UrlHash(reinterpret_cast<const unsigned char*>(decoded.data()),
                                      static_cast<std::int32_t>(decoded.size())));
    cached = ReadEntry(entryPath);
    // An entry that could be read stands in its folder: only without one is
    // the folder looked for (and made).
    if (!cached.read) zelvarpack::EnsureFolder(folder);
    if (cached.read) {
      Add(bytesSent, static_cast<std::int64_t>(cached.etag.size() + cached.lastModified.size()));
    }
  }

  const std::optional<CrackedUrl> cracked = CrackUrl(decoded);
  if (!cracked) return result.release();

  HttpRequest request;
  request.secure = cracked->Secure();
  request.host = cracked->host;
  request.path = cracked->path;
  request.timeoutSeconds = timeoutSeconds;
  request.maxBodyBytes = kMaxBodyBytes;
  // A value holding CR or LF could smuggle further headers: that header is
  // left out (and not counted).
  auto addHeader = [&](const char* name, std::string_view value, bool counted) {
    if (HasLineBreak(value)) return;
    std::string line = std::string(name) + ": ";
    line += value;
    if (counted) Add(bytesSent, static_cast<std::int64_t>(line.size()));
    request.headers.push_back(std::move(line));
  };
  addHeader("Accept", "*/*", true);
  addHeader("Accept-Encoding", "gzip, deflate", true);
  if (acceptCharset != nullptr) addHeader("Accept-Charset", acceptCharset, true);
  if (acceptLanguage != nullptr) addHeader("Accept-Language", acceptLanguage, true);
  if (cached.hasBody) {
    if (!cached.lastModified.empty()) addHeader("If-Modified-Since", cached.lastModified, false);
    if (!cached.etag.empty()) addHeader("If-None-Match", cached.etag, false);
  }
  if (referer != nullptr) addHeader("Referer", referer, true);
  if (userAgent != nullptr) addHeader("User-Agent", userAgent, true);
  if (forwardedFor != nullptr) addHeader("X-Forwarded-For", forwardedFor, true);

  HttpResponse response = HttpGet(request);

  bool deflate = false;
  bool gzip = false;
  std::optional<std::string> etag;
  std::optional<std::string> lastModified;
  if (response.outcome != HttpResponse::Outcome::kNoResponse) {
    const std::int64_t headerBytes = RawHeaderBytes(response.headerLines);
    Add(bytesReceived, headerBytes);
    Add(bytesUncompressed, headerBytes);
    const auto& headers = response.headerLines;
    if (response.status == 200) {
      if (const auto cacheControl = FindHeader(headers, "Cache-Control")) {
        bool found = false;
        const bool keep = MaxAgeAllowsKeeping(*cacheControl, found);
        if (found) cacheable = keep;
      }
      if (const auto encoding = FindHeader(headers, "Content-Encoding")) {
        deflate = *encoding == "deflate";
        gzip = *encoding == "gzip";
      }
      etag = FindHeader(headers, "ETag");
      lastModified = FindHeader(headers, "Last-Modified");
      if (const auto expires = FindHeader(headers, "Expires")) {
        if (const auto when = ParseHttpDate(*expires)) {
          cacheable = std::chrono::system_clock::time_point(std::chrono::seconds(*when)) >
                      std::chrono::system_clock::now();
        }
      }
      result = std::move(response.body);  // empty when the body failed
    } else if (response.status == 304 && cached.hasBody) {
      result->Append(reinterpret_cast<const unsigned char*>(cached.body.data()),
                     static_cast<std::int32_t>(cached.body.size()));
    }
  }

  std::int32_t travelled = cached.travelled;
  if (deflate || gzip) {
    travelled = result->GetValueLength();
    result = Decompress(result->GetValue(), static_cast<std::size_t>(result->GetValueLength()),
                        deflate ? ZlibFormat::kRawDeflate : ZlibFormat::kGzip, kMaxBodyBytes);
  }

  if (cacheDirectory != nullptr) {
    bool write;
    if (cached.hasBody) {
      // A new ETag, or else a new Last-Modified; a 304 carries neither.
      write =
          (etag && *etag != cached.etag) || (lastModified && *lastModified != cached.lastModified);
    } else {
      write = etag.has_value() || lastModified.has_value();
    }
    if (write)
      WriteEntry(entryPath, travelled, etag.value_or(""), lastModified.value_or(""), *result);
  }

  Add(bytesReceived, travelled != 0 ? travelled : result->GetValueLength());
  Add(bytesUncompressed, result->GetValueLength());
  return result.release();
}
