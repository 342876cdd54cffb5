#include "zelvarpack/zelvar_css_server.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "core/buffer_blocks.h"
#include "core/gzip_twin.h"
#include "core/identifiers.h"
#include "css/css_chars.h"
#include "css/css_constructor.h"
#include "css/css_downloads.h"
#include "css/css_minifier.h"
#include "css/css_server_state.h"
#include "css/css_sprites.h"
#include "net/zlib_codec.h"

using zelvarpack::css::CssOutputEntry;
using zelvarpack::css::CssServerState;
using zelvarpack::css::ToAsciiLower;

namespace {

constexpr std::size_t kAnySize = std::numeric_limits<std::int32_t>::max();

// Copies `count` bytes with every CR written as LF (so CR LF is two line
// feeds, as the tokenizer's own preprocessing makes it). Piece by piece, so
// that the search for CR reads bytes that are still in the cache.
void CopyWithLineFeeds(unsigned char* to, const unsigned char* from, std::size_t count) {
  constexpr std::size_t kPiece = 64 * 1024;
  for (std::size_t done = 0; done < count;) {
    const std::size_t n = std::min(kPiece, count - done);
    unsigned char* piece = to + done;
    std::memcpy(piece, from + done, n);
    unsigned char* const end = piece + n;
    for (auto* cr = static_cast<unsigned char*>(std::memchr(piece, '\r', n)); cr != nullptr;
         cr = static_cast<unsigned char*>(std::memchr(cr + 1, '\r', end - cr - 1))) {
      *cr = '\n';
    }
    done += n;
  }
}

// Room for minified text a little longer than its source (relative url
// references gain the sheet's folder) before the block has to grow.
std::size_t OutputRoom(std::size_t source) {
  return source + source / 32 + 256 + CZelvarBuffer::kSlack;
}

}  // namespace

namespace zelvarpack::css {

OutputText::~OutputText() { std::free(data_); }

void OutputText::Grow(std::size_t extra) {
  std::size_t capacity = capacity_ < 256 ? 256 : capacity_;
  while (capacity - size_ < extra) capacity *= 2;
  auto* block = static_cast<unsigned char*>(std::realloc(data_, capacity));
  if (block == nullptr) throw std::bad_alloc();
  data_ = block;
  capacity_ = capacity;
}

void OutputText::Reallocate(std::size_t capacity) {
  std::size_t allocated = 0;
  unsigned char* block = ZelvarBufferBlocks::Allocate(capacity, &allocated);
  if (size_ > 0) std::memcpy(block, data_, size_);
  std::free(data_);
  data_ = block;
  capacity_ = allocated;
}

// What CZelvarCssServer forwards to: the sheets and output entries, the
// minifier that writes them, and the stored output.
class CssServerCore {
 public:
  explicit CssServerCore(const char* cacheDirectory) : minifier(state) {
    state.cacheDirectory = cacheDirectory != nullptr ? cacheDirectory : "";
  }

  void AddSheet(std::string name, const unsigned char* bytes, std::int32_t length);
  void SetBase(const std::string& sheetName);
  void DoWork();
  // Filter mode: downloads the url entries, then places their images.
  void FetchAndPlace();
  void WriteEntries(std::size_t first);
  std::string GetMinifiedId();
  CZelvarBuffer* GetMinifiedId(const std::string& id, bool& gzip);

  CssServerState state;
  CssMinifier minifier;
  std::unique_ptr<CZelvarBuffer> output = std::make_unique<CZelvarBuffer>();
  unsigned char wasGzip = 0;
};

}  // namespace zelvarpack::css

using zelvarpack::css::CssServerCore;

CZelvarCssServer::CZelvarCssServer(char* cacheDirectory)
    : core_(std::make_unique<CssServerCore>(cacheDirectory)) {}

CZelvarCssServer::~CZelvarCssServer() = default;

std::int32_t CZelvarCssServer::GetSheetCount() const {
  return static_cast<std::int32_t>(core_->state.sheets.size());
}

bool CZelvarCssServer::GetWasGzip() const { return core_->wasGzip != 0; }

CZelvarBuffer* CZelvarCssServer::GetOutput() { return core_->output.get(); }

