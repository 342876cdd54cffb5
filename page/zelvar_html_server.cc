#include "zelvarpack/zelvar_html_server.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "core/buffer_blocks.h"
#include "core/file_lock.h"
#include "core/identifiers.h"
#include "core/sha256.h"
#include "image/image_header.h"
#include "page/page_analysis.h"
#include "page/page_state.h"
#include "page/page_writer.h"
#include "page/script_scanner.h"
#include "page/script_text.h"
#include "page/warm_memo.h"
#include "zelvarpack/zelvar_utils.h"

using zelvarpack::page::PageSegment;
using zelvarpack::page::PageState;
using zelvarpack::page::SegmentKind;

namespace {

std::string Copy(const unsigned char* bytes, std::int32_t length) {
  if (bytes == nullptr || length <= 0) return {};
  return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

std::optional<std::string> CopyOrAbsent(const char* text) {
  if (text == nullptr) return std::nullopt;
  return std::string(text);
}

// A stylesheet that imports others cannot join a group: an @import after
// other rules is ignored by browsers. Found conservatively, in comments too.
bool HoldsImportRule(const CZelvarBuffer& body) {
  static constexpr char kImport[] = "@import";
  const auto* bytes = reinterpret_cast<const char*>(const_cast<CZelvarBuffer&>(body).GetValue());
  const std::size_t length = static_cast<std::size_t>(body.GetValueLength());
  for (std::size_t i = 0; i + 7 <= length; ++i) {
    if (bytes[i] != '@') continue;
    std::size_t j = 1;
    while (j < 7 && (bytes[i + j] | 0x20) == kImport[j]) ++j;
    if (j == 7) return true;
  }
  return false;
}

std::string_view BodyText(CZelvarBuffer& body) {
  return {reinterpret_cast<const char*>(body.GetValue()),
          static_cast<std::size_t>(body.GetValueLength())};
}

void AppendTo(CZelvarBuffer& buffer, std::string_view text) {
  buffer.Append(reinterpret_cast<const unsigned char*>(text.data()),
                static_cast<std::int32_t>(text.size()));
}

std::int32_t SizeOf(CZelvarBuffer* buffer) {
  if (buffer == nullptr) return 0;
  const std::int32_t size = buffer->GetValueLength();
  delete buffer;
  return size;
}

// Images larger than this on either side are left as they are: a page's
// stylesheets often size large pictures themselves (responsive widths,
// object-fit), which a sprite background cannot follow, and next to their
// bytes the request a sprite saves is small.
constexpr int kMaxSpriteSide = 256;

// Whether an image may become part of a sprite sheet: small enough, and
// not a transparent PNG bound for an opaque sheet.
bool SpriteMayShow(const PageSegment& segment, std::string_view bytes) {
  if (zelvarpack::image::PngWouldLoseTransparency(bytes)) return false;
  int width = 0, height = 0;
  if (!zelvarpack::image::ReadImageSize(bytes, width, height)) return false;
  if (!segment.declaredWidth.empty()) width = std::atoi(segment.declaredWidth.c_str());
  if (!segment.declaredHeight.empty()) height = std::atoi(segment.declaredHeight.c_str());
  return width <= kMaxSpriteSide && height <= kMaxSpriteSide;
}

// A stylesheet group's identifier: from the warm memo when the same inputs
// were minified before and the sheet is still stored, else by minifying.
std::string CombineStyles(PageState& page, CZelvarCssServer& server, bool used,
                          const std::string& digest) {
  if (!used) return {};
  zelvarpack::page::WarmMemo& memo = zelvarpack::page::WarmMemo::Shared();
  if (std::optional<std::string> id = memo.FindStyles(digest)) {
    if (id->empty()) return {};
    if (zelvarpack::PathExists((page.cacheDirectory + "/css/" + *id).c_str())) return *id;
  }
  server.DoWork();
  std::string id;
  if (server.GetOutput()->GetValueLength() > 0) id = server.GetMinifiedId();
  memo.RememberStyles(digest, id);
  return id;
}

std::string SheetFolder(int kind) {
  static constexpr const char* kFolders[] = {"/gif/", "/jpg/", "/jpg/", "/png/"};
  return kFolders[kind];
}

// Builds the sprite sheets of the page's images (or takes them from the warm
// memo without decoding anything) and marks where each image landed.
// Returns whether any image was placed; counts the placed ones as requests
// and bytes of the page before.
bool PlaceImages(PageState& page, const std::vector<PageSegment*>& images,
                 const std::string& digest) {
  zelvarpack::page::WarmMemo& memo = zelvarpack::page::WarmMemo::Shared();
  std::optional<zelvarpack::page::SpriteResult> result = memo.FindSprites(digest);
  if (result) {
    for (int kind = 0; kind < zelvarpack::page::kSheetKinds; ++kind) {
      const std::string& id = result->sheetIds[static_cast<std::size_t>(kind)];
      if (!id.empty() &&
          !zelvarpack::PathExists((page.cacheDirectory + SheetFolder(kind) + id).c_str())) {
        result.reset();
        break;
      }
    }
  }
  if (!result) {
    result.emplace();
    std::vector<std::int32_t> handles;
    for (PageSegment* segment : images) {
      CZelvarBuffer& body = *segment->fetch->body;
      handles.push_back(page.images->AddImage(body.GetValue(), body.GetValueLength(),
                                              segment->declaredWidth.c_str(),
                                              segment->declaredHeight.c_str(), "0", "0", "0", "0"));
    }
    for (std::int32_t handle : handles) page.images->RouteImage(handle);
    for (int kind = 0; kind < zelvarpack::page::kSheetKinds; ++kind) {
      result->sheetIds[static_cast<std::size_t>(kind)] =
          page.images->BuildSheet(static_cast<CZelvarImageServer::SheetKind>(kind));
    }
    for (std::int32_t handle : handles) {
      CZelvarImagePlacement placement{};
      if (page.images->GetImagePlacement(handle, placement)) {
        result->placements.emplace_back(placement);
      } else {
        result->placements.emplace_back();
      }
    }
    memo.RememberSprites(digest, *result);
  }
  page.sheetIds = result->sheetIds;
  bool anyPlaced = false;
  for (std::size_t i = 0; i < images.size() && i < result->placements.size(); ++i) {
    if (!result->placements[i]) continue;
    PageSegment& segment = *images[i];
    segment.placed = true;
    segment.placement = *result->placements[i];
    anyPlaced = true;
    page.bytesBeforeGzip += segment.fetch->bytesReceived;
    page.bytesBeforeRaw += segment.fetch->bytesUncompressed;
    ++page.requestsBefore;
  }
  return anyPlaced;
}

// Copies bytes [from, to) of ordinary text to `out`, blanks, tabs and line
// feeds collapsed into one blank; `blank` says whether the text written
// before ended in one, and is updated. Returns the end of what was written.
char* CollapseBlanksByByte(const unsigned char* bytes, std::size_t from, std::size_t to, char* out,
                           bool& blank) {
  for (std::size_t i = from; i < to; ++i) {
    unsigned char c = bytes[i];
    if (c > ' ') {
      *out++ = static_cast<char>(c);
      blank = false;
      continue;
    }
    if (c == '\t' || c == '\n') c = ' ';
    if (c == ' ') {
      if (blank) continue;
      blank = true;
    } else {
      blank = false;
    }
    *out++ = static_cast<char>(c);
  }
  return out;
}

// The same for a whole run of `count` bytes.
char* CollapseBlanks(const unsigned char* bytes, std::size_t count, char* out, bool& blank) {
  std::size_t i = 0;
#ifdef __SSE2__
  // Most text is words between single blanks, which come out as they are:
  // 16 bytes are copied whole when their only bytes at or below a blank are
  // blanks, no two of them side by side, and the first is not a blank after
  // a blank; other pieces go byte by byte.
  const __m128i blankByte = _mm_set1_epi8(' ');
  for (; i + 16 <= count; i += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    const auto low = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(chunk, blankByte), blankByte)));
    const auto blanks = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, blankByte)));
    if (low != blanks || (blanks & (blanks << 1)) != 0 || (blank && (blanks & 1) != 0)) {
      out = CollapseBlanksByByte(bytes, i, i + 16, out, blank);
      continue;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), chunk);
    out += 16;
    blank = (blanks & 0x8000) != 0;
  }
