#include "zelvarpack/zelvar_css_server.h"

#include <cstdlib>
#include <limits>
#include <string_view>
#include <utility>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/identifiers.h"
#include "css/css_constructor.h"
#include "css/css_server_state.h"
#include "net/zlib_codec.h"

using zelvarpack::css::CssOutputEntry;
using zelvarpack::css::CssServerState;

namespace {

constexpr std::size_t kAnySize = std::numeric_limits<std::int32_t>::max();

std::string_view Bytes(CZelvarBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.GetValue()),
          static_cast<std::size_t>(buffer.GetValueLength())};
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
  auto copy = std::make_unique<CZelvarBuffer>();
  copy->Append(bytes, length);
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
  // Minified text is rarely longer than its source: one block for all.
  std::size_t total = 0;
  for (const auto& sheet : state.sheets) total += sheet.bytes->GetValueLength();
  text_->Reserve(total);

  for (auto& sheet : state.sheets) {
    SetBase(sheet.name);
    ResetMinifier();
    CCssConstructor constructor(this);
    constructor.Tokenizer()->Tokenize(sheet.bytes->GetValue(), sheet.bytes->GetValueLength());
    constructor.events = nullptr;
  }
  text_ = nullptr;

  // Every entry is abandoned from here on: a download that ends later leaves
  // its result unused. (Url entries and their downloads exist in filter mode
  // only.)
  for (auto& entry : state.entries) entry->abandoned.store(1);

  for (auto& entry : state.entries) {
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
  const std::string folder = state_->cacheDirectory + "/css";
  const std::string path = folder + "/" + id;
  if (isFilter_ || zelvarpack::PathExists(path.c_str())) return id;
  zelvarpack::EnsureFolder(folder);
  const std::unique_ptr<CZelvarBuffer> gzip = zelvarpack::net::Compress(
      output_->GetValue(), static_cast<std::size_t>(output_->GetValueLength()),
      zelvarpack::net::ZlibFormat::kGzip);
  // The gzip twin goes first: the plain file marks the work done, so once it
  // exists its twin does too, even after a crash in between.
  using zelvarpack::Publish;
  if (zelvarpack::PublishFile(path + ".g", {Bytes(*gzip)}, Publish::kKeepExisting)) {
    zelvarpack::PublishFile(path, {Bytes(*output_)}, Publish::kKeepExisting);
  }
  return id;
}

CZelvarBuffer* CZelvarCssServer::GetMinifiedId(std::string id, bool& gzip) {
  std::unique_ptr<CZelvarBuffer> plain;
  std::unique_ptr<CZelvarBuffer> compressed;
  if (isFilter_) {
    plain = std::make_unique<CZelvarBuffer>();
    plain->Append(output_->GetValue(), output_->GetValueLength());
    compressed = zelvarpack::net::Compress(output_->GetValue(),
                                           static_cast<std::size_t>(output_->GetValueLength()),
                                           zelvarpack::net::ZlibFormat::kGzip);
  } else {
    if (!IsGuidShaped(id)) return nullptr;
    const std::string path = state_->cacheDirectory + "/css/" + id;
    plain = zelvarpack::ReadCacheFile(path, kAnySize);
    compressed = zelvarpack::ReadCacheFile(path + ".g", kAnySize);
  }
  // The script server's choice.
  if (!plain || !gzip) {
    if (compressed) gzip = false;
    return plain.release();
  }
  if (!compressed) return plain.release();
  if (compressed->GetValueLength() == 0 ||
      compressed->GetValueLength() >= plain->GetValueLength()) {
    gzip = false;
    return plain.release();
  }
  wasGzip_ = 1;
  return compressed.release();
}