void CssServerCore::AddSheet(std::string name, const unsigned char* bytes, std::int32_t length) {
  if (length < 0 || (bytes == nullptr && length > 0)) return;
  // The set beside the list keeps the duplicate test O(1) per sheet.
  if (!state.names.insert(name).second) return;
  // The copy is made with CR already turned into LF, so the tokenizer need
  // not look for CR again.
  auto copy = std::make_unique<CZelvarBuffer>();
  const auto count = static_cast<std::size_t>(length);
  // The buffer's 32-bit limit, checked before the copy is made.
  if (ZelvarBufferBlocks::CapacityFor(count) > kAnySize) throw std::bad_alloc();
  std::size_t allocated = 0;
  std::unique_ptr<unsigned char, decltype(&std::free)> block(
      ZelvarBufferBlocks::Allocate(ZelvarBufferBlocks::CapacityFor(count), &allocated), &std::free);
  CopyWithLineFeeds(block.get(), bytes, count);
  ZelvarBufferBlocks::Adopt(*copy, block.get(), count, allocated);
  block.release();
  state.sheets.push_back({std::move(name), std::move(copy)});
}

void CZelvarCssServer::AddWork(char* name, unsigned char* bytes, std::int32_t length) {
  core_->AddSheet(name != nullptr ? name : "", bytes, length);
}

void CZelvarCssServer::BeginInlineWork() {
  core_->state.inlineBuffer = std::make_unique<CZelvarBuffer>();
}

void CZelvarCssServer::AddInlineWork(unsigned char* bytes, std::int32_t length) {
  if (length <= 0 || bytes == nullptr) return;
  core_->state.inlineBuffer->Append(bytes, length);
}

void CZelvarCssServer::EndInlineWork() {
  // Named by the number of sheets already held ("%ld"), so inline blocks keep
  // their page order among themselves.
  CssServerState& state = core_->state;
  core_->AddSheet(std::to_string(state.sheets.size()), state.inlineBuffer->GetValue(),
                  state.inlineBuffer->GetValueLength());
}

void CZelvarCssServer::SetIsFilter(std::int32_t timeoutSeconds, char* serverUrl) {
  CssServerState& state = core_->state;
  state.isFilter = true;
  state.timeoutSeconds = timeoutSeconds;
  if (serverUrl != nullptr && serverUrl[0] != '\0') {
    state.serverUrl = serverUrl;
    state.hasServerUrl = true;
  }
}

void CZelvarCssServer::DoWork() { core_->DoWork(); }

std::string CZelvarCssServer::GetMinifiedId() { return core_->GetMinifiedId(); }

CZelvarBuffer* CZelvarCssServer::GetMinifiedId(std::string id, bool& gzip) {
  return core_->GetMinifiedId(id, gzip);
}

namespace zelvarpack::css {

void CssServerCore::DoWork() {
  state.entries.clear();
  output = std::make_unique<CZelvarBuffer>();
  state.entries.push_back(std::make_shared<CssOutputEntry>(CssOutputEntry::kText));
  // Minified text is rarely longer than its source: one block for all, which
  // becomes the output's block.
  std::size_t total = 0;
  for (const auto& sheet : state.sheets) total += sheet.bytes->GetValueLength();
  state.entries.back()->text.Reserve(OutputRoom(total));

  for (auto& sheet : state.sheets) {
    SetBase(sheet.name);
    minifier.BeginSheet();
    CCssConstructor constructor(&minifier);
    constructor.Tokenizer()->lineFeedsOnly = true;  // AddSheet turned CR into LF
    constructor.Tokenizer()->Tokenize(sheet.bytes->GetValue(), sheet.bytes->GetValueLength());
    constructor.events = nullptr;
  }
  if (state.isFilter) FetchAndPlace();

  // The first entry is always text: its block becomes the output's, with the
  // room the buffer's own growth rule would have given it.
  zelvarpack::css::OutputText& first = state.entries.front()->text;
  const std::size_t firstLength = first.size();
  first.Reserve(ZelvarBufferBlocks::CapacityFor(firstLength) - firstLength);
  std::size_t allocated = 0;
  std::unique_ptr<unsigned char, decltype(&std::free)> block(first.Release(&allocated), &std::free);
  ZelvarBufferBlocks::Adopt(*output, block.get(), firstLength, allocated);
  block.release();
  WriteEntries(1);
}

// The base of the sheet's url references: its name when that is an absolute
// "http:" or "https:" address (compared without regard to case), split into
// the scheme, the origin (scheme "://" host) and the prefix of relative
// references (the origin and the directory, ending in "/"), all as written.
// No query; a base without "://" resolves nothing.
void CssServerCore::SetBase(const std::string& sheetName) {
  state.canResolve = false;
  state.baseUrl.clear();
  auto startsWith = [&](std::string_view literal) {
    if (sheetName.size() < literal.size()) return false;
    for (std::size_t i = 0; i < literal.size(); ++i) {
      if (ToAsciiLower(static_cast<unsigned char>(sheetName[i])) != literal[i]) return false;
    }
    return true;
  };
  if (!startsWith("http:") && !startsWith("https:")) return;
  state.baseUrl = sheetName;
  const std::string base = state.baseUrl.substr(0, state.baseUrl.find('?'));
  const std::size_t separator = base.find("://");
  if (separator == std::string::npos) return;
  state.baseScheme = base.substr(0, separator);
  const std::size_t pathStart = base.find('/', separator + 3);
  state.baseOrigin = base.substr(0, pathStart);
  state.basePrefix = state.baseOrigin;
  if (pathStart == std::string::npos) {
    state.basePrefix += '/';
  } else {
    state.basePrefix += base.substr(pathStart, base.rfind('/') - pathStart + 1);
  }
  state.canResolve = true;
}

void CssServerCore::FetchAndPlace() {
  std::vector<std::shared_ptr<CssOutputEntry>> urls;
  for (const auto& entry : state.entries) {
    if (entry->kind == CssOutputEntry::kUrl) urls.push_back(entry);
  }
  if (!urls.empty() && state.timeoutSeconds > 0) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(state.timeoutSeconds);
    auto downloads = CssDownloads::Create(state.baseUrl, state.timeoutSeconds);
    for (const auto& entry : urls) downloads->Start(entry);
    downloads->WaitUntil(deadline);
    // From here on a download that ends leaves its result unused.
    downloads->AbandonAll(urls);
  } else {
    for (const auto& entry : urls) entry->abandoned.store(1);
  }
  PlaceInSprites(state, state.cacheDirectory);
}