#endif
  return CollapseBlanksByByte(bytes, i, count, out, blank);
}

// Pages of this size or more are written into a kept block (see DoWork).
constexpr std::size_t kKeptOutputPage = std::size_t{512} << 10;

// The blocks of pages' markup strings, kept from one page to the next: a
// page's markup is about as large as the page, and on a block taken fresh
// from the system every page pays a page fault for each 4 KB it writes.
// At most kKeptMarkups blocks of at most kMaxKeptMarkup bytes each, for the
// whole process; safe to use from any thread.
class KeptMarkups {
 public:
  static constexpr std::size_t kKeptMarkups = 4;
  static constexpr std::size_t kMaxKeptMarkup = std::size_t{16} << 20;

  // A kept block of at least `capacity` bytes moved into `markup` (which
  // must be empty), or the block reserved fresh.
  static void Take(std::string& markup, std::size_t capacity) {
    {
      std::lock_guard<std::mutex> lock(Mutex());
      std::vector<std::string>& kept = Blocks();
      for (std::size_t i = 0; i < kept.size(); ++i) {
        if (kept[i].capacity() >= capacity) {
          markup.swap(kept[i]);
          kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(i));
          markup.clear();
          return;
        }
      }
    }
    markup.reserve(capacity);
  }

  // Keeps the block of `markup` when there is room (else frees it); leaves
  // `markup` empty without a block.
  static void Give(std::string& markup) {
    std::string block;
    block.swap(markup);
    if (block.capacity() > kMaxKeptMarkup) return;
    block.clear();
    std::lock_guard<std::mutex> lock(Mutex());
    std::vector<std::string>& kept = Blocks();
    if (kept.size() < kKeptMarkups) kept.push_back(std::move(block));
  }

 private:
  // Never destroyed, so that servers destroyed at exit still find them.
  static std::mutex& Mutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
  }
  static std::vector<std::string>& Blocks() {
    static auto* blocks = new std::vector<std::string>;
    return *blocks;
  }
};

}  // namespace

