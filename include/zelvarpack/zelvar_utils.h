// CZelvarUtils gathers the services that every cache user needs: opening cache
// files so that concurrent workers (threads or processes sharing one cache
// folder) never see a half-written file; fetching a resource over HTTP(S)
// with its disk cache; the zlib helpers; and the small URL helpers.
//
// Readers share a file; a writer holds it alone. Both calls wait, retrying
// every 100 ms without limit, while another worker holds the file in a
// conflicting way. The class has no state: every operation is safe to call
// from any number of threads at once.
#ifndef ZELVARPACK_ZELVAR_UTILS_H_
#define ZELVARPACK_ZELVAR_UTILS_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

class CZelvarUtils {
 public:
  ZP_EXPORT CZelvarUtils();
  ZP_EXPORT ~CZelvarUtils();

  // Opens an existing file for binary reading, shared with other readers.
  // Returns null at once when the file does not exist; otherwise waits while
  // a writer holds it. The caller closes the file with fclose.
  ZP_EXPORT static FILE* OpenFileForReading(std::string path);

  // Creates or truncates a file for binary writing, held alone. Waits while
  // any reader or writer holds it, and (by design) for ever when the path can
  // never be opened: create the folders first. The caller closes it.
  ZP_EXPORT static FILE* OpenFileForWriting(std::string path);

  // Ends the library's background downloads before a host unloads it or
  // exits: transfers still running give up at their next progress check and
  // the call waits for the last download thread, at most `timeoutMilliseconds`.
  // Returns whether none is left running. Thread-safe; later work runs as
  // usual.
  ZP_EXPORT static bool StopBackgroundWork(std::int32_t timeoutMilliseconds);

  // Fetches `url` with one GET over a fresh connection (redirects followed,
  // cookies and authentication off) and returns a new buffer with the
  // decoded body, owned by the caller; it is never null and is empty on any
  // failure. HTML entities in `url` (&amp; &gt; &lt; &quot;) are decoded
  // first. The port comes from the scheme alone: 443 for "https", else 80.
  //
  // With a `cacheDirectory`, the body is kept under cacheDirectory/res and
  // revalidated with If-Modified-Since / If-None-Match; a 304 is answered from
  // the entry. The optional header values are sent when not null (a value
  // holding CR or LF is left out). `reservedA`, `reservedB` and `pageUrl` are
  // never read. Counters: `bytesSent` counts request-header characters,
  // `bytesReceived` response-header bytes plus the body as it travelled,
  // `bytesUncompressed` response-header bytes plus the decoded body.
  // `cacheable` tells whether the response allows keeping the result.
  // `timeoutSeconds` bounds connecting and each wait for the server (<= 0: no
  // limit). Bodies over 256 MiB, received or decoded, are failures.
  ZP_EXPORT CZelvarBuffer* DownloadUrl(char* cacheDirectory, const char* acceptCharset,
                                       const char* acceptLanguage, const char* referer,
                                       const char* forwardedFor, const char* reservedA,
                                       const char* reservedB, const char* userAgent,
                                       unsigned char* pageUrl, unsigned char* url,
                                       std::int32_t& bytesSent, std::int32_t& bytesReceived,
                                       std::int32_t& bytesUncompressed, bool& cacheable,
                                       std::int32_t timeoutSeconds);

  // Compresses `length` bytes at level 9 into a new buffer: a raw deflate
  // stream when `rawDeflate`, else the gzip format when `gzip`, else nothing
  // (empty buffer).
  static CZelvarBuffer* CompressBuffer(unsigned char* bytes, std::int32_t length, bool rawDeflate,
                                       bool gzip);
  // Inflates a raw deflate stream (`rawDeflate`) or a gzip stream into a new
  // buffer. Corrupt data gives an empty buffer; a stream cut short gives what
  // could be inflated.
  static CZelvarBuffer* DecompressBuffer(unsigned char* bytes, std::int32_t length,
                                         bool rawDeflate);

  // Splits "scheme://host/a/b" into {"scheme", "host", "a", "b"}. A final
  // empty piece after a trailing slash is dropped; empty pieces between two
  // slashes are kept. Text without "://" gives an empty scheme followed by
  // the pieces of the whole text.
  static std::vector<std::string> SplitUrl(const char* text, std::int32_t length);

  // An absolute "http://" URL for `reference` seen from `baseUrl`. The host is
  // `hostOverride` when `useOverride` is set and it is not null, else the
  // base's host. A reference starting with "/" is appended as it is; any
  // other replaces the base's last path segment, which is always taken for a
  // file name (so "http://h/a/" + "x" gives "http://h/x"). No "." or ".."
  // processing. A null text counts as empty.
  static CZelvarBuffer* ResolveUrl(const char* hostOverride, std::int32_t hostOverrideLength,
                                   const char* baseUrl, std::int32_t baseUrlLength,
                                   const char* reference, std::int32_t referenceLength,
                                   bool useOverride);

  // False for a null agent and for Internet Explorer before 9 (and 9 itself
  // when `excludeVersion9`); true otherwise.
  static bool IsCapableBrowser(const char* userAgent, bool excludeVersion9);

  // The 32-bit collate hash of the URL's bytes, and the cache entry name made
  // from it; both equal the content identifiers' hash and IdFromNumber.
  static std::int32_t UrlHash(const unsigned char* bytes, std::int32_t length);
  static std::string MakeCacheName(std::int32_t urlHash);
};

#endif  // ZELVARPACK_ZELVAR_UTILS_H_
