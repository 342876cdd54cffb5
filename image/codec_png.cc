// PNG decoding through libpng's simplified interface. libpng catches its own
// errors inside that interface (its setjmp never crosses our frames), so
// every failure arrives here as a false result.
//
// Encoding is our own: sheets need only four layouts (palette of 1, 2, 4 or
// 8 bits, RGB, RGBA; 8 bits a sample, never interlaced), so the file is
// written chunk by chunk here and the image data compressed in one call to
// libdeflate, whose whole-buffer compressor is several times faster than
// zlib's streaming one at the same level. Chunk CRCs come from zlib.
#include <libdeflate.h>
#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "image/codec.h"

namespace zelvarpack::image {

namespace {

// Frees libpng's state whatever way the caller leaves.
class PngImage {
 public:
  PngImage() {
    std::memset(&image_, 0, sizeof image_);
    image_.version = PNG_IMAGE_VERSION;
  }
  ~PngImage() { png_image_free(&image_); }
  PngImage(const PngImage&) = delete;
  PngImage& operator=(const PngImage&) = delete;
  png_image* operator->() { return &image_; }
  png_image* get() { return &image_; }

 private:
  png_image image_;
};

// Fills `indices` and `palette` (RGBA entries, the translucent ones first so
// that the transparency chunk stays short) when the image has at most 256
// colours.
bool MakePalette(const RgbaImage& image, std::vector<std::uint8_t>& indices,
                 std::vector<std::uint8_t>& palette) {
  // Colour to slot: open addressing with linear probing in a table four
  // times the largest palette, so that probes stay short.
  constexpr std::size_t kTableSize = 1024;
  std::array<std::uint32_t, kTableSize> keys{};
  std::array<std::int16_t, kTableSize> values;
  values.fill(-1);
  std::vector<std::uint32_t> colours;
  colours.reserve(256);
  const std::size_t count = image.pixels.size() / 4;
  indices.resize(count);
  std::uint32_t last = 0;
  std::uint8_t lastSlot = 0;
  bool haveLast = false;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t colour;
    std::memcpy(&colour, image.pixels.data() + 4 * i, 4);
    if (!haveLast || colour != last) {
      std::size_t at = (colour * 0x9E3779B1u) >> 22;
      while (values[at] >= 0 && keys[at] != colour) at = (at + 1) % kTableSize;
      if (values[at] >= 0) {
        lastSlot = static_cast<std::uint8_t>(values[at]);
      } else {
        if (colours.size() == 256) return false;
        lastSlot = static_cast<std::uint8_t>(colours.size());
        keys[at] = colour;
        values[at] = lastSlot;
        colours.push_back(colour);
      }
      last = colour;
      haveLast = true;
    }
    indices[i] = lastSlot;
  }
  // Reorder: translucent entries first.
  std::vector<std::uint8_t> remap(colours.size());
  std::size_t next = 0;
  palette.resize(colours.size() * 4);
  for (int pass = 0; pass < 2; ++pass) {
    for (std::size_t slot = 0; slot < colours.size(); ++slot) {
      std::uint8_t rgba[4];
      std::memcpy(rgba, &colours[slot], 4);
      if ((rgba[3] == 255) != (pass == 1)) continue;
      remap[slot] = static_cast<std::uint8_t>(next);
      std::memcpy(palette.data() + 4 * next, rgba, 4);
      ++next;
    }
  }
  for (std::uint8_t& index : indices) index = remap[index];
  return true;
}

// The chunk writer. `out` grows by whole chunks: length, type, data, CRC.
void PutBigEndian32(std::string& out, std::uint32_t value) {
  const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                         static_cast<char>(value >> 8), static_cast<char>(value)};
  out.append(bytes, 4);
}