CZelvarHtmlServer::CZelvarHtmlServer(char* cacheDirectory, std::int32_t optimise,
                                     bool fetchForeignHosts, bool keepComments, bool useOwnHost,
                                     std::int32_t timeoutSeconds, char* handlerPath,
                                     void* callerContext, unsigned char* clientAddress,
                                     std::int32_t clientAddressLength, unsigned char* serverAddress,
                                     std::int32_t serverAddressLength, unsigned char* pageUrl,
                                     std::int32_t pageUrlLength, const char* forwardA,
                                     const char* forwardB, const char* forwardC,
                                     const char* forwardD, const char* userAgent)
    : state_(std::make_unique<PageState>()) {
  PageState& page = *state_;
  page.cacheDirectory = cacheDirectory != nullptr ? cacheDirectory : "";
  page.optimise = optimise != 0;
  page.cssOn = page.imagesOn = page.scriptsOn = page.optimise;
  page.fetchForeignHosts = fetchForeignHosts;
  page.keepComments = keepComments;
  page.useOwnHost = useOwnHost;
  page.timeoutSeconds = timeoutSeconds;
  if (handlerPath != nullptr && handlerPath[0] != '\0') page.handlerPath = handlerPath;
  page.callerContext = callerContext;
  // The client's address goes into X-Forwarded-For; an IPv6 address is
  // written in brackets.
  page.clientAddress = Copy(clientAddress, clientAddressLength);
  if (page.clientAddress.find(':') != std::string::npos) {
    page.clientAddress = "[" + page.clientAddress + "]";
  }
  // The server address is a host for URLs: only an IPv6 literal (two or
  // more colons) needs brackets; "host:port" stays as it is.
  if (serverAddress != nullptr && serverAddressLength > 0) {
    std::string server = Copy(serverAddress, serverAddressLength);
    const std::size_t colons =
        static_cast<std::size_t>(std::count(server.begin(), server.end(), ':'));
    const bool hasScheme = server.find("://") != std::string::npos;
    if (!hasScheme && colons >= 2 && server.front() != '[') server = "[" + server + "]";
    page.serverAddress = std::move(server);
  }
  page.pageUrl = Copy(pageUrl, pageUrlLength);
  page.pageAddress = zelvarpack::page::ParsePageAddress(page.pageUrl);
  page.userAgent = userAgent;

  char* cache = page.cacheDirectory.data();
  page.linkedStyles = std::make_unique<CZelvarCssServer>(cache);
  page.inlineStyles = std::make_unique<CZelvarCssServer>(cache);
  page.images = std::make_unique<CZelvarImageServer>(cache);
  page.fetchedScripts = std::make_unique<CZelvarJSServer>(cache);
  page.inlineScripts = std::make_unique<CZelvarJSServer>(cache);

  zelvarpack::page::FetchSettings settings;
  settings.cacheDirectory = page.cacheDirectory;
  settings.acceptCharset = CopyOrAbsent(forwardA);
  settings.acceptLanguage = CopyOrAbsent(forwardB);
  settings.referer = page.pageUrl;
  if (clientAddress != nullptr) settings.forwardedFor = page.clientAddress;
  settings.reservedA = CopyOrAbsent(forwardC);
  settings.reservedB = CopyOrAbsent(forwardD);
  settings.userAgent = CopyOrAbsent(userAgent);
  // A download never runs without a limit: without waiting, one that is
  // left behind still ends within a minute.
  settings.timeoutSeconds = timeoutSeconds > 0 ? timeoutSeconds : 60;
  settings.waitSeconds = timeoutSeconds > 0 ? timeoutSeconds : 0;
  page.fetches = std::make_unique<zelvarpack::page::FetchPool>(std::move(settings));

  page.constructor = std::make_unique<CHtmlConstructor>(this);
  page.AddSegment(SegmentKind::kText);
}