void CssServerCore::WriteEntries(std::size_t first) {
  auto add = [this](const void* bytes, std::size_t count) {
    output->Append(static_cast<const unsigned char*>(bytes), static_cast<std::int32_t>(count));
  };
  for (std::size_t i = first; i < state.entries.size(); ++i) {
    const CssOutputEntry* entry = state.entries[i].get();
    if (entry->kind == CssOutputEntry::kText) {
      add(entry->text.data(), entry->text.size());
    } else if (entry->kind == CssOutputEntry::kUrl) {
      const unsigned char quote[1] = {entry->quote};
      const std::size_t quoteLength = entry->quote != 0 ? 1 : 0;
      const std::string& address =
          entry->spriteAddress.empty() ? entry->address : entry->spriteAddress;
      add("url(", 4);
      add(quote, quoteLength);
      add(address.data(), address.size());
      add(quote, quoteLength);
      add(")", 1);
    } else if (entry->of != nullptr && !entry->of->spriteGeometry.empty()) {
      // After the rule's last declaration: longhands that override the
      // shorthand's position, size and repeat.
      const std::int32_t length = output->GetValueLength();
      const unsigned char last = length > 0 ? output->GetValue()[length - 1] : '{';
      if (last != ';' && last != '{') add(";", 1);
      add(entry->of->spriteGeometry.data(), entry->of->spriteGeometry.size());
    }
  }
}

std::string CssServerCore::GetMinifiedId() {
  const std::string id =
      ContentId(output->GetValue(), static_cast<std::size_t>(output->GetValueLength()));
  if (state.isFilter) return id;
  const std::size_t length = static_cast<std::size_t>(output->GetValueLength());
  return zelvarpack::StoreContentWithGzipTwin(state.cacheDirectory + "/css",
                                              CollateHash(output->GetValue(), length),
                                              output->GetValue(), length);
}

CZelvarBuffer* CssServerCore::GetMinifiedId(const std::string& id, bool& gzip) {
  zelvarpack::PlainAndGzip pair;
  if (state.isFilter) {
    pair.plain = std::make_unique<CZelvarBuffer>();
    pair.plain->Append(output->GetValue(), output->GetValueLength());
    pair.gzip = zelvarpack::net::Compress(output->GetValue(),
                                          static_cast<std::size_t>(output->GetValueLength()),
                                          zelvarpack::net::ZlibFormat::kGzip);
  } else {
    if (!IsGuidShaped(id)) return nullptr;
    pair = zelvarpack::ReadWithGzipTwin(state.cacheDirectory + "/css/" + id);
  }
  bool servedGzip = false;
  CZelvarBuffer* body = zelvarpack::ChooseServedBody(std::move(pair), gzip, servedGzip);
  if (servedGzip) wasGzip = 1;
  return body;
}

}  // namespace zelvarpack::css
