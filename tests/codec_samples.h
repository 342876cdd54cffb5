// Images the image tests make for themselves with the codec libraries, and
// the real icons of Debian's apache2-data package.
#ifndef ZELVARPACK_TESTS_CODEC_SAMPLES_H_
#define ZELVARPACK_TESTS_CODEC_SAMPLES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "image/codec.h"

namespace zelvarpack::image::samples {

// A GIF of `image` repeated for `frames` frames; pixels with alpha below 128
// become the transparent index. REQUIRES: at most 255 colours.
std::string MakeGif(const RgbaImage& image, int frames = 1);

// An 8-bit RGBA PNG (colour type 6, bit depth 8).
std::string MakePng(const RgbaImage& image);

// `png` with a chunk of `type` and `data` inserted right after its header
// chunk, with a correct CRC.
std::string InsertChunk(const std::string& png, const std::string& type, const std::string& data);

// A width x height image of one colour.
RgbaImage Solid(std::int32_t width, std::int32_t height, std::uint32_t rgba);

// An opaque image of smooth colour gradients with some noise, fixed by `seed`.
RgbaImage Photo(std::int32_t width, std::int32_t height, std::uint32_t seed);

// Folder of the apache2-data icons.
constexpr char kIconFolder[] = "/usr/share/apache2/icons";
std::string ReadIcon(const std::string& name);

const std::uint8_t* Bytes(const std::string& text);

}  // namespace zelvarpack::image::samples

#endif  // ZELVARPACK_TESTS_CODEC_SAMPLES_H_