CZelvarHtmlServer::~CZelvarHtmlServer() = default;

const PageState& zelvarpack::page::StateOf(const CZelvarHtmlServer& server) {
  return *server.state_;
}

void CZelvarHtmlServer::AddWork(unsigned char* data, std::int32_t length) {
  if (data == nullptr || length <= 0) return;
  state_->input.Append(data, length);
}

void CZelvarHtmlServer::DoWork() {
  PageState& page = *state_;
  if (page.worked) return;
  page.worked = true;

  // 1. Tokenize. The tokenizer turns CRs into LFs in place, and a page that
  // is returned unchanged must keep its own bytes: a page holding a CR is
  // tokenized from a copy.
  const std::size_t inputLength = static_cast<std::size_t>(page.input.GetValueLength());
  if (page.markup.empty()) {
    KeptMarkups::Take(page.markup, inputLength + inputLength / 8 + 256);
  } else {
    page.markup.reserve(inputLength + inputLength / 8 + 256);
  }
  if (std::memchr(page.input.GetValue(), '\r', inputLength) == nullptr) {
    page.constructor->Tokenizer()->Tokenize(page.input.GetValue(), static_cast<int>(inputLength));
  } else {
    std::string work(reinterpret_cast<const char*>(page.input.GetValue()), inputLength);
    page.constructor->Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(work.data()),
                                            static_cast<int>(work.size()));
  }
  zelvarpack::page::FinishAnalysis(page);
  ++page.requestsBefore;

  // 2-3. Wait for the downloads (woken by the last one), then stop waiting.
  const auto timeout = std::chrono::seconds(page.timeoutSeconds > 0 ? page.timeoutSeconds : 0);
  if (page.timeoutSeconds > 0) {
    page.fetches->WaitUntilFinished(std::chrono::steady_clock::now() + timeout);
  }
  page.fetches->Abandon();
  for (PageSegment& segment : page.segments) {
    if (segment.fetch) {
      segment.done = page.fetches->IsDone(*segment.fetch) && segment.fetch->body &&
                     segment.fetch->body->GetValueLength() > 0;
    }
  }
  if (!page.hasHeadStart || !page.hasHeadEnd) {
    page.output.Append(page.input.GetValue(), page.input.GetValueLength());
    return;
  }

  // 4. Collect what arrived into the groups.
  zelvarpack::Sha256 linkedDigest;
  linkedDigest.UpdatePiece(page.cacheDirectory);
  zelvarpack::Sha256 imageDigest;
  imageDigest.UpdatePiece(page.cacheDirectory);
  std::vector<PageSegment*> images;
  for (PageSegment& segment : page.segments) {
    if (!segment.done) continue;
    zelvarpack::page::FetchJob& job = *segment.fetch;
    CZelvarBuffer& body = *job.body;
    switch (segment.kind) {
      case SegmentKind::kStylesheet: {
        if (HoldsImportRule(body)) break;
        page.linkedStyles->AddWork(job.publicUrl.data(), body.GetValue(), body.GetValueLength());
        linkedDigest.UpdatePiece(job.publicUrl);
        linkedDigest.UpdatePiece(BodyText(body));
        page.linkedStylesUsed = true;
        segment.combined = true;
        page.bytesBeforeGzip += job.bytesReceived;
        page.bytesBeforeRaw += job.bytesUncompressed;
        ++page.requestsBefore;
        break;
      }
      case SegmentKind::kScript: {
        if (!zelvarpack::page::IsSafeForEval(BodyText(body))) break;
        segment.scriptNumber = ++page.scriptNumber;
        segment.combined = true;
        std::string literal = zelvarpack::page::ScriptVariableOpening(segment.scriptNumber);
        zelvarpack::page::AppendEscapedScript(literal, BodyText(body));
        literal += zelvarpack::page::kScriptVariableClosing;
        AppendTo(*page.fetchedScripts->GetContent(), literal);
        page.bytesBeforeGzip += job.bytesReceived;
        page.bytesBeforeRaw += job.bytesUncompressed;
        ++page.requestsBefore;
        break;
      }
      case SegmentKind::kImage:
        if (!SpriteMayShow(segment, BodyText(body))) break;
        images.push_back(&segment);
        imageDigest.UpdatePiece(BodyText(body));
        imageDigest.UpdatePiece(segment.declaredWidth);
        imageDigest.UpdatePiece(segment.declaredHeight);
        break;
      default:
        break;
    }
  }

  // 5. Images: sprite sheets and each image's place in them.
  if (!images.empty() && PlaceImages(page, images, imageDigest.FinishHex())) {
    AppendTo(*page.fetchedScripts->GetContent(), zelvarpack::page::kLazyImageScript);
  }

  // 6. Combine and store.
  page.linkedStylesId =
      CombineStyles(page, *page.linkedStyles, page.linkedStylesUsed, linkedDigest.FinishHex());
  page.inlineStylesDigest.UpdatePiece(page.cacheDirectory);
  page.inlineStylesId = CombineStyles(page, *page.inlineStyles, page.inlineStylesUsed,
                                      page.inlineStylesDigest.FinishHex());
  ++page.requestsAfter;
  for (const std::string& id : page.sheetIds) {
    if (!id.empty()) ++page.requestsAfter;
  }
  if (page.fetchedScripts->GetContent()->GetValueLength() > 0) {
    page.fetchedScriptsId = page.fetchedScripts->Store();
  }
  if (page.inlineScripts->GetContent()->GetValueLength() > 0) {
    page.inlineScriptsId = page.inlineScripts->Store();
  }

  // 7. Write the new page. A large page is written into a block of whole
  // huge pages that its buffer keeps for the next large page when the server
  // is destroyed (ZelvarBufferBlocks): a fresh block would cost a page fault
  // for every 4 KB written. Such a block is at least 4 MB, so only pages of
  // kKeptOutputPage bytes or more take one.
  if (inputLength >= kKeptOutputPage && page.output.GetValueLength() == 0) {
    std::size_t allocated = 0;
    unsigned char* block = ZelvarBufferBlocks::Allocate(
        std::max(ZelvarBufferBlocks::kHugeThreshold, page.markup.size() + inputLength / 4 + 65536),
        &allocated);
    ZelvarBufferBlocks::Adopt(page.output, block, 0, allocated);
  }
  zelvarpack::page::WritePage(page, page.output);
  page.segments.clear();
  KeptMarkups::Give(page.markup);

  // 8. Give downloads still running one more time-out to end.
  page.fetches->Join(std::chrono::steady_clock::now() + timeout);
}

