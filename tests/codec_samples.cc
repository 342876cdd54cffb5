#include "tests/codec_samples.h"

#ifndef _WIN32
#include <gif_lib.h>
#include <png.h>
#endif
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

namespace zelvarpack::image::samples {

namespace {

void AppendBigEndian(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((value >> shift) & 0xFF);
}

}  // namespace

#ifdef _WIN32

// Windows has neither giflib nor libpng: the samples are written here, by
// code that shares nothing with the decoders under test.
namespace {

void AppendLittle16(std::string& out, std::int32_t value) {
  out += static_cast<char>(value & 0xFF);
  out += static_cast<char>((value >> 8) & 0xFF);
}

void AppendChunk(std::string& png, const char* type, const std::string& data) {
  std::string chunk = std::string(type, 4) + data;
  AppendBigEndian(png, static_cast<std::uint32_t>(data.size()));
  png += chunk;
  AppendBigEndian(png,
                  static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(chunk.data()),
                                                   static_cast<uInt>(chunk.size()))));
}

// LZW codes for `indices`, every code a literal: a clear code comes often
// enough that the code width never grows past minimum + 1.
std::string LzwLiterals(const std::vector<std::uint8_t>& indices, int minimum) {
  const std::uint32_t clear = 1u << minimum;
  const int width = minimum + 1;
  std::string out;
  std::uint32_t bits = 0;
  int held = 0;
  auto put = [&](std::uint32_t code) {
    bits |= code << held;
    held += width;
    while (held >= 8) {
      out += static_cast<char>(bits & 0xFF);
      bits >>= 8;
      held -= 8;
    }
  };
  const std::size_t run = clear / 2;
  for (std::size_t i = 0; i < indices.size(); ++i) {
    if (i % run == 0) put(clear);
    put(indices[i]);
  }
  put(clear + 1);
  if (held > 0) out += static_cast<char>(bits & 0xFF);
  return out;
}

}  // namespace

std::string MakeGif(const RgbaImage& image, int frames) {
  std::map<std::uint32_t, int> indices;  // RGB -> index; 0 is transparent
  std::string colours(3, '\0');
  std::vector<std::uint8_t> pixels(image.pixels.size() / 4);
  bool transparent = false;
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::uint8_t* p = image.pixels.data() + 4 * i;
    if (p[3] < 128) {
      pixels[i] = 0;
      transparent = true;
      continue;
    }
    const std::uint32_t rgb = p[0] << 16 | p[1] << 8 | p[2];
    auto [slot, added] = indices.emplace(rgb, static_cast<int>(indices.size()) + 1);
    if (slot->second > 255) throw std::invalid_argument("too many colours for a GIF");
    if (added)
      colours +=
          std::string{static_cast<char>(p[0]), static_cast<char>(p[1]), static_cast<char>(p[2])};
    pixels[i] = static_cast<std::uint8_t>(slot->second);
  }
  int bits = 1;
  while ((std::size_t{1} << bits) < colours.size() / 3) ++bits;
  colours.resize((std::size_t{1} << bits) * 3, '\0');
  std::string out = "GIF89a";
  AppendLittle16(out, image.width);
  AppendLittle16(out, image.height);
  out += static_cast<char>(0x80 | (bits - 1) << 4 | (bits - 1));
  out += '\0';
  out += '\0';
  out += colours;
  const int minimum = std::max(bits, 2);
  const std::string codes = LzwLiterals(pixels, minimum);
  for (int frame = 0; frame < frames; ++frame) {
    if (transparent) out += std::string("\x21\xF9\x04\x01\0\0\0\0", 8);
    out += '\x2C';
    AppendLittle16(out, 0);
    AppendLittle16(out, 0);
    AppendLittle16(out, image.width);
    AppendLittle16(out, image.height);
    out += '\0';
    out += static_cast<char>(minimum);
    for (std::size_t at = 0; at < codes.size(); at += 255) {
      const std::size_t piece = std::min<std::size_t>(255, codes.size() - at);
      out += static_cast<char>(piece);
      out += codes.substr(at, piece);
    }
    out += '\0';
  }
  out += '\x3B';
  return out;
}

std::string MakePng(const RgbaImage& image) {
  std::string header;
  AppendBigEndian(header, static_cast<std::uint32_t>(image.width));
  AppendBigEndian(header, static_cast<std::uint32_t>(image.height));
  header += std::string("\x08\x06\0\0\0", 5);  // 8-bit RGBA
  std::string rows;
  for (std::int32_t y = 0; y < image.height; ++y) {
    rows += '\0';  // no filter
    rows.append(reinterpret_cast<const char*>(image.At(0, y)),
                static_cast<std::size_t>(image.width) * 4);
  }
  uLongf size = compressBound(static_cast<uLong>(rows.size()));
  std::string data(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(data.data()), &size,
                reinterpret_cast<const Bytef*>(rows.data()), static_cast<uLong>(rows.size()),
                9) != Z_OK) {
    throw std::runtime_error("cannot write a PNG");
  }
  data.resize(size);
  std::string out("\x89PNG\r\n\x1A\n", 8);
  AppendChunk(out, "IHDR", header);
  AppendChunk(out, "IDAT", data);
  AppendChunk(out, "IEND", "");
  return out;
}

