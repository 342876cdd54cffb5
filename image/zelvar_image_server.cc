#include "zelvarpack/zelvar_image_server.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <thread>

#include "core/cache_files.h"
#include "core/file_lock.h"
#include "core/gzip_twin.h"
#include "core/identifiers.h"
#include "core/sha256.h"
#include "image/codec.h"
#include "image/decode_pool.h"
#include "image/sprite_sheet.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

using zelvarpack::image::Cell;
using zelvarpack::image::DecodeLimits;
using zelvarpack::image::ImageFormat;
using zelvarpack::image::RgbaImage;
using zelvarpack::image::SheetSize;

constexpr std::int32_t kMaxMargin = 4096;
constexpr std::int64_t kMaxSheetSide = 16384;
constexpr std::int64_t kMaxSheetPixels = 64 * 1024 * 1024;
// Decoded pixels one server may hold at once, over all its images.
constexpr std::int64_t kMaxHeldPixels = 64 * 1024 * 1024;
constexpr std::size_t kMaxThreads = 4;
constexpr std::size_t kMaxSheetFileBytes = std::size_t{1} << 30;
constexpr std::size_t kMaxIndexFileBytes = std::size_t{64} << 20;

// What atoi reads from the text (leading blanks, a sign, digits), clamped to
// 32 bits instead of overflowing; 0 when there are no digits.
std::int64_t ParseLeadingInt(const std::string& text) {
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  return std::clamp<long long>(value, std::numeric_limits<std::int32_t>::min(),
                               std::numeric_limits<std::int32_t>::max());
}

struct SetInfo {
  const char* folder;
  bool encodePng;  // else JPEG with the quality search (the 24-bit sheets)
};
constexpr std::array<SetInfo, 4> kSets = {{
    {"/gif", true},   // GIF sources: a PNG sheet keeps their transparency
    {"/jpg", false},  // JPEG sources
    {"/jpg", false},  // PNG sources below 32 bits, deliberately made JPEG
    {"/png", true},   // PNG sources of 32 bits
}};

}  // namespace

// One added image. The fields above `finished` are written by the decoding
// job alone and read only after `finished` is seen true; the rest belong to
// the server's thread.
struct ImageRecord {
  std::string source;
  std::string declaredWidth;
  std::string declaredHeight;
  std::int64_t marginBottom = 0, marginLeft = 0, marginRight = 0, marginTop = 0;

  bool accepted = false;
  ImageFormat format = ImageFormat::kUnknown;
  std::uint8_t pngDepth = 0;
  RgbaImage image;
  std::int32_t width = 0;  // as drawn: the declared width when given
  std::int32_t height = 0;
  std::int32_t key = 0;
  std::atomic<bool> finished{false};

  std::int32_t set = -1;
  bool hasEntry = false;
  CZelvarImageEntry entry{};
};

// A set's sheet as packed, drawn and encoded from the set's first
// `recordCount` records; `encoded` is empty when the sheet does not fit or
// could not be encoded.
struct ComposedSheet {
  std::size_t recordCount = 0;
  std::vector<Cell> cells;
  SheetSize size;
  bool fits = false;
  std::string encoded;
};

// A sheet composed ahead of its BuildSheet on the pool. The job writes
// `sheet` and `made`, then sets `finished`; the owner reads them only after
// seeing `finished` true.
struct SheetAhead {
  ComposedSheet sheet;
  bool made = false;  // false when the job ran out of memory
  std::atomic<bool> finished{false};
};

struct ImageSet {
  std::vector<ImageRecord*> records;  // in routing order
  std::string source;                 // the sources, concatenated in routing order
  bool done = false;
  std::string id;
  std::unique_ptr<SheetAhead> ahead;
};

