// The image codec seam: everything the image server needs from an imaging
// library, and nothing more. Decoding gives 8-bit RGBA (not premultiplied);
// drawing copies one image into a rectangle of a sheet; encoding writes PNG,
// or JPEG at a given quality. The Linux implementation sits in
// image/codec_*.cc over libpng, libjpeg-turbo and giflib; no other file sees
// those libraries. Every function is pure apart from allocation and safe
// from any number of threads at once.
#ifndef ZELVARPACK_IMAGE_CODEC_H_
#define ZELVARPACK_IMAGE_CODEC_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace zelvarpack::image {

enum class ImageFormat { kUnknown, kGif, kJpeg, kPng };

// An allocator whose resize leaves new bytes unset: pixel buffers are
// always written whole (by a decoder or a fill) right after they are sized,
// so clearing them first would be wasted work.
template <typename T>
struct UnsetAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UnsetAllocator<U>;
  };
  UnsetAllocator() = default;
  template <typename U>
  UnsetAllocator(const UnsetAllocator<U>&) noexcept {}
  template <typename U>
  void construct(U* at) noexcept {
    ::new (static_cast<void*>(at)) U;
  }
  template <typename U, typename... Args>
  void construct(U* at, Args&&... args) {
    ::new (static_cast<void*>(at)) U(std::forward<Args>(args)...);
  }
};

using PixelBytes = std::vector<std::uint8_t, UnsetAllocator<std::uint8_t>>;

// Pixels row by row, top to bottom, four bytes each: R, G, B, A.
struct RgbaImage {
  std::int32_t width = 0;
  std::int32_t height = 0;
  PixelBytes pixels;

  std::uint8_t* At(std::int32_t x, std::int32_t y) {
    return pixels.data() + (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                            static_cast<std::size_t>(x)) *
                               4;
  }
  const std::uint8_t* At(std::int32_t x, std::int32_t y) const {
    return const_cast<RgbaImage*>(this)->At(x, y);
  }
};

// Sizes a decoder accepts. Checked on the header, before any pixel memory
// is taken.
struct DecodeLimits {
  std::int32_t maxSide = 4096;
  std::int64_t maxPixels = 16 * 1024 * 1024;

  bool Admits(std::int64_t width, std::int64_t height) const {
    return width > 0 && height > 0 && width <= maxSide && height <= maxSide &&
           width * height <= maxPixels;
  }
};

// The format the bytes announce by their signature, whatever their name.
ImageFormat SniffImageFormat(const std::uint8_t* bytes, std::size_t count);

// Decodes a GIF of one frame, a JPEG or a PNG into `out`. False, with `out`
// left empty, for any other format, an animated GIF, a size the limits
// refuse, and corrupt or truncated data. `format` is set from the signature
// either way.
bool DecodeImage(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
                 ImageFormat& format, RgbaImage& out);

// A width x height image of one colour.
RgbaImage NewCanvas(std::int32_t width, std::int32_t height, std::uint8_t r, std::uint8_t g,
                    std::uint8_t b, std::uint8_t a);

// The part of the rectangle (x, y, width, height) that lies inside `sheet`,
// in the rectangle's own coordinates; empty (left >= right or top >=
// bottom) when none of it does.
struct VisibleRectangle {
  std::int64_t left;
  std::int64_t top;
  std::int64_t right;
  std::int64_t bottom;
};
VisibleRectangle VisiblePart(const RgbaImage& sheet, std::int32_t x, std::int32_t y,
                             std::int32_t width, std::int32_t height);

// Copies all of `source` into the rectangle (x, y, width, height) of
// `sheet`, replacing what was there, alpha included (no blending). A source
// of another size is scaled bilinearly; samples are taken from `source`
// alone (its edge pixels repeat outward), so no colour from beyond the
// source reaches the rectangle. Parts outside the sheet are clipped.
void DrawScaled(RgbaImage& sheet, const RgbaImage& source, std::int32_t x, std::int32_t y,
                std::int32_t width, std::int32_t height);

// Lossless PNG of `image`, alpha kept. Written as a palette image when it
// has at most 256 colours, else as RGB when it is opaque, else as RGBA.
bool EncodePng(const RgbaImage& image, std::string& out);

// EncodePng with the row filter of true-colour images fixed to `filter`
// (0 none, 1 sub, 2 up, 3 average, 4 Paeth) rather than chosen from sample
// rows; -1 chooses as EncodePng does. Lets tests reach every filter.
bool EncodePngFiltered(const RgbaImage& image, int filter, std::string& out);

// One image's place in a sheet that is drawn as it is encoded: `source`
// drawn as DrawScaled(sheet, *source, x, y, width, height) would.
struct Placement {
  const RgbaImage* source;
  std::int32_t x;
  std::int32_t y;
  std::int32_t width;
  std::int32_t height;
};

// The same bytes as EncodeJpeg of a width x height canvas of opaque white
// with every placement drawn on it in order, but drawn and encoded 32 rows
// at a time, so that the whole canvas never exists.
bool EncodeJpegSheet(std::int32_t width, std::int32_t height,
                     const std::vector<Placement>& placements, int quality, std::string& out);

// Baseline JPEG of the colour channels (alpha ignored) at `quality` from 0
// to 100 (0 is taken as 1, the lowest the encoder has).
bool EncodeJpeg(const RgbaImage& image, int quality, std::string& out);

// A baseline JPEG written band by band, for an image whose rows become
// known over a long time (a mosaic filled tile by tile): only the encoder's
// few rows of working memory and a 16 KiB output buffer are held, and the
// bytes go to `sink` as they are made. Chroma is sampled 4:2:2 (two columns
// by one row), so the encoder works in blocks of 16 x 8 pixels and an image
// cut into tiles whose sides are multiples of 16 and 8 is encoded tile by
// tile: no sample of one tile mixes with another's. Not optimised Huffman
// tables (those would need the whole image first).
//
// Thread safety: one object per thread; separate objects are independent.
class JpegRowEncoder {
 public:
  // Takes bytes the encoder made; false stops it (the call then fails).
  // Must not throw.
  using Sink = std::function<bool(const std::uint8_t* bytes, std::size_t count)>;

  JpegRowEncoder();
  ~JpegRowEncoder();
  JpegRowEncoder(const JpegRowEncoder&) = delete;
  JpegRowEncoder& operator=(const JpegRowEncoder&) = delete;

  // Begins a width x height image at `quality` (1 to 100). False on a bad
  // size or a sink failure; the object is then spent.
  bool Start(std::int32_t width, std::int32_t height, int quality, Sink sink);
  // The next `count` rows, four bytes a pixel (R, G, B, ignored), each
  // `stride` bytes after the one before. REQUIRES: Start succeeded, and no
  // more rows than the image has in all.
  bool WriteRows(const std::uint8_t* rows, std::int32_t count, std::size_t stride);
  // After the last row: writes the end of the image and hands the rest of
  // the bytes to the sink.
  bool Finish();

  struct State;  // the codec's own, opaque here

 private:
  std::unique_ptr<State> state_;
};

// Per-format decoders behind DecodeImage; `out` is empty on failure. The
// JPEG and PNG decoders reuse `out`'s pixel memory when it is large enough,
// so a caller decoding many pictures of one size allocates once.
bool DecodeGif(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out);
bool DecodeJpeg(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
                RgbaImage& out);
bool DecodePng(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out);

}  // namespace zelvarpack::image

#endif  // ZELVARPACK_IMAGE_CODEC_H_