#else

namespace {

int WriteToString(GifFileType* gif, const GifByteType* bytes, int count) {
  static_cast<std::string*>(gif->UserData)
      ->append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count));
  return count;
}

}  // namespace

std::string MakeGif(const RgbaImage& image, int frames) {
  std::map<std::uint32_t, int> indices;  // RGB -> index; 0 is transparent
  std::vector<GifColorType> colours(1, GifColorType{0, 0, 0});
  std::vector<GifPixelType> pixels(image.pixels.size() / 4);
  bool transparent = false;
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::uint8_t* p = image.pixels.data() + 4 * i;
    if (p[3] < 128) {
      pixels[i] = 0;
      transparent = true;
      continue;
    }
    const std::uint32_t rgb = p[0] << 16 | p[1] << 8 | p[2];
    auto [slot, added] = indices.emplace(rgb, static_cast<int>(indices.size()) + 1);
    if (slot->second > 255) throw std::invalid_argument("too many colours for a GIF");
    if (added) colours.push_back({p[0], p[1], p[2]});
    pixels[i] = static_cast<GifPixelType>(slot->second);
  }
  int bits = 1;
  while ((std::size_t{1} << bits) < colours.size()) ++bits;
  colours.resize(std::size_t{1} << bits, GifColorType{0, 0, 0});
  ColorMapObject* map = GifMakeMapObject(1 << bits, colours.data());
  std::string out;
  int error = 0;
  GifFileType* gif = EGifOpen(&out, WriteToString, &error);
  EGifSetGifVersion(gif, true);
  EGifPutScreenDesc(gif, image.width, image.height, bits, 0, map);
  for (int frame = 0; frame < frames; ++frame) {
    if (transparent) {
      GraphicsControlBlock control{};
      control.TransparentColor = 0;
      GifByteType extension[4];
      EGifGCBToExtension(&control, extension);
      EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, extension);
    }
    EGifPutImageDesc(gif, 0, 0, image.width, image.height, false, nullptr);
    for (std::int32_t y = 0; y < image.height; ++y) {
      EGifPutLine(gif, pixels.data() + static_cast<std::size_t>(y) * image.width, image.width);
    }
  }
  EGifCloseFile(gif, &error);
  GifFreeMapObject(map);
  return out;
}

std::string MakePng(const RgbaImage& image) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  png.format = PNG_FORMAT_RGBA;
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
  std::string out(size, '\0');
  if (!png_image_write_to_memory(&png, out.data(), &size, 0, image.pixels.data(), 0, nullptr)) {
    throw std::runtime_error("cannot write a PNG");
  }
  out.resize(size);
  return out;
}

#endif  // _WIN32

std::string InsertChunk(const std::string& png, const std::string& type, const std::string& data) {
  std::string chunk;
  AppendBigEndian(chunk, static_cast<std::uint32_t>(data.size()));
  chunk += type + data;
  const auto crc = crc32(0, reinterpret_cast<const Bytef*>(chunk.data() + 4),
                         static_cast<uInt>(chunk.size() - 4));
  AppendBigEndian(chunk, static_cast<std::uint32_t>(crc));
  constexpr std::size_t kAfterHeader = 8 + 8 + 13 + 4;
  return png.substr(0, kAfterHeader) + chunk + png.substr(kAfterHeader);
}

RgbaImage Solid(std::int32_t width, std::int32_t height, std::uint32_t rgba) {
  return NewCanvas(width, height, rgba >> 24, (rgba >> 16) & 0xFF, (rgba >> 8) & 0xFF, rgba & 0xFF);
}

RgbaImage Photo(std::int32_t width, std::int32_t height, std::uint32_t seed) {
  RgbaImage image = Solid(width, height, 0x000000FF);
  std::uint32_t state = seed * 2654435761u + 1;
  for (std::int32_t y = 0; y < height; ++y) {
    for (std::int32_t x = 0; x < width; ++x) {
      state = state * 1664525u + 1013904223u;
      const int noise = static_cast<int>(state >> 28) - 8;
      std::uint8_t* p = image.At(x, y);
      p[0] = static_cast<std::uint8_t>(std::clamp(x * 255 / width + noise, 0, 255));
      p[1] = static_cast<std::uint8_t>(std::clamp(y * 255 / height + noise, 0, 255));
      p[2] =
          static_cast<std::uint8_t>(std::clamp(static_cast<int>(seed * 40 % 256) + noise, 0, 255));
    }
  }
  return image;
}

std::string ReadIcon(const std::string& name) {
  std::ifstream in(std::string(kIconFolder) + "/" + name, std::ios::binary);
  if (!in) throw std::runtime_error("missing icon " + name + " (install apache2-data)");
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const std::uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

}  // namespace zelvarpack::image::samples
