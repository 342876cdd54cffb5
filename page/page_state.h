// The inside of CZelvarHtmlServer: the settings, the segment list the page
// is cut into while it is tokenized, the sub-servers that combine what the
// segments fetched, and the counters. One page, one thread (the downloads
// run in the FetchPool and touch only their own jobs).
#ifndef ZELVARPACK_PAGE_PAGE_STATE_H_
#define ZELVARPACK_PAGE_PAGE_STATE_H_

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "core/sha256.h"
#include "html/html_constructor.h"
#include "html/tag_record.h"
#include "page/fetch_pool.h"
#include "page/page_address.h"
#include "zelvarpack/zelvar_buffer.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_image_server.h"
#include "zelvarpack/zelvar_js_server.h"

namespace zelvarpack::page {

enum class SegmentKind : std::uint32_t {
  kHeadStart = 0,   // the <head> start tag: the combined scripts follow it
  kHeadEnd = 1,     // the </head> end tag: the combined stylesheets precede it
  kStylesheet = 2,  // a <link> being fetched
  kImage = 3,       // an <img> being fetched
  kScript = 4,      // a <script src> being fetched
  kText = 6,        // markup and text copied through
  // The engine's own additions: an inline <style> block and an inline
  // script taken into their groups, kept so that the element can be
  // written back as it was when its group could not be stored.
  kInlineStyle = 7,
  kInlineScript = 8,
};

struct PageSegment {
  SegmentKind kind = SegmentKind::kText;
  html::TagRecord element;  // kinds other than kText
  // kText: where its markup lies in PageState::markup, [textBegin, textEnd).
  std::size_t textBegin = 0;
  std::size_t textEnd = 0;
  std::shared_ptr<FetchJob> fetch;  // kStylesheet, kImage, kScript
  bool done = false;                // fetched in time, with a body

  // kStylesheet and kScript: the fetched body went into a group.
  bool combined = false;
  // kScript and kInlineScript: the number of its variable in the combined
  // script.
  std::int32_t scriptNumber = 0;
  // kInlineStyle and kInlineScript: the element's own text, and (style) its
  // end tag as written.
  std::string inlineText;
  std::string closing;

  // kImage: the size texts handed to the image server, its handle there, and
  // where the image landed.
  std::string declaredWidth;
  std::string declaredHeight;
  std::int32_t imageHandle = -1;
  bool placed = false;
  CZelvarImagePlacement placement{};
};

// The number of sprite sheet kinds: GIF, JPEG, PNG-24, PNG-32.
inline constexpr int kSheetKinds = 4;

struct PageState {
  // Settings.
  std::string cacheDirectory;
  bool optimise = false;
  bool fetchForeignHosts = false;
  bool keepComments = false;
  bool useOwnHost = false;
  std::int32_t timeoutSeconds = 0;
  std::optional<std::string> handlerPath;
  void* callerContext = nullptr;
  std::string clientAddress;
  std::optional<std::string> serverAddress;
  std::string pageUrl;
  std::optional<PageAddress> pageAddress;
  const char* userAgent = nullptr;

  // Input and results.
  CZelvarBuffer input;
  CZelvarBuffer output;
  std::unique_ptr<CZelvarBuffer> gzipped;
  bool gzipTried = false;
  bool wasGzip = false;
  bool worked = false;

  // Parsing; the constructor's receiver is the owning server.
  std::unique_ptr<CHtmlConstructor> constructor;

  // Sub-servers: the page's linked stylesheets, its inline style blocks, its
  // sprites, its fetched scripts and its inline scripts.
  std::unique_ptr<CZelvarCssServer> linkedStyles;
  std::unique_ptr<CZelvarCssServer> inlineStyles;
  std::unique_ptr<CZelvarImageServer> images;
  std::unique_ptr<CZelvarJSServer> fetchedScripts;
  std::unique_ptr<CZelvarJSServer> inlineScripts;
  bool linkedStylesUsed = false;
  bool inlineStylesUsed = false;
  // What decides the inline style group's output, for the warm memo.
  Sha256 inlineStylesDigest;

  // The page's downloads. They touch nothing of the page but their own jobs;
  // the pool's destructor gives those still running one more time-out and
  // then leaves them to end on their own.
  std::unique_ptr<FetchPool> fetches;

  // The segments in page order. The last one is always a kText segment; its
  // markup is the end of `markup`, the one string all text segments share
  // (one block for the whole page instead of one per segment).
  std::deque<PageSegment> segments;
  std::string markup;
  std::string* text = &markup;
  bool hasHeadStart = false;
  bool hasHeadEnd = false;

  // Counters.
  std::int32_t bytesAfterExtraGzip = 0;
  std::int32_t bytesAfterExtraRaw = 0;
  std::int32_t bytesBeforeGzip = 0;
  std::int32_t bytesBeforeRaw = 0;
  std::int32_t requestsAfter = 0;
  std::int32_t requestsBefore = 0;

  // Switches, from the settings and the page's marker comments.
  bool cssOn = false;
  bool imagesOn = false;
  bool scriptsOn = false;
  bool noCache = false;
  bool sendStats = false;
  std::optional<std::string> serverUrl;

  // Where the tokenizer stands.
  int insideCode = 0;
  int insidePre = 0;
  int insideScript = 0;
  int insideTextarea = 0;
  bool headSeen = false;
  bool lastTextWasBlank = false;
  // Text is copied through with only its blanks collapsed: not inside a
  // diverted element (style, script) nor preformatted text. Kept up to date
  // after each tag, for the per-byte fast path.
  bool plainText = true;
  bool insideOptimisedStyle = false;
  PageSegment* inlineStyle = nullptr;  // the open kInlineStyle segment
  bool insideFetchedScript = false;
  // An inline script that may be combined: its tag and text wait for its end
  // tag, when the whole text is known and can be judged.
  bool insideInlineScript = false;
  html::TagRecord inlineScriptTag;
  std::string inlineScriptText;
  std::int32_t scriptNumber = 0;

  // Results of the combining.
  std::string linkedStylesId;
  std::string inlineStylesId;
  std::string fetchedScriptsId;
  std::string inlineScriptsId;
  std::array<std::string, kSheetKinds> sheetIds;

  PageSegment& AddSegment(SegmentKind kind);
};

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PAGE_STATE_H_
