// Frames for the video tests and benchmark, made from real pictures that
// Debian ships: the photographs of lomiri-wallpapers-20.04 scaled to
// 1920 x 1080 (and panned across, as a camera would), and the icons of
// apache2-data tiled over a page. Header-only test support.
#ifndef ZELVARPACK_MEDIA_VIDEO_TEST_FRAMES_H_
#define ZELVARPACK_MEDIA_VIDEO_TEST_FRAMES_H_

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "image/codec.h"

namespace zelvarpack::testing {

inline constexpr char kPhotoFolder[] = "/usr/share/backgrounds";
inline constexpr char kIconFolder[] = "/usr/share/apache2/icons";
inline constexpr const char* kPhotos[] = {"Fossa_by_Jasper_Roks.jpg",
                                          "Kleiber_by_Lukas_Baubkus.jpg",
                                          "Painting-Colors_by__herobrine7gamer.jpg"};

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool HavePhotos() {
  for (const char* name : kPhotos) {
    if (!std::filesystem::exists(std::string(kPhotoFolder) + "/" + name)) return false;
  }
  return std::filesystem::exists(kIconFolder);
}

inline image::RgbaImage Decode(const std::string& bytes, std::int32_t maxSide = 8192) {
  image::DecodeLimits limits;
  limits.maxSide = maxSide;
  limits.maxPixels = std::int64_t{maxSide} * maxSide;
  image::ImageFormat format;
  image::RgbaImage out;
  image::DecodeImage(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), limits,
                     format, out);
  return out;
}

// Photograph `which` (0..2), decoded once.
inline const image::RgbaImage& Photo(int which) {
  static std::map<int, image::RgbaImage> cache;
  auto found = cache.find(which);
  if (found == cache.end()) {
    found =
        cache.emplace(which, Decode(ReadBytes(std::string(kPhotoFolder) + "/" + kPhotos[which])))
            .first;
  }
  return found->second;
}

// A 1920 x 1080 frame of photograph `which`: the whole picture scaled when
// `step` is 0; otherwise a view zoomed in by 10 % and panned `step` pixels
// to the right, one frame of a slow camera pan.
inline image::RgbaImage PhotoFrame(int which, int step = 0) {
  image::RgbaImage frame = image::NewCanvas(1920, 1080, 0, 0, 0, 255);
  const image::RgbaImage& photo = Photo(which);
  if (step == 0) {
    image::DrawScaled(frame, photo, 0, 0, 1920, 1080);
  } else {
    image::DrawScaled(frame, photo, -96 - step, -54, 2112, 1188);
  }
  return frame;
}

// The apache2-data PNG icons, each scaled to 64 x 64, tiled over a white
// page from the top left, shifted `offset` pixels down and right.
inline image::RgbaImage IconFrame(int offset = 0) {
  image::RgbaImage frame = image::NewCanvas(1920, 1080, 255, 255, 255, 255);
  std::vector<image::RgbaImage> icons;
  for (const auto& entry : std::filesystem::directory_iterator(kIconFolder)) {
    if (entry.path().extension() != ".png") continue;
    image::RgbaImage icon = Decode(ReadBytes(entry.path().string()), 1024);
    if (icon.width > 0) icons.push_back(std::move(icon));
  }
  std::size_t next = 0;
  for (int y = offset; y < 1080 && !icons.empty(); y += 72) {
    for (int x = offset; x < 1920; x += 80, ++next) {
      const image::RgbaImage& icon = icons[next % icons.size()];
      // Icons have transparent parts: drawn over white.
      image::RgbaImage flat = icon;
      for (std::size_t i = 0; i < flat.pixels.size(); i += 4) {
        const unsigned a = flat.pixels[i + 3];
        for (int c = 0; c < 3; ++c) {
          flat.pixels[i + c] =
              static_cast<std::uint8_t>((flat.pixels[i + c] * a + 255 * (255 - a)) / 255);
        }
        flat.pixels[i + 3] = 255;
      }
      image::DrawScaled(frame, flat, x, y, 64, 64);
    }
  }
  return frame;
}

inline std::string AsJpeg(const image::RgbaImage& frame, int quality = 95) {
  std::string out;
  image::EncodeJpeg(frame, quality, out);
  return out;
}

inline std::string AsPng(const image::RgbaImage& frame) {
  std::string out;
  image::EncodePng(frame, out);
  return out;
}

// Peak signal-to-noise ratio of two RGBA pictures of one size over the
// colour channels, in dB (infinity when equal).
inline double Psnr(const std::uint8_t* a, const std::uint8_t* b, std::size_t pixels) {
  double squared = 0.0;
  for (std::size_t i = 0; i < pixels * 4; ++i) {
    if (i % 4 == 3) continue;
    const double d = static_cast<double>(a[i]) - b[i];
    squared += d * d;
  }
  if (squared == 0.0) return INFINITY;
  return 10.0 * std::log10(255.0 * 255.0 / (squared / (3.0 * static_cast<double>(pixels))));
}

}  // namespace zelvarpack::testing

#endif  // ZELVARPACK_MEDIA_VIDEO_TEST_FRAMES_H_