struct CZelvarImageServer::State {
  std::string cachePath;
  std::vector<std::unique_ptr<ImageRecord>> records;
  std::array<ImageSet, 4> sets;
  std::atomic<std::int64_t> heldPixels{0};
  // Last member: destroyed first, so running jobs end while the records
  // they write still exist.
  zelvarpack::image::DecodePool pool{
      std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMaxThreads)};

  ImageRecord* Record(std::int32_t handle) const {
    if (handle < 0 || static_cast<std::size_t>(handle) >= records.size()) return nullptr;
    return records[static_cast<std::size_t>(handle)].get();
  }
  // The decoding job: never throws, ends by setting `finished`.
  void Decode(ImageRecord& record);
  bool Accept(ImageRecord& record);
  std::string Build(std::int32_t kind);
  void StartAhead(std::int32_t kind);
  // Waits for the set's sheet made ahead, if one was started, and returns it
  // when it is still the sheet of the whole set.
  std::unique_ptr<SheetAhead> TakeAhead(ImageSet& set);
  CZelvarImages* Read(const std::string& folder, const std::string& id) const;
};

void CZelvarImageServer::State::Decode(ImageRecord& record) {
  bool ok = false;
  try {
    ok = Accept(record);
  } catch (const std::bad_alloc&) {
    ok = false;  // this image stays separate; the page goes on
  }
  record.accepted = ok;
  record.finished.store(true, std::memory_order_release);
}

bool CZelvarImageServer::State::Accept(ImageRecord& record) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(record.source.data());
  const DecodeLimits limits;
  RgbaImage image;
  if (!zelvarpack::image::DecodeImage(bytes, record.source.size(), limits, record.format, image)) {
    return false;
  }
  const std::int64_t width =
      record.declaredWidth.empty() ? image.width : ParseLeadingInt(record.declaredWidth);
  const std::int64_t height =
      record.declaredHeight.empty() ? image.height : ParseLeadingInt(record.declaredHeight);
  for (const std::int64_t margin :
       {record.marginBottom, record.marginLeft, record.marginRight, record.marginTop}) {
    if (margin < 0 || margin > kMaxMargin) return false;
  }
  if (!limits.Admits(width, height)) return false;
  if (record.format == ImageFormat::kPng) {
    record.pngDepth = zelvarpack::image::PngDepth(bytes, record.source.size());
  }
  record.width = static_cast<std::int32_t>(width);
  record.height = static_cast<std::int32_t>(height);
  std::string keyed = record.source;
  keyed += std::to_string(record.width) + "x" + std::to_string(record.height);
  record.key = CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(keyed.data()),
                                     static_cast<std::int32_t>(keyed.size()));
  // Last, once nothing else can fail: the pixels count against the budget
  // until the sheet is drawn.
  const std::int64_t pixels = static_cast<std::int64_t>(image.width) * image.height;
  if (heldPixels.fetch_add(pixels) + pixels > kMaxHeldPixels) {
    heldPixels.fetch_sub(pixels);
    return false;
  }
  record.image = std::move(image);
  return true;
}

namespace {

// Packs, draws and encodes a sheet from `records` (read only: their images
// stay). Safe on any thread while the owner goes on routing other images.
ComposedSheet ComposeSheet(std::int32_t kind, const std::vector<const ImageRecord*>& records,
                           std::size_t sourceBytes) {
  ComposedSheet composed;
  composed.recordCount = records.size();
  composed.cells.reserve(records.size());
  for (const ImageRecord* record : records) {
    composed.cells.push_back(
        {static_cast<std::int32_t>(record->marginLeft + record->width + record->marginRight),
         static_cast<std::int32_t>(record->marginTop + record->height + record->marginBottom), 0,
         0});
  }
  const SheetSize size = zelvarpack::image::PackCells(composed.cells, kMaxSheetSide);
  composed.size = size;
  composed.fits = size.width <= kMaxSheetSide && size.height <= kMaxSheetSide &&
                  size.width * size.height <= kMaxSheetPixels;
  if (!composed.fits) return composed;

  std::vector<zelvarpack::image::Placement> placements;
  placements.reserve(records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const ImageRecord& record = *records[i];
    placements.push_back({&record.image,
                          composed.cells[i].x + static_cast<std::int32_t>(record.marginLeft),
                          composed.cells[i].y + static_cast<std::int32_t>(record.marginTop),
                          record.width, record.height});
  }
  const auto width = static_cast<std::int32_t>(size.width);
  const auto height = static_cast<std::int32_t>(size.height);
  if (kSets[static_cast<std::size_t>(kind)].encodePng) {
    RgbaImage sheet = zelvarpack::image::NewCanvas(width, height, 255, 255, 255, 0);
    for (const zelvarpack::image::Placement& placement : placements) {
      zelvarpack::image::DrawScaled(sheet, *placement.source, placement.x, placement.y,
                                    placement.width, placement.height);
    }
    zelvarpack::image::EncodePng(sheet, composed.encoded);
  } else {
    // Drawn band by band inside each encoding; the alpha of the blank canvas
    // never reached a JPEG sheet, so opaque white is the same sheet.
    zelvarpack::image::SearchJpegQuality(
        [&](int quality, std::string& out) {
          return zelvarpack::image::EncodeJpegSheet(width, height, placements, quality, out);
        },
        sourceBytes, composed.encoded);
  }
  return composed;
}

}  // namespace

