// The image codec seam on Windows, over the GDI+ flat API.
//
// Decoding writes the file's bytes into an in-memory stream
// (CreateStreamOnHGlobal) and lets GDI+ read it (GdipCreateBitmapFromStream),
// after the header's declared size has passed the limits, so GDI+ never
// allocates for a size the Linux codec would refuse. Sheets are drawn by
// GDI+ with source-copy compositing and mirrored edges. Encoding hands a bitmap
// to the encoder that GDI+ lists for the MIME type ("image/png",
// "image/jpeg"), the JPEG one with the quality parameter. GDI+ is started
// once per process, on first use, and left running: shutting it down while
// another thread of the host may still use it is not safe, and a process's
// end releases it anyway. Sniffing and dispatch are the shared library-free
// code.
#include <windows.h>
// windows.h first: the headers below need its types.
#include <objbase.h>
#include <objidl.h>
#include <propidl.h>
// GDI+ last: it needs the COM and property types above.
#include <gdiplus.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string_view>

#include "image/codec.h"
#include "image/image_header.h"

namespace zelvarpack::image {

namespace {

namespace gp = Gdiplus;
namespace flat = Gdiplus::DllExports;

// GDI+'s format and parameter GUIDs, spelled out here so that no import
// library has to carry them.
constexpr GUID kImageFormatGif = {
    0xb96b3cb0, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
constexpr GUID kImageFormatJpeg = {
    0xb96b3cae, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
constexpr GUID kImageFormatPng = {
    0xb96b3caf, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
constexpr GUID kFrameDimensionTime = {
    0x6aedbd6d, 0x3fb5, 0x418a, {0x83, 0xa6, 0x7f, 0x45, 0x22, 0x9d, 0xc8, 0x72}};
constexpr GUID kEncoderQuality = {
    0x1d5be4b5, 0xfa4a, 0x452d, {0x9c, 0xdd, 0x5d, 0xb3, 0x51, 0x05, 0xe7, 0xeb}};

// Starts GDI+ once per process; true when it runs. Thread-safe.
bool GdiplusRunning() {
  static const bool running = [] {
    ULONG_PTR token = 0;
    gp::GdiplusStartupInput input;
    return gp::GdiplusStartup(&token, &input, nullptr) == gp::Ok;
  }();
  return running;
}

struct StreamReleaser {
  void operator()(IStream* stream) const {
    if (stream != nullptr) stream->Release();
  }
};
using Stream = std::unique_ptr<IStream, StreamReleaser>;

struct ImageDisposer {
  void operator()(gp::GpImage* image) const {
    if (image != nullptr) flat::GdipDisposeImage(image);
  }
};
using Image = std::unique_ptr<gp::GpImage, ImageDisposer>;

gp::GpBitmap* AsBitmap(const Image& image) { return static_cast<gp::GpBitmap*>(image.get()); }

// A stream over a copy of `count` bytes; it frees its memory when released.
Stream StreamOver(const std::uint8_t* bytes, std::size_t count) {
  HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, std::max<std::size_t>(count, 1));
  if (memory == nullptr) return nullptr;
  void* at = GlobalLock(memory);
  if (at == nullptr) {
    GlobalFree(memory);
    return nullptr;
  }
  if (count != 0) std::memcpy(at, bytes, count);
  GlobalUnlock(memory);
  IStream* stream = nullptr;
  if (CreateStreamOnHGlobal(memory, TRUE, &stream) != S_OK || stream == nullptr) {
    GlobalFree(memory);
    return nullptr;
  }
  ULARGE_INTEGER size;
  size.QuadPart = count;
  stream->SetSize(size);
  return Stream(stream);
}

// An empty growable stream for an encoder to write into.
Stream EmptyStream() {
  IStream* stream = nullptr;
  if (CreateStreamOnHGlobal(nullptr, TRUE, &stream) != S_OK || stream == nullptr) return nullptr;
  return Stream(stream);
}

// Everything written into `stream`, from its start to its current position.
bool StreamBytes(IStream* stream, std::string& out) {
  LARGE_INTEGER zero{};
  ULARGE_INTEGER end{};
  if (stream->Seek(zero, STREAM_SEEK_CUR, &end) != S_OK) return false;
  if (end.QuadPart > (std::uint64_t{1} << 31)) return false;
  HGLOBAL memory = nullptr;
  if (GetHGlobalFromStream(stream, &memory) != S_OK || memory == nullptr) return false;
  const void* at = GlobalLock(memory);
  if (at == nullptr) return false;
  out.assign(static_cast<const char*>(at), static_cast<std::size_t>(end.QuadPart));
  GlobalUnlock(memory);
  return true;
}

// The class id of the installed encoder for `mime`, found by walking the
// list GDI+ gives.
bool EncoderFor(const wchar_t* mime, CLSID& clsid) {
  UINT count = 0;
  UINT size = 0;
  if (flat::GdipGetImageEncodersSize(&count, &size) != gp::Ok || count == 0 || size == 0) {
    return false;
  }
  std::vector<std::uint8_t> memory(size);
  auto* codecs = reinterpret_cast<gp::ImageCodecInfo*>(memory.data());
  if (flat::GdipGetImageEncoders(count, size, codecs) != gp::Ok) return false;
  for (UINT i = 0; i < count; ++i) {
    if (codecs[i].MimeType != nullptr && std::wcscmp(codecs[i].MimeType, mime) == 0) {
      clsid = codecs[i].Clsid;
      return true;
    }
  }
  return false;
}

const GUID& FormatGuid(ImageFormat format) {
  switch (format) {
    case ImageFormat::kGif:
      return kImageFormatGif;
    case ImageFormat::kJpeg:
      return kImageFormatJpeg;
    default:
      return kImageFormatPng;
  }
}

// More than one frame along the first frame dimension the image has (the
// time dimension for an animated GIF).
bool HasSeveralFrames(gp::GpImage* image) {
  UINT dimensions = 0;
  if (flat::GdipImageGetFrameDimensionsCount(image, &dimensions) != gp::Ok || dimensions == 0) {
    UINT frames = 0;
    return flat::GdipImageGetFrameCount(image, &kFrameDimensionTime, &frames) == gp::Ok &&
           frames > 1;
  }
  std::vector<GUID> ids(dimensions);
  if (flat::GdipImageGetFrameDimensionsList(image, ids.data(), dimensions) != gp::Ok) return true;
  UINT frames = 0;
  if (flat::GdipImageGetFrameCount(image, &ids[0], &frames) != gp::Ok) return true;
  return frames > 1;
}

std::uint32_t BigEndian32(const std::uint8_t* at) {
  return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 |
         at[3];
}

// True when every critical chunk of a PNG, up to IEND or the end of the
// data, carries a correct check. GDI+ does not look at them; the Linux
// decoder refuses such files, and so does this one.
bool PngChecksHold(const std::uint8_t* bytes, std::size_t count) {
  std::size_t at = 8;
  while (at + 12 <= count) {
    const std::uint32_t length = BigEndian32(bytes + at);
    if (length > count - at - 12) return true;  // cut short: GDI+ judges the rest
    const std::uint8_t* type = bytes + at + 4;
    const bool critical = (type[0] & 0x20) == 0;
    const auto crc = crc32(0, type, static_cast<uInt>(length + 4));
    if (critical && crc != BigEndian32(type + 4 + length)) return false;
    if (std::memcmp(type, "IEND", 4) == 0) break;
    at += std::size_t{length} + 12;
  }
  return true;
}

// Decodes bytes of `format` into RGBA. The declared size is checked on the
// header first, the decoded size again after.
bool DecodeWith(ImageFormat format, const std::uint8_t* bytes, std::size_t count,
                const DecodeLimits& limits, RgbaImage& out) {
  out = RgbaImage{};
  if (SniffImageFormat(bytes, count) != format) return false;
  int declaredWidth = 0;
  int declaredHeight = 0;
  const std::string_view view(reinterpret_cast<const char*>(bytes), count);
  if (!ReadImageSize(view, declaredWidth, declaredHeight) ||
      !limits.Admits(declaredWidth, declaredHeight) || !GdiplusRunning()) {
    return false;
  }
  if (format == ImageFormat::kPng && !PngChecksHold(bytes, count)) return false;
  Stream stream = StreamOver(bytes, count);
  if (!stream) return false;
  gp::GpBitmap* raw = nullptr;
  if (flat::GdipCreateBitmapFromStream(stream.get(), &raw) != gp::Ok || raw == nullptr) {
    return false;
  }
  const Image image(raw);
  GUID rawFormat{};
  if (flat::GdipGetImageRawFormat(image.get(), &rawFormat) != gp::Ok ||
      !IsEqualGUID(rawFormat, FormatGuid(format))) {
    return false;
  }
  if (format == ImageFormat::kGif && HasSeveralFrames(image.get())) return false;
  UINT width = 0;
  UINT height = 0;
  if (flat::GdipGetImageWidth(image.get(), &width) != gp::Ok ||
      flat::GdipGetImageHeight(image.get(), &height) != gp::Ok || !limits.Admits(width, height)) {
    return false;
  }

  const gp::GpRect all(0, 0, static_cast<INT>(width), static_cast<INT>(height));
  gp::BitmapData data{};
  if (flat::GdipBitmapLockBits(AsBitmap(image), &all, gp::ImageLockModeRead, PixelFormat32bppARGB,
                               &data) != gp::Ok) {
    return false;
  }
  RgbaImage decoded;
  decoded.width = static_cast<std::int32_t>(width);
  decoded.height = static_cast<std::int32_t>(height);
  decoded.pixels.resize(static_cast<std::size_t>(width) * height * 4);
  for (UINT y = 0; y < height; ++y) {
    const auto* row =
        static_cast<const std::uint8_t*>(data.Scan0) + static_cast<std::ptrdiff_t>(y) * data.Stride;
    std::uint8_t* to = decoded.At(0, static_cast<std::int32_t>(y));
    for (UINT x = 0; x < width; ++x, row += 4, to += 4) {
      to[0] = row[2];  // GDI+ keeps B, G, R, A
      to[1] = row[1];
      to[2] = row[0];
      to[3] = row[3];
    }
  }
  if (format == ImageFormat::kGif) {
    // A GIF's transparent index has no colour of its own: it decodes as
    // 0, 0, 0, 0, as the Linux decoder gives it, rather than as the
    // palette entry GDI+ leaves in place.
    for (std::size_t i = 0; i < decoded.pixels.size(); i += 4) {
      if (decoded.pixels[i + 3] == 0) std::memset(&decoded.pixels[i], 0, 3);
    }
  }
  flat::GdipBitmapUnlockBits(AsBitmap(image), &data);
  out = std::move(decoded);
  return true;
}

// A GDI+ bitmap holding `image`: B, G, R, A when `alpha`, else B, G, R.
Image BitmapOf(const RgbaImage& image, bool alpha) {
  if (image.width <= 0 || image.height <= 0 || !GdiplusRunning()) return nullptr;
  gp::GpBitmap* raw = nullptr;
  if (flat::GdipCreateBitmapFromScan0(image.width, image.height, 0,
                                      alpha ? PixelFormat32bppARGB : PixelFormat24bppRGB, nullptr,
                                      &raw) != gp::Ok ||
      raw == nullptr) {
    return nullptr;
  }
  Image bitmap(raw);
  const gp::GpRect all(0, 0, image.width, image.height);
  gp::BitmapData data{};
  if (flat::GdipBitmapLockBits(AsBitmap(bitmap), &all, gp::ImageLockModeWrite,
                               alpha ? PixelFormat32bppARGB : PixelFormat24bppRGB,
                               &data) != gp::Ok) {
    return nullptr;
  }
  const int step = alpha ? 4 : 3;
  for (std::int32_t y = 0; y < image.height; ++y) {
    auto* row =
        static_cast<std::uint8_t*>(data.Scan0) + static_cast<std::ptrdiff_t>(y) * data.Stride;
    const std::uint8_t* from = image.At(0, y);
    for (std::int32_t x = 0; x < image.width; ++x, row += step, from += 4) {
      row[0] = from[2];
      row[1] = from[1];
      row[2] = from[0];
      if (alpha) row[3] = from[3];
    }
  }
  flat::GdipBitmapUnlockBits(AsBitmap(bitmap), &data);
  return bitmap;
}

bool Save(const Image& image, const wchar_t* mime, const gp::EncoderParameters* parameters,
          std::string& out) {
  CLSID encoder{};
  if (!image || !EncoderFor(mime, encoder)) return false;
  Stream stream = EmptyStream();
  if (!stream ||
      flat::GdipSaveImageToStream(image.get(), stream.get(), &encoder, parameters) != gp::Ok) {
    return false;
  }
  return StreamBytes(stream.get(), out) && !out.empty();
}

struct GraphicsDeleter {
  void operator()(gp::GpGraphics* graphics) const {
    if (graphics != nullptr) flat::GdipDeleteGraphics(graphics);
  }
};
using Graphics = std::unique_ptr<gp::GpGraphics, GraphicsDeleter>;

struct AttributesDisposer {
  void operator()(gp::GpImageAttributes* attributes) const {
    if (attributes != nullptr) flat::GdipDisposeImageAttributes(attributes);
  }
};
using Attributes = std::unique_ptr<gp::GpImageAttributes, AttributesDisposer>;

// A graphics over `bitmap` that replaces what it draws on, alpha included,
// and scales with GDI+'s low-quality (two-tap) filter without shifting
// pixel centres or smoothing edges.
Graphics SheetGraphics(const Image& bitmap) {
  gp::GpGraphics* raw = nullptr;
  if (flat::GdipGetImageGraphicsContext(bitmap.get(), &raw) != gp::Ok) return nullptr;
  Graphics graphics(raw);
  const bool set =
      flat::GdipSetCompositingMode(raw, gp::CompositingModeSourceCopy) == gp::Ok &&
      flat::GdipSetCompositingQuality(raw, gp::CompositingQualityHighSpeed) == gp::Ok &&
      flat::GdipSetInterpolationMode(raw, gp::InterpolationModeLowQuality) == gp::Ok &&
      flat::GdipSetPixelOffsetMode(raw, gp::PixelOffsetModeNone) == gp::Ok &&
      flat::GdipSetSmoothingMode(raw, gp::SmoothingModeNone) == gp::Ok &&
      flat::GdipSetTextRenderingHint(raw, gp::TextRenderingHintSingleBitPerPixel) == gp::Ok;
  return set ? std::move(graphics) : nullptr;
}

// Attributes that mirror the source past its edges (tile-flip in both
// directions), so a scaled image's border pixels blend only with its own
// pixels, never with the colour around it.
Attributes MirroredEdges() {
  gp::GpImageAttributes* raw = nullptr;
  if (flat::GdipCreateImageAttributes(&raw) != gp::Ok) return nullptr;
  Attributes attributes(raw);
  if (flat::GdipSetImageAttributesWrapMode(raw, gp::WrapModeTileFlipXY, 0xFF000000, FALSE) !=
      gp::Ok) {
    return nullptr;
  }
  return attributes;
}

bool SaveJpeg(const Image& image, int quality, std::string& out) {
  gp::EncoderParameters parameters{};
  ULONG value = static_cast<ULONG>(std::clamp(quality, 0, 100));
  parameters.Count = 1;
  parameters.Parameter[0].Guid = kEncoderQuality;
  parameters.Parameter[0].NumberOfValues = 1;
  parameters.Parameter[0].Type = gp::EncoderParameterValueTypeLong;
  parameters.Parameter[0].Value = &value;
  return Save(image, L"image/jpeg", &parameters, out);
}

bool IsOpaque(const RgbaImage& image) {
  for (std::size_t i = 3; i < image.pixels.size(); i += 4) {
    if (image.pixels[i] != 0xFF) return false;
  }
  return true;
}

}  // namespace

bool DecodeGif(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out) {
  return DecodeWith(ImageFormat::kGif, bytes, count, limits, out);
}

bool DecodeJpeg(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
                RgbaImage& out) {
  return DecodeWith(ImageFormat::kJpeg, bytes, count, limits, out);
}

bool DecodePng(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out) {
  return DecodeWith(ImageFormat::kPng, bytes, count, limits, out);
}

// GDI+ draws `source` into a bitmap the size of the rectangle's visible
// part, which is then copied into the sheet: the sheet stays in the shared
// RGBA layout (and only the rectangle is converted), while every pixel of
// it comes from GDI+'s drawing.
void DrawScaled(RgbaImage& sheet, const RgbaImage& source, std::int32_t x, std::int32_t y,
                std::int32_t width, std::int32_t height) {
  if (source.width <= 0 || source.height <= 0 || width <= 0 || height <= 0) return;
  const auto [left, top, right, bottom] = VisiblePart(sheet, x, y, width, height);
  if (left >= right || top >= bottom) return;
  const auto columns = static_cast<std::int32_t>(right - left);
  const auto rows = static_cast<std::int32_t>(bottom - top);

  const Image image = BitmapOf(source, true);
  gp::GpBitmap* raw = nullptr;
  if (!image ||
      flat::GdipCreateBitmapFromScan0(columns, rows, 0, PixelFormat32bppARGB, nullptr, &raw) !=
          gp::Ok ||
      raw == nullptr) {
    return;
  }
  const Image target(raw);
  {
    const Graphics graphics = SheetGraphics(target);
    const Attributes attributes = MirroredEdges();
    if (!graphics || !attributes ||
        flat::GdipDrawImageRectRectI(graphics.get(), image.get(), static_cast<INT>(-left),
                                     static_cast<INT>(-top), width, height, 0, 0, source.width,
                                     source.height, gp::UnitPixel, attributes.get(), nullptr,
                                     nullptr) != gp::Ok) {
      return;
    }
    flat::GdipFlush(graphics.get(), gp::FlushIntentionSync);
  }
  const gp::GpRect all(0, 0, columns, rows);
  gp::BitmapData data{};
  if (flat::GdipBitmapLockBits(AsBitmap(target), &all, gp::ImageLockModeRead, PixelFormat32bppARGB,
                               &data) != gp::Ok) {
    return;
  }
  for (std::int32_t row = 0; row < rows; ++row) {
    const auto* from = static_cast<const std::uint8_t*>(data.Scan0) +
                       static_cast<std::ptrdiff_t>(row) * data.Stride;
    std::uint8_t* to =
        sheet.At(static_cast<std::int32_t>(x + left), static_cast<std::int32_t>(y + top + row));
    for (std::int32_t column = 0; column < columns; ++column, from += 4, to += 4) {
      to[0] = from[2];
      to[1] = from[1];
      to[2] = from[0];
      to[3] = from[3];
    }
  }
  flat::GdipBitmapUnlockBits(AsBitmap(target), &data);
}

bool EncodePng(const RgbaImage& image, std::string& out) {
  out.clear();
  // An opaque image goes to the encoder as RGB: no alpha channel to store.
  return Save(BitmapOf(image, !IsOpaque(image)), L"image/png", nullptr, out);
}

// GDI+'s encoder chooses its row filters itself.
bool EncodePngFiltered(const RgbaImage& image, int, std::string& out) {
  return EncodePng(image, out);
}

bool EncodeJpeg(const RgbaImage& image, int quality, std::string& out) {
  out.clear();
  return SaveJpeg(BitmapOf(image, false), quality, out);
}

// The sheet is one 24-bit GDI+ bitmap, cleared to white, each image drawn
// into it from its colour channels alone: a JPEG has no alpha, and a
// transparent pixel shows the colour it was stored with, as on Linux, not
// the black that drawing it premultiplied would leave.
bool EncodeJpegSheet(std::int32_t width, std::int32_t height,
                     const std::vector<Placement>& placements, int quality, std::string& out) {
  out.clear();
  if (width <= 0 || height <= 0 || !GdiplusRunning()) return false;
  gp::GpBitmap* raw = nullptr;
  if (flat::GdipCreateBitmapFromScan0(width, height, 0, PixelFormat24bppRGB, nullptr, &raw) !=
          gp::Ok ||
      raw == nullptr) {
    return false;
  }
  const Image sheet(raw);
  {
    const Graphics graphics = SheetGraphics(sheet);
    const Attributes attributes = MirroredEdges();
    if (!graphics || !attributes || flat::GdipGraphicsClear(graphics.get(), 0xFFFFFFFF) != gp::Ok) {
      return false;
    }
    for (const Placement& p : placements) {
      if (p.source == nullptr || p.width <= 0 || p.height <= 0) continue;
      const Image colours = BitmapOf(*p.source, false);
      if (!colours ||
          flat::GdipDrawImageRectRectI(graphics.get(), colours.get(), p.x, p.y, p.width, p.height,
                                       0, 0, p.source->width, p.source->height, gp::UnitPixel,
                                       attributes.get(), nullptr, nullptr) != gp::Ok) {
        return false;
      }
    }
    flat::GdipFlush(graphics.get(), gp::FlushIntentionSync);
  }
  return SaveJpeg(sheet, quality, out);
}

// GDI+ encodes whole bitmaps only: the rows are gathered and encoded when
// the last has come.
struct JpegRowEncoder::State {
  RgbaImage image;
  std::int32_t rowsWritten = 0;
  int quality = 0;
  Sink sink;
  bool spent = false;
};

JpegRowEncoder::JpegRowEncoder() = default;
JpegRowEncoder::~JpegRowEncoder() = default;

bool JpegRowEncoder::Start(std::int32_t width, std::int32_t height, int quality, Sink sink) {
  state_ = std::make_unique<State>();
  if (width <= 0 || height <= 0 || width > 65500 || height > 65500 || !sink) {
    state_->spent = true;
    return false;
  }
  state_->image.width = width;
  state_->image.height = height;
  state_->image.pixels.resize(static_cast<std::size_t>(width) * height * 4);
  state_->quality = std::clamp(quality, 1, 100);
  state_->sink = std::move(sink);
  return true;
}

bool JpegRowEncoder::WriteRows(const std::uint8_t* rows, std::int32_t count, std::size_t stride) {
  if (!state_ || state_->spent || count < 0 || count > state_->image.height - state_->rowsWritten) {
    if (state_) state_->spent = true;
    return false;
  }
  const auto rowBytes = static_cast<std::size_t>(state_->image.width) * 4;
  for (std::int32_t i = 0; i < count; ++i) {
    std::memcpy(state_->image.At(0, state_->rowsWritten + i), rows + i * stride, rowBytes);
  }
  state_->rowsWritten += count;
  return true;
}

bool JpegRowEncoder::Finish() {
  if (!state_ || state_->spent || state_->rowsWritten != state_->image.height) return false;
  state_->spent = true;
  std::string bytes;
  if (!EncodeJpeg(state_->image, state_->quality, bytes)) return false;
  state_->image = RgbaImage{};
  constexpr std::size_t kPiece = 16 * 1024;
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    if (!state_->sink(reinterpret_cast<const std::uint8_t*>(bytes.data()) + at,
                      std::min(kPiece, bytes.size() - at))) {
      return false;
    }
  }
  return true;
}

}  // namespace zelvarpack::image
