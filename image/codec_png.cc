// PNG through libpng's simplified interface. libpng catches its own errors
// inside that interface (its setjmp never crosses our frames), so every
// failure arrives here as a false result.
#include <png.h>

#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>

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

bool WritePng(PngImage& png, const void* pixels, const void* colormap, std::string& out) {
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(*png.get());
  std::unique_ptr<unsigned char[]> memory(new unsigned char[size]);
  if (!png_image_write_to_memory(png.get(), memory.get(), &size, 0, pixels, 0, colormap)) {
    return false;
  }
  out.assign(reinterpret_cast<const char*>(memory.get()), size);
  return true;
}

// Fills `indices` and `palette` (RGBA entries, the translucent ones first so
// that the transparency chunk stays short) when the image has at most 256
// colours.
bool MakePalette(const RgbaImage& image, std::vector<std::uint8_t>& indices,
                 std::vector<std::uint8_t>& palette) {
  std::unordered_map<std::uint32_t, std::uint8_t> slots;
  std::vector<std::uint32_t> colours;
  const std::size_t count = image.pixels.size() / 4;
  indices.resize(count);
  std::uint32_t last = 0;
  std::uint8_t lastSlot = 0;
  bool haveLast = false;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t colour;
    std::memcpy(&colour, image.pixels.data() + 4 * i, 4);
    if (!haveLast || colour != last) {
      const auto found = slots.find(colour);
      if (found != slots.end()) {
        lastSlot = found->second;
      } else {
        if (colours.size() == 256) return false;
        lastSlot = static_cast<std::uint8_t>(colours.size());
        slots.emplace(colour, lastSlot);
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

}  // namespace

bool DecodePng(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out) {
  out = RgbaImage{};
  PngImage png;
  if (!png_image_begin_read_from_memory(png.get(), bytes, count)) return false;
  if (!limits.Admits(png->width, png->height)) return false;
  png->format = PNG_FORMAT_RGBA;
  RgbaImage image;
  image.width = static_cast<std::int32_t>(png->width);
  image.height = static_cast<std::int32_t>(png->height);
  image.pixels.resize(PNG_IMAGE_SIZE(*png.get()));
  if (!png_image_finish_read(png.get(), nullptr, image.pixels.data(), 0, nullptr)) return false;
  out = std::move(image);
  return true;
}

bool EncodePng(const RgbaImage& image, std::string& out) {
  out.clear();
  if (image.width <= 0 || image.height <= 0) return false;
  PngImage png;
  png->width = static_cast<png_uint_32>(image.width);
  png->height = static_cast<png_uint_32>(image.height);
  std::vector<std::uint8_t> indices;
  std::vector<std::uint8_t> palette;
  if (MakePalette(image, indices, palette)) {
    png->format = PNG_FORMAT_RGBA_COLORMAP;
    png->colormap_entries = static_cast<png_uint_32>(palette.size() / 4);
    return WritePng(png, indices.data(), palette.data(), out);
  }
  bool opaque = true;
  for (std::size_t i = 3; i < image.pixels.size() && opaque; i += 4) {
    opaque = image.pixels[i] == 255;
  }
  if (!opaque) {
    png->format = PNG_FORMAT_RGBA;
    return WritePng(png, image.pixels.data(), nullptr, out);
  }
  std::vector<std::uint8_t> rgb(image.pixels.size() / 4 * 3);
  for (std::size_t i = 0, j = 0; i < image.pixels.size(); i += 4, j += 3) {
    std::memcpy(rgb.data() + j, image.pixels.data() + i, 3);
  }
  png->format = PNG_FORMAT_RGB;
  return WritePng(png, rgb.data(), nullptr, out);
}

}  // namespace zelvarpack::image