void CZelvarImageServer::State::StartAhead(std::int32_t kind) {
  ImageSet& set = sets[static_cast<std::size_t>(kind)];
  try {
    // The job works from a copy of the record list and the source size
    // taken now: routing may go on meanwhile. Should the set grow, TakeAhead
    // drops the result.
    std::vector<const ImageRecord*> records(set.records.begin(), set.records.end());
    const std::size_t sourceBytes = set.source.size();
    set.ahead = std::make_unique<SheetAhead>();
    SheetAhead* ahead = set.ahead.get();
    pool.Submit([kind, records = std::move(records), sourceBytes, ahead] {
      try {
        ahead->sheet = ComposeSheet(kind, records, sourceBytes);
        ahead->made = true;
      } catch (const std::bad_alloc&) {
        ahead->made = false;  // composed again when the set is built
      }
      ahead->finished.store(true, std::memory_order_release);
    });
  } catch (const std::bad_alloc&) {
    // Working ahead is only a saving. Out of memory, the job may or may not
    // have been queued: once every queued job has ended, one that never ran
    // is forgotten, and the set is composed when it is built.
    pool.WaitIdle();
    if (set.ahead && !set.ahead->finished.load(std::memory_order_acquire)) set.ahead.reset();
  }
}

std::unique_ptr<SheetAhead> CZelvarImageServer::State::TakeAhead(ImageSet& set) {
  std::unique_ptr<SheetAhead> ahead = std::move(set.ahead);
  if (!ahead) return nullptr;
  SheetAhead* waited = ahead.get();
  // Waited for even when it is to be dropped: it reads the records' images,
  // which the build frees.
  pool.WaitUntil([waited] { return waited->finished.load(std::memory_order_acquire); });
  if (!ahead->made || ahead->sheet.recordCount != set.records.size()) return nullptr;
  return ahead;
}

