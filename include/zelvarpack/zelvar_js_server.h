// CZelvarJSServer keeps the combined scripts of pages in the cache folder and
// serves them back by identifier.
//
// The page optimiser appends script bytes to the content buffer and calls
// Store, which names the content by its hash (IdFromNumber of the collate
// hash) and writes cache/js/<id> and its gzip twin cache/js/<id>.g once.
// GetRawId reads them back, gzipped when the caller accepts gzip and that
// form is smaller. Content is stored byte for byte.
//
// One object is used by one thread at a time. Any number of objects, in any
// number of threads or processes, may share one cache folder: files appear
// whole under their final names and are never rewritten.
#ifndef ZELVARPACK_ZELVAR_JS_SERVER_H_
#define ZELVARPACK_ZELVAR_JS_SERVER_H_

#include <string>

#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

class CZelvarJSServer {
 public:
  // Copies `cachePath` (null counts as "").
  ZP_EXPORT explicit CZelvarJSServer(char* cachePath);
  ZP_EXPORT ~CZelvarJSServer();
  CZelvarJSServer(const CZelvarJSServer&) = delete;
  CZelvarJSServer& operator=(const CZelvarJSServer&) = delete;

  // The scripts to combine; owned by the server.
  CZelvarBuffer* GetContent() { return &content_; }

  // The identifier the current content is stored under: its content id, or
  // when a file of that name holds other bytes (the 32-bit hash collides),
  // the next candidate. Writes the script and its gzip form when they are
  // not stored yet; "" when nothing could be stored.
  std::string Store();

  // A new buffer with the script stored under `id`, owned by the caller, or
  // null when none is (and for any `id` that is not a braced upper-case GUID,
  // without looking at the disk). On entry `wasGzip` says whether the caller
  // accepts gzip. The gzip form is returned when accepted and strictly
  // smaller than the script; then the was-gzip flag is set. `wasGzip` is
  // cleared whenever the plain bytes are returned because the gzip form is
  // empty, not smaller or not accepted, but it stays true when the gzip file
  // is missing: rely on GetWasGzip().
  ZP_EXPORT CZelvarBuffer* GetRawId(std::string id, bool& wasGzip);

  // True once GetRawId has returned a gzip form; never cleared again.
  bool GetWasGzip() const { return wasGzip_; }

 private:
  bool wasGzip_ = false;
  std::string cachePath_;
  CZelvarBuffer content_;
};

#endif  // ZELVARPACK_ZELVAR_JS_SERVER_H_
