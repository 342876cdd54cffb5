// The state of CZelvarCssServer behind its public header: the sheets, the
// list of output entries and the settings.
//
// Output entries. While the sheets are tokenized the minifier writes into the
// last text entry. A url reference that filter mode downloads (to place its
// image in a sprite sheet) closes the current text entry, becomes a url entry
// of its own, and a new text entry follows it; DoWork then writes the entries
// in order. Outside filter mode there is one text entry.
#ifndef ZELVARPACK_CSS_CSS_SERVER_STATE_H_
#define ZELVARPACK_CSS_CSS_SERVER_STATE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "css/output_text.h"
#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::css {

struct CssOutputEntry {
  // kGeometry (filter mode) stands before the "}" of a rule whose background
  // image may be placed in a sprite sheet, and writes that image's position
  // and size when it was.
  enum Kind : std::int32_t { kUrl = 5, kText = 6, kGeometry = 7 };

  explicit CssOutputEntry(Kind k) : kind(k) {}

  Kind kind;
  // kText: minified text, copied to the output as it is.
  OutputText text;

  // kUrl: the reference as it is written back when its image is not placed
  // in a sprite: "url(" quote address quote ")".
  unsigned char quote = 0;  // '"', '\'' or 0 for an unquoted url
  std::string address;
  // The declarations of the rule holding the url, kept at its "}".
  std::string declarations;
  // False when the url cannot go into a sprite: not the rule's only url.
  bool spriteable = true;
  // Set at the "}" of its rule.
  bool ruleClosed = false;
  // Set by the sprite pass: the reference and the geometry written instead.
  std::string spriteAddress;
  std::string spriteGeometry;

  // kGeometry: the url entry it belongs to.
  const CssOutputEntry* of = nullptr;
  // Written by the entry's download thread only.
  std::unique_ptr<CZelvarBuffer> downloaded;
  std::atomic<unsigned char> abandoned{0};  // the server stopped waiting
  std::atomic<unsigned char> done{0};       // downloaded while the server waited
  std::atomic<unsigned char> finished{0};   // the download thread has ended
};

struct CssSheet {
  std::string name;
  std::unique_ptr<CZelvarBuffer> bytes;
};

struct CssServerState {
  std::string cacheDirectory;
  // Sheets in the order of addition, and their names for the duplicate test.
  std::vector<CssSheet> sheets;
  std::unordered_set<std::string> names;
  std::unique_ptr<CZelvarBuffer> inlineBuffer = std::make_unique<CZelvarBuffer>();

  // Shared with the download threads, which may outlive the server.
  std::vector<std::shared_ptr<CssOutputEntry>> entries;

  // The sheet being tokenized: its name when that is an absolute "http:" or
  // "https:" address, else empty; and, split from it, the scheme and the
  // prefix (scheme "://" host directory "/") that relative references get.
  std::string baseUrl;
  std::string baseScheme;
  std::string baseOrigin;  // scheme "://" host
  std::string basePrefix;
  bool canResolve = false;

  // Filter mode only: the rule's declarations while they are written.
  OutputText captureText;

  bool isFilter = false;
  std::int32_t timeoutSeconds = 2;
  std::string serverUrl;
  bool hasServerUrl = false;
};

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_CSS_SERVER_STATE_H_