std::string CZelvarImageServer::State::Build(std::int32_t kind) {
  ImageSet& set = sets[static_cast<std::size_t>(kind)];
  if (set.done) return set.id;
  set.done = true;
  if (set.records.empty()) return {};

  // The other sets' sheets are composed meanwhile on the pool: sheets are
  // usually asked for one after another, and each needs only its own
  // records.
  for (std::int32_t other = 0; other < static_cast<std::int32_t>(sets.size()); ++other) {
    ImageSet& each = sets[static_cast<std::size_t>(other)];
    if (other != kind && !each.done && !each.ahead && !each.records.empty()) StartAhead(other);
  }
  ComposedSheet composed;
  if (std::unique_ptr<SheetAhead> ahead = TakeAhead(set)) {
    composed = std::move(ahead->sheet);
  } else {
    composed = ComposeSheet(kind, {set.records.begin(), set.records.end()}, set.source.size());
  }

  for (std::size_t i = 0; i < set.records.size(); ++i) {
    ImageRecord& record = *set.records[i];
    if (composed.fits) {
      record.entry =
          zelvarpack::image::IndexEntry(record.key, composed.size, composed.cells[i], record.width,
                                        record.height, static_cast<std::int32_t>(record.marginLeft),
                                        static_cast<std::int32_t>(record.marginTop));
    }
    heldPixels.fetch_sub(static_cast<std::int64_t>(record.image.width) * record.image.height);
    record.image = RgbaImage{};  // drawn: the pixels are no longer needed
  }
  if (!composed.fits) return {};
  const std::string& encoded = composed.encoded;

  // Worth test: a sheet larger than its sources is not used. A sheet that
  // could not be encoded is not used either. Either way no image of the set
  // is placed.
  if (encoded.empty() || encoded.size() > set.source.size()) return {};

  // A sheet file is never trusted by its name alone: its sources' SHA-256
  // digest ("<id>.d") must be ours, or the next candidate name is tried.
  const std::int32_t hash =
      CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(set.source.data()),
                            static_cast<std::int32_t>(set.source.size()));
  const std::string digest = zelvarpack::Sha256Hex(set.source);
  const std::string folder = cachePath + kSets[static_cast<std::size_t>(kind)].folder;
  std::string index;
  for (const ImageRecord* record : set.records) {
    index += zelvarpack::image::FormatIndexLine(record->entry);
  }
  using zelvarpack::Publish;
  for (int attempt = 0; attempt < zelvarpack::kContentIdCandidates; ++attempt) {
    const std::string id = zelvarpack::ContentIdCandidate(hash, attempt);
    const std::string path = folder + "/" + id;
    if (!zelvarpack::PathExists(path.c_str())) {
      zelvarpack::EnsureFolder(folder);
      // The digest and the index go first: the sheet is what marks the work
      // done, so once it exists the other two do too.
      if (!zelvarpack::PublishFile(path + ".d", {digest}, Publish::kKeepExisting) ||
          !zelvarpack::PublishFile(path + ".c", {index}, Publish::kKeepExisting) ||
          !zelvarpack::PublishFile(path, {encoded}, Publish::kKeepExisting)) {
        break;
      }
    }
    const std::unique_ptr<CZelvarBuffer> stored = zelvarpack::ReadCacheFile(path + ".d", 256);
    if (stored && std::string_view(reinterpret_cast<const char*>(stored->GetValue()),
                                   static_cast<std::size_t>(stored->GetValueLength())) == digest) {
      set.id = id;
      for (ImageRecord* record : set.records) record->hasEntry = true;
      break;
    }
  }
  return set.id;
}

CZelvarImages* CZelvarImageServer::State::Read(const std::string& folder,
                                               const std::string& id) const {
  if (!IsGuidShaped(id)) return nullptr;
  const std::string path = cachePath + folder + "/" + id;
  std::unique_ptr<CZelvarBuffer> sheet = zelvarpack::ReadCacheFile(path, kMaxSheetFileBytes);
  if (!sheet) return nullptr;
  auto images = std::make_unique<CZelvarImages>();
  bool unused = false;
  images->GetRawImageZelvarBuffer(unused)->Append(sheet->GetValue(), sheet->GetValueLength());
  std::unique_ptr<CZelvarBuffer> index = zelvarpack::ReadCacheFile(path + ".c", kMaxIndexFileBytes);
  if (index) {
    const std::string_view text(reinterpret_cast<const char*>(index->GetValue()),
                                static_cast<std::size_t>(index->GetValueLength()));
    for (const CZelvarImageEntry& entry : zelvarpack::image::ParseIndex(text)) {
      images->AddEntry(entry);
    }
  }
  return images.release();
}

CZelvarImages::CZelvarImages() = default;
CZelvarImages::~CZelvarImages() = default;

CZelvarBuffer* CZelvarImages::GetRawImageZelvarBuffer(bool& wasGzip) {
  wasGzip = false;
  return &sheet_;
}

std::int32_t CZelvarImages::GetEntryCount() const {
  return static_cast<std::int32_t>(entries_.size());
}

const CZelvarImageEntry& CZelvarImages::GetEntry(std::int32_t index) const {
  return entries_[static_cast<std::size_t>(index)];
}

void CZelvarImages::AddEntry(const CZelvarImageEntry& entry) { entries_.push_back(entry); }

