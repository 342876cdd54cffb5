// CZelvarCssServer combines a group of stylesheets into one minified
// stylesheet and keeps it in the cache folder under a content identifier.
//
// Calling pattern: AddWork (and the inline-block operations) for each sheet,
// DoWork once, then GetMinifiedId() to store the result and learn its
// identifier; later GetMinifiedId(id, gzip) serves a stored sheet back,
// gzipped when the caller accepts gzip and that form is smaller.
//
// Minifying happens token by token, with no tree: whitespace disappears
// where no browser can tell, comments vanish (licence notices "/*!" stay),
// and url references are resolved against the sheet's address so that the
// combined sheet, served from a handler URL, still reaches the same
// resources. In filter mode the server also downloads the sheet's background
// images and packs those it can into sprite sheets (cache/gif, cache/jpg,
// cache/png), pointing the rules at them.
//
// Files: cache/css/<id> and its gzip twin cache/css/<id>.g, written once;
// they appear whole under their final names. Any number of servers, in any
// number of threads or processes, may share one cache folder. One object is
// used by one thread at a time.
#ifndef ZELVARPACK_ZELVAR_CSS_SERVER_H_
#define ZELVARPACK_ZELVAR_CSS_SERVER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::css {
class CssServerCore;
}  // namespace zelvarpack::css

class CZelvarCssServer {
 public:
  // Copies `cacheDirectory`, the cache root (null counts as "").
  ZP_EXPORT explicit CZelvarCssServer(char* cacheDirectory);
  // Does not wait for downloads still running in filter mode: they end on
  // their own and touch nothing of the server's.
  // Virtual, so that a host deletes the server through its vtable: the
  // destructor itself is not among the exported entries.
  virtual ~CZelvarCssServer();
  CZelvarCssServer(const CZelvarCssServer&) = delete;
  CZelvarCssServer& operator=(const CZelvarCssServer&) = delete;

  // Adds one stylesheet (its bytes are copied) under `name`, normally its
  // resolved URL; url references in a sheet named by an absolute "http:" or
  // "https:" address are resolved against that address. A name that is
  // already present adds nothing. A null name counts as ""; a negative
  // length adds nothing.
  ZP_EXPORT void AddWork(char* name, unsigned char* bytes, std::int32_t length);

  // An inline style block: Begin empties the block, Add appends text to it,
  // End adds it as a sheet named by the decimal count of sheets already held.
  void BeginInlineWork();
  void AddInlineWork(unsigned char* bytes, std::int32_t length);
  void EndInlineWork();

  // Switches the server to filter mode (one stylesheet response, output
  // served from memory, nothing written under cache/css) and keeps the
  // settings: the time-out for url downloads (seconds; 0 waits for none, so
  // nothing is sprited) and, when not null or empty, the server URL that
  // sprite references start with ("./IS.zp?" without one).
  ZP_EXPORT void SetIsFilter(std::int32_t timeoutSeconds, char* serverUrl);

  // Minifies the sheets, in the order they were added, into the output. In
  // filter mode also downloads the background images (at most 16 at once)
  // for up to the time-out and places in sprite sheets those whose rule
  // shows them once, unrepeated, at the origin of a box of known pixel size
  // without padding (see CanSprite in css/css_sprites.h).
  ZP_EXPORT void DoWork();

  // The identifier of the output: IdFromNumber of its collate hash. Unless in
  // filter mode, writes cache/css/<id> and cache/css/<id>.g when the sheet is
  // not stored yet; when a file of that name holds other bytes (the 32-bit
  // hash collides), the next candidate id is used instead. "" when the
  // sheet could not be stored.
  ZP_EXPORT std::string GetMinifiedId();

  // A new buffer owned by the caller with the sheet stored under `id` (in
  // filter mode: the output held in memory), or null when there is none (and
  // for any `id` that is not a braced upper-case GUID, without looking at the
  // disk). On entry `gzip` says whether the caller accepts gzip. The gzip
  // form is returned when accepted and strictly smaller, and then the
  // was-gzip flag is set; `gzip` is cleared when the plain bytes are returned
  // although a gzip form existed. A missing gzip file leaves `gzip` as it
  // was: rely on GetWasGzip().
  ZP_EXPORT CZelvarBuffer* GetMinifiedId(std::string id, bool& gzip);

  // True once GetMinifiedId(id, gzip) has returned a gzip form; never cleared.
  bool GetWasGzip() const;

  // The combined minified output of the last DoWork; owned by the server.
  CZelvarBuffer* GetOutput();

  std::int32_t GetSheetCount() const;

 private:
  std::unique_ptr<zelvarpack::css::CssServerCore> core_;
};

#endif  // ZELVARPACK_ZELVAR_CSS_SERVER_H_