void PutChunk(std::string& out, const char (&type)[5], const std::uint8_t* data,
              std::size_t length) {
  PutBigEndian32(out, static_cast<std::uint32_t>(length));
  const std::size_t start = out.size();
  out.append(type, 4);
  if (length != 0) out.append(reinterpret_cast<const char*>(data), length);
  const auto* typed = reinterpret_cast<const Bytef*>(out.data() + start);
  uLong crc = crc32(0L, Z_NULL, 0);
  // crc32 takes a 32-bit length; a chunk is at most 2^31 - 1 bytes.
  crc = crc32(crc, typed, static_cast<uInt>(length + 4));
  PutBigEndian32(out, static_cast<std::uint32_t>(crc));
}

struct FreeCompressor {
  void operator()(libdeflate_compressor* compressor) const {
    libdeflate_free_compressor(compressor);
  }
};

// One compressor per thread, kept: making one costs more than compressing
// a small sheet.
libdeflate_compressor* Compressor() {
  thread_local std::unique_ptr<libdeflate_compressor, FreeCompressor> compressor(
      libdeflate_alloc_compressor(6));
  return compressor.get();
}

// The five row filters of the format, applied to one row of `length` bytes
// with `Bpp` bytes a pixel; `prior` is the row above (all zeros for the first
// row). Writes the filter byte and the filtered row to `out`. The pixel size
// is a template argument so that the loops compile to straight-line code.
template <std::size_t Bpp>
void FilterRowOf(int type, const std::uint8_t* __restrict row, const std::uint8_t* __restrict prior,
                 std::size_t length, std::uint8_t* __restrict out) {
  *out++ = static_cast<std::uint8_t>(type);
  const std::size_t head = std::min(Bpp, length);
  switch (type) {
    case 0:
      std::memcpy(out, row, length);
      return;
    case 1:
      std::memcpy(out, row, head);
      for (std::size_t i = Bpp; i < length; ++i) out[i] = row[i] - row[i - Bpp];
      return;
    case 2:
      for (std::size_t i = 0; i < length; ++i) out[i] = row[i] - prior[i];
      return;
    case 3:
      for (std::size_t i = 0; i < head; ++i) out[i] = row[i] - (prior[i] >> 1);
      for (std::size_t i = Bpp; i < length; ++i) {
        out[i] = row[i] - static_cast<std::uint8_t>((row[i - Bpp] + prior[i]) >> 1);
      }
      return;
    default:
      for (std::size_t i = 0; i < head; ++i) out[i] = row[i] - prior[i];
      // Branch-free on 16-bit values, so that the loop vectorises.
      for (std::size_t i = Bpp; i < length; ++i) {
        const std::int16_t a = row[i - Bpp], b = prior[i], c = prior[i - Bpp];
        const std::int16_t towardA = b - c, towardB = a - c;  // p - a and p - b, p = a + b - c
        const std::int16_t towardC = towardA + towardB;       // p - c
        const std::int16_t pa = towardA < 0 ? -towardA : towardA;
        const std::int16_t pb = towardB < 0 ? -towardB : towardB;
        const std::int16_t pc = towardC < 0 ? -towardC : towardC;
        const std::int16_t nearer = pb <= pc ? b : c;
        const std::int16_t predictor = pa <= pb && pa <= pc ? a : nearer;
        out[i] = static_cast<std::uint8_t>(row[i] - predictor);
      }
      return;
  }
}

void FilterRow(int type, const std::uint8_t* row, const std::uint8_t* prior, std::size_t length,
               std::size_t bpp, std::uint8_t* out) {
  switch (bpp) {
    case 4:
      return FilterRowOf<4>(type, row, prior, length, out);
    case 3:
      return FilterRowOf<3>(type, row, prior, length, out);
    default:
      return FilterRowOf<1>(type, row, prior, length, out);
  }
}

// The filter for a whole true-colour image: the one whose output, over up to
// kSampleRows rows spread evenly down the image, has the smallest sum of
// absolute values (bytes read as signed), the usual predictor of what
// deflate compresses best. One filter for every row keeps the choice cheap.
constexpr std::int32_t kSampleRows = 16;