CZelvarBuffer* CZelvarHtmlServer::GetRawZelvarBuffer(bool& gzip) {
  PageState& page = *state_;
  if (!gzip) return &page.output;
  if (!page.gzipTried) {
    page.gzipTried = true;
    page.gzipped.reset(CZelvarUtils::CompressBuffer(page.output.GetValue(),
                                                    page.output.GetValueLength(), false, true));
  }
  if (!page.gzipped || page.gzipped->GetValueLength() >= page.output.GetValueLength()) {
    gzip = false;
    return &page.output;
  }
  page.wasGzip = true;
  return page.gzipped.get();
}

bool CZelvarHtmlServer::GetRawZelvarBufferWasGzip() const { return state_->wasGzip; }

std::string CZelvarHtmlServer::GetId() {
  return IdFromNumber(CollateHash(state_->output.GetValue(),
                                  static_cast<std::size_t>(state_->output.GetValueLength())));
}

std::int32_t CZelvarHtmlServer::GetBytesBefore(bool gzip) const {
  return gzip ? state_->bytesBeforeGzip : state_->bytesBeforeRaw;
}

std::int32_t CZelvarHtmlServer::GetBytesAfter(std::int32_t pageBytes, bool gzip) {
  PageState& page = *state_;
  std::uint32_t total = static_cast<std::uint32_t>(pageBytes);
  auto add = [&total](CZelvarBuffer* result) {
    total += static_cast<std::uint32_t>(SizeOf(result));
  };
  bool flag = gzip;
  if (page.linkedStylesUsed && !page.linkedStylesId.empty()) {
    flag = gzip;
    add(page.linkedStyles->GetMinifiedId(page.linkedStylesId, flag));
  }
  if (page.inlineStylesUsed && !page.inlineStylesId.empty()) {
    flag = gzip;
    add(page.inlineStyles->GetMinifiedId(page.inlineStylesId, flag));
  }
  if (!page.fetchedScriptsId.empty()) {
    flag = gzip;
    add(page.fetchedScripts->GetRawId(page.fetchedScriptsId, flag));
  }
  if (!page.inlineScriptsId.empty()) {
    flag = gzip;
    add(page.inlineScripts->GetRawId(page.inlineScriptsId, flag));
  }
  auto sheetSize = [](CZelvarImages* images) -> std::uint32_t {
    if (images == nullptr) return 0;
    bool unused = false;
    const auto size =
        static_cast<std::uint32_t>(images->GetRawImageZelvarBuffer(unused)->GetValueLength());
    delete images;
    return size;
  };
  if (!page.sheetIds[0].empty()) total += sheetSize(page.images->GetGifId(page.sheetIds[0]));
  if (!page.sheetIds[1].empty()) total += sheetSize(page.images->GetJpgId(page.sheetIds[1]));
  if (!page.sheetIds[2].empty()) total += sheetSize(page.images->GetPng24Id(page.sheetIds[2]));
  if (!page.sheetIds[3].empty()) total += sheetSize(page.images->GetPng32Id(page.sheetIds[3]));
  total += static_cast<std::uint32_t>(gzip ? page.bytesAfterExtraGzip : page.bytesAfterExtraRaw);
  return static_cast<std::int32_t>(total);
}

