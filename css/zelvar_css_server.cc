#include "zelvarpack/zelvar_css_server.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "core/buffer_blocks.h"
#include "core/gzip_twin.h"
#include "core/identifiers.h"
#include "css/css_constructor.h"
#include "css/css_server_state.h"
#include "net/zlib_codec.h"

using zelvarpack::css::CssOutputEntry;
using zelvarpack::css::CssServerState;

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

}  // namespace zelvarpack::css

CZelvarCssServer::CZelvarCssServer(char* cacheDirectory)
    : state_(std::make_unique<CssServerState>()), output_(std::make_unique<CZelvarBuffer>()) {
  state_->cacheDirectory = cacheDirectory != nullptr ? cacheDirectory : "";
}

CZelvarCssServer::~CZelvarCssServer() = default;

std::int32_t CZelvarCssServer::GetSheetCount() const {
  return static_cast<std::int32_t>(state_->sheets.size());
}

void CZelvarCssServer::AddSheet(std::string name, const unsigned char* bytes, std::int32_t length) {
  if (length < 0 || (bytes == nullptr && length > 0)) return;
  // The set beside the list keeps the duplicate test O(1) per sheet.
  if (!state_->names.insert(name).second) return;
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
  state_->sheets.push_back({std::move(name), std::move(copy)});
}

void CZelvarCssServer::AddWork(char* name, unsigned char* bytes, std::int32_t length) {
  AddSheet(name != nullptr ? name : "", bytes, length);
}

void CZelvarCssServer::BeginInlineWork() {
  state_->inlineBuffer = std::make_unique<CZelvarBuffer>();
}

void CZelvarCssServer::AddInlineWork(unsigned char* bytes, std::int32_t length) {
  if (length <= 0 || bytes == nullptr) return;
  state_->inlineBuffer->Append(bytes, length);
}

void CZelvarCssServer::EndInlineWork() {
  // Named by the number of sheets already held ("%ld"), so inline blocks keep
  // their page order among themselves.
  AddSheet(std::to_string(state_->sheets.size()), state_->inlineBuffer->GetValue(),
           state_->inlineBuffer->GetValueLength());
}

void CZelvarCssServer::SetIsFilter(std::int32_t timeoutSeconds, char* serverUrl) {
  isFilter_ = 1;
  state_->timeoutSeconds = timeoutSeconds;
  if (serverUrl != nullptr && serverUrl[0] != '\0') {
    state_->serverUrl = serverUrl;
    state_->hasServerUrl = true;
  }
}

void CZelvarCssServer::DoWork() {
  CssServerState& state = *state_;
  state.entries.clear();
  output_ = std::make_unique<CZelvarBuffer>();
  state.entries.push_back(std::make_unique<CssOutputEntry>(CssOutputEntry::kText));
  text_ = &state.entries.back()->text;
  // Minified text is rarely longer than its source: one block for all, which
  // becomes the output's block.
  std::size_t total = 0;
  for (const auto& sheet : state.sheets) total += sheet.bytes->GetValueLength();
  text_->Reserve(OutputRoom(total));

  for (auto& sheet : state.sheets) {
    SetBase(sheet.name);
    ResetMinifier();
    CCssConstructor constructor(this);
    constructor.Tokenizer()->lineFeedsOnly = true;  // AddSheet turned CR into LF
    constructor.Tokenizer()->Tokenize(sheet.bytes->GetValue(), sheet.bytes->GetValueLength());
    constructor.events = nullptr;
  }
  text_ = nullptr;

  // Every entry is abandoned from here on: a download that ends later leaves
  // its result unused. (Url entries and their downloads exist in filter mode
  // only.)
  for (auto& entry : state.entries) entry->abandoned.store(1);

  // The first entry is always text: its block becomes the output's, with the
  // room the buffer's own growth rule would have given it.
  zelvarpack::css::OutputText& first = state.entries.front()->text;
  const std::size_t firstLength = first.size();
  first.Reserve(ZelvarBufferBlocks::CapacityFor(firstLength) - firstLength);
  std::size_t allocated = 0;
  std::unique_ptr<unsigned char, decltype(&std::free)> block(first.Release(&allocated), &std::free);
  ZelvarBufferBlocks::Adopt(*output_, block.get(), firstLength, allocated);
  block.release();

  for (std::size_t i = 1; i < state.entries.size(); ++i) {
    const CssOutputEntry* entry = state.entries[i].get();
    if (entry->kind == CssOutputEntry::kText) {
      output_->Append(entry->text.data(), static_cast<std::int32_t>(entry->text.size()));
    } else {
      const unsigned char quote[1] = {entry->quote};
      const std::size_t quoteLength = entry->quote != 0 ? 1 : 0;
      output_->AddValue("url(", 4);
      output_->Append(quote, static_cast<std::int32_t>(quoteLength));
      output_->AddValue(entry->address.data(), static_cast<std::int32_t>(entry->address.size()));
      output_->Append(quote, static_cast<std::int32_t>(quoteLength));
      output_->AddValue(")", 1);
    }
  }
}

std::string CZelvarCssServer::GetMinifiedId() {
  const std::string id =
      ContentId(output_->GetValue(), static_cast<std::size_t>(output_->GetValueLength()));
  if (isFilter_) return id;
  zelvarpack::StoreWithGzipTwin(state_->cacheDirectory + "/css", id, output_->GetValue(),
                                static_cast<std::size_t>(output_->GetValueLength()));
  return id;
}

CZelvarBuffer* CZelvarCssServer::GetMinifiedId(std::string id, bool& gzip) {
  zelvarpack::PlainAndGzip pair;
  if (isFilter_) {
    pair.plain = std::make_unique<CZelvarBuffer>();
    pair.plain->Append(output_->GetValue(), output_->GetValueLength());
    pair.gzip = zelvarpack::net::Compress(output_->GetValue(),
                                          static_cast<std::size_t>(output_->GetValueLength()),
                                          zelvarpack::net::ZlibFormat::kGzip);
  } else {
    if (!IsGuidShaped(id)) return nullptr;
    pair = zelvarpack::ReadWithGzipTwin(state_->cacheDirectory + "/css/" + id);
  }
  bool servedGzip = false;
  CZelvarBuffer* body = zelvarpack::ChooseServedBody(std::move(pair), gzip, servedGzip);
  if (servedGzip) wasGzip_ = 1;
  return body;
}