int ChooseFilter(const std::uint8_t* rows, std::int32_t height, std::size_t length,
                 std::size_t bpp) {
  std::vector<std::uint8_t> zeros(length, 0);
  std::vector<std::uint8_t> filtered(length + 1);
  std::array<std::uint64_t, 5> cost{};
  const std::int32_t samples = std::min(height, kSampleRows);
  for (std::int32_t s = 0; s < samples; ++s) {
    const std::int64_t y = samples == 1 ? 0 : std::int64_t{s} * (height - 1) / (samples - 1);
    const std::uint8_t* row = rows + static_cast<std::size_t>(y) * length;
    const std::uint8_t* prior = y == 0 ? zeros.data() : row - length;
    for (int type = 0; type < 5; ++type) {
      FilterRow(type, row, prior, length, bpp, filtered.data());
      std::uint64_t sum = 0;
      for (std::size_t i = 1; i <= length; ++i) {
        sum += filtered[i] < 128 ? filtered[i] : 256 - filtered[i];
      }
      cost[static_cast<std::size_t>(type)] += sum;
    }
  }
  return static_cast<int>(std::min_element(cost.begin(), cost.end()) - cost.begin());
}

// Writes the PNG: `rows` holds `height` rows of `length` bytes each, already
// packed for `bitDepth` and `colourType`; `filter` is applied to every row
// (0 for palette images). `palette` holds RGBA entries, the translucent ones
// first.
bool WritePng(std::int32_t width, std::int32_t height, std::uint8_t bitDepth,
              std::uint8_t colourType, const std::uint8_t* rows, std::size_t length,
              std::size_t bpp, int filter, const std::vector<std::uint8_t>& palette,
              std::string& out) {
  const std::size_t rowCount = static_cast<std::size_t>(height);
  const std::size_t rawSize = (length + 1) * rowCount;
  std::unique_ptr<std::uint8_t[]> raw(new std::uint8_t[rawSize]);
  std::vector<std::uint8_t> zeros(filter == 0 ? 0 : length, 0);
  for (std::size_t y = 0; y < rowCount; ++y) {
    const std::uint8_t* row = rows + y * length;
    FilterRow(filter, row, y == 0 ? zeros.data() : row - length, length, bpp,
              raw.get() + y * (length + 1));
  }
  libdeflate_compressor* compressor = Compressor();
  if (compressor == nullptr) throw std::bad_alloc();
  const std::size_t bound = libdeflate_zlib_compress_bound(compressor, rawSize);
  std::unique_ptr<std::uint8_t[]> compressed(new std::uint8_t[bound]);
  const std::size_t compressedSize =
      libdeflate_zlib_compress(compressor, raw.get(), rawSize, compressed.get(), bound);
  if (compressedSize == 0) return false;
  raw.reset();

  const std::size_t entries = palette.size() / 4;
  out.reserve(8 + 25 + 13 + 12 + entries * 4 + 12 + compressedSize + 12 * (compressedSize >> 30) +
              12 + 12);
  out.assign("\x89PNG\r\n\x1A\n", 8);
  std::uint8_t header[13];
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(width) >> (24 - 8 * i));
    header[4 + i] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(height) >> (24 - 8 * i));
  }
  header[8] = bitDepth;
  header[9] = colourType;
  header[10] = header[11] = header[12] = 0;  // deflate, adaptive filtering, no interlace
  PutChunk(out, "IHDR", header, sizeof header);
  // Samples are sRGB, rendering intent perceptual.
  const std::uint8_t intent = 0;
  PutChunk(out, "sRGB", &intent, 1);
  if (entries != 0) {
    std::vector<std::uint8_t> colours(entries * 3);
    std::size_t translucent = 0;
    for (std::size_t i = 0; i < entries; ++i) {
      std::memcpy(colours.data() + 3 * i, palette.data() + 4 * i, 3);
      if (palette[4 * i + 3] != 255) translucent = i + 1;
    }
    PutChunk(out, "PLTE", colours.data(), colours.size());
    if (translucent != 0) {
      std::vector<std::uint8_t> alphas(translucent);
      for (std::size_t i = 0; i < translucent; ++i) alphas[i] = palette[4 * i + 3];
      PutChunk(out, "tRNS", alphas.data(), alphas.size());
    }
  }
  constexpr std::size_t kMaxIdat = std::size_t{1} << 30;
  for (std::size_t at = 0; at < compressedSize; at += kMaxIdat) {
    PutChunk(out, "IDAT", compressed.get() + at, std::min(kMaxIdat, compressedSize - at));
  }
  PutChunk(out, "IEND", nullptr, 0);
  return true;
}
}  // namespace