CZelvarImageServer::CZelvarImageServer(char* cachePath) : state_(std::make_unique<State>()) {
  state_->cachePath = cachePath != nullptr ? cachePath : "";
}

CZelvarImageServer::~CZelvarImageServer() { state_->pool.WaitIdle(); }

std::int32_t CZelvarImageServer::AddImage(const unsigned char* bytes, std::int32_t length,
                                          const char* declaredWidth, const char* declaredHeight,
                                          const char* marginBottom, const char* marginLeft,
                                          const char* marginRight, const char* marginTop) {
  auto text = [](const char* value) { return std::string(value != nullptr ? value : ""); };
  auto record = std::make_unique<ImageRecord>();
  if (bytes != nullptr && length > 0) {
    record->source.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  }
  record->declaredWidth = text(declaredWidth);
  record->declaredHeight = text(declaredHeight);
  record->marginBottom = ParseLeadingInt(text(marginBottom));
  record->marginLeft = ParseLeadingInt(text(marginLeft));
  record->marginRight = ParseLeadingInt(text(marginRight));
  record->marginTop = ParseLeadingInt(text(marginTop));
  ImageRecord* job = record.get();
  state_->records.push_back(std::move(record));
  State* state = state_.get();
  state_->pool.Submit([state, job] { state->Decode(*job); });
  return static_cast<std::int32_t>(state_->records.size() - 1);
}

bool CZelvarImageServer::IsDecoded(std::int32_t handle) const {
  const ImageRecord* record = state_->Record(handle);
  return record != nullptr && record->finished.load(std::memory_order_acquire);
}

void CZelvarImageServer::WaitForDecoding() { state_->pool.WaitIdle(); }

std::int32_t CZelvarImageServer::RouteImage(std::int32_t handle) {
  ImageRecord* record = state_->Record(handle);
  if (record == nullptr || record->set >= 0) return -1;
  state_->pool.WaitUntil([record] { return record->finished.load(std::memory_order_acquire); });
  if (!record->accepted) return -1;
  std::int32_t kind;
  switch (record->format) {
    case ImageFormat::kGif:
      kind = kGifSheet;
      break;
    case ImageFormat::kJpeg:
      kind = kJpgSheet;
      break;
    case ImageFormat::kPng:
      kind = record->pngDepth >= 32 ? kPng32Sheet : kPng24Sheet;
      break;
    default:
      return -1;
  }
  ImageSet& set = state_->sets[static_cast<std::size_t>(kind)];
  if (set.done ||
      record->source.size() > std::numeric_limits<std::int32_t>::max() - set.source.size()) {
    return -1;
  }
  set.source += record->source;
  set.records.push_back(record);
  record->set = kind;
  return kind;
}

std::string CZelvarImageServer::BuildSheet(SheetKind kind) {
  if (kind < kGifSheet || kind > kPng32Sheet) return {};
  return state_->Build(kind);
}

bool CZelvarImageServer::GetImageEntry(std::int32_t handle, CZelvarImageEntry& entry) const {
  const ImageRecord* record = state_->Record(handle);
  if (record == nullptr || !record->hasEntry) return false;
  entry = record->entry;
  return true;
}

bool CZelvarImageServer::GetImagePlacement(std::int32_t handle,
                                           CZelvarImagePlacement& placement) const {
  const ImageRecord* record = state_->Record(handle);
  if (record == nullptr || !record->hasEntry) return false;
  placement.sheetKind = record->set;
  placement.width = record->width;
  placement.height = record->height;
  placement.entry = record->entry;
  return true;
}

CZelvarImages* CZelvarImageServer::GetGifId(std::string id) { return state_->Read("/gif", id); }
CZelvarImages* CZelvarImageServer::GetJpgId(std::string id) { return state_->Read("/jpg", id); }
CZelvarImages* CZelvarImageServer::GetPng24Id(std::string id) { return state_->Read("/jpg", id); }
CZelvarImages* CZelvarImageServer::GetPng32Id(std::string id) { return state_->Read("/png", id); }