std::int32_t CZelvarHtmlServer::GetRequestsBefore() const { return state_->requestsBefore; }
std::int32_t CZelvarHtmlServer::GetRequestsAfter() const { return state_->requestsAfter; }
bool CZelvarHtmlServer::GetSendStats() const { return state_->sendStats; }

void CZelvarHtmlServer::OnTag(HtmlTagToken* tag) {
  if (tag != nullptr) zelvarpack::page::AnalyseTag(*state_, *tag);
}

void CZelvarHtmlServer::OnDoctype(HtmlDoctypeToken* doctype) {
  if (doctype != nullptr) zelvarpack::page::AnalyseDoctype(*state_, *doctype);
}

void CZelvarHtmlServer::OnText(HtmlTextToken* text) {
  if (text == nullptr) return;
  PageState& page = *state_;
  // The hot path, most bytes of a page: one visible character of ordinary
  // text, copied through.
  if (page.plainText && text->text.length == 1 && text->kind == HtmlTextToken::kCharacter &&
      !text->cdata && text->text.data[0] > ' ') {
    page.markup.push_back(static_cast<char>(text->text.data[0]));
    page.lastTextWasBlank = false;
    return;
  }
  zelvarpack::page::AnalyseText(page, *text);
}

void CZelvarHtmlServer::OnTextRun(HtmlTextToken* character, const unsigned char* bytes,
                                  std::size_t count) {
  PageState& page = *state_;
  if (!page.plainText || page.text != &page.markup) {
    CHtmlConstructorEvents::OnTextRun(character, bytes, count);
    return;
  }
  // Ordinary text, most of a page: visible bytes are copied, and blanks,
  // tabs and line feeds collapse into one blank, byte for byte as OnText
  // would do them one at a time. The run is written into room made for all
  // of it, then the string is cut to what was written.
  std::string& out = page.markup;
  const std::size_t start = out.size();
  out.resize(start + count);
  char* const begin = out.data() + start;
  const char* const end = CollapseBlanks(bytes, count, begin, page.lastTextWasBlank);
  out.resize(start + static_cast<std::size_t>(end - begin));
}