bool DecodePng(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out) {
  // The caller's pixel memory is reused when it is large enough.
  RgbaImage image;
  image.pixels.swap(out.pixels);
  image.pixels.clear();
  out = RgbaImage{};
  PngImage png;
  if (!png_image_begin_read_from_memory(png.get(), bytes, count)) return false;
  if (!limits.Admits(png->width, png->height)) return false;
  png->format = PNG_FORMAT_RGBA;
  image.width = static_cast<std::int32_t>(png->width);
  image.height = static_cast<std::int32_t>(png->height);
  image.pixels.resize(PNG_IMAGE_SIZE(*png.get()));
  if (!png_image_finish_read(png.get(), nullptr, image.pixels.data(), 0, nullptr)) return false;
  out = std::move(image);
  return true;
}

bool EncodePng(const RgbaImage& image, std::string& out) {
  return EncodePngFiltered(image, -1, out);
}

bool EncodePngFiltered(const RgbaImage& image, int filter, std::string& out) {
  out.clear();
  if (filter < -1 || filter > 4) return false;
  if (image.width <= 0 || image.height <= 0) return false;
  const auto width = static_cast<std::size_t>(image.width);
  const auto height = static_cast<std::size_t>(image.height);
  std::vector<std::uint8_t> indices;
  std::vector<std::uint8_t> palette;
  if (MakePalette(image, indices, palette)) {
    // As few bits an index as the palette allows, rows padded to whole bytes.
    const std::size_t entries = palette.size() / 4;
    const std::uint8_t depth = entries > 16 ? 8 : entries > 4 ? 4 : entries > 2 ? 2 : 1;
    if (depth == 8) {
      return WritePng(image.width, image.height, 8, 3, indices.data(), width, 1, 0, palette, out);
    }
    const std::size_t perByte = 8 / depth;
    const std::size_t length = (width + perByte - 1) / perByte;
    std::vector<std::uint8_t> packed(length * height, 0);
    for (std::size_t y = 0; y < height; ++y) {
      const std::uint8_t* from = indices.data() + y * width;
      std::uint8_t* to = packed.data() + y * length;
      for (std::size_t x = 0; x < width; ++x) {
        const unsigned shift = 8 - depth * (x % perByte + 1);
        to[x / perByte] |= static_cast<std::uint8_t>(from[x] << shift);
      }
    }
    return WritePng(image.width, image.height, depth, 3, packed.data(), length, 1, 0, palette, out);
  }
  bool opaque = true;
  for (std::size_t i = 3; i < image.pixels.size() && opaque; i += 4) {
    opaque = image.pixels[i] == 255;
  }
  if (!opaque) {
    const std::size_t length = width * 4;
    if (filter < 0) filter = ChooseFilter(image.pixels.data(), image.height, length, 4);
    return WritePng(image.width, image.height, 8, 6, image.pixels.data(), length, 4, filter, {},
                    out);
  }
  std::vector<std::uint8_t> rgb(image.pixels.size() / 4 * 3);
  for (std::size_t i = 0, j = 0; i < image.pixels.size(); i += 4, j += 3) {
    std::memcpy(rgb.data() + j, image.pixels.data() + i, 3);
  }
  const std::size_t length = width * 3;
  if (filter < 0) filter = ChooseFilter(rgb.data(), image.height, length, 3);
  return WritePng(image.width, image.height, 8, 2, rgb.data(), length, 3, filter, {}, out);
}

}  // namespace zelvarpack::image
