// libFuzzer target: the image decoders and the PNG depth walk. The first
// byte picks the path (sniffed dispatch, or one decoder forced); the rest is
// the file. Besides the sanitizers' checks it asserts: a decoded image is
// within the limits with exactly width * height pixels, and a small one
// survives a PNG round trip and a scaled draw unchanged in size, and its
// JPEG sheet comes out the same drawn in bands or whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "image/codec.h"
#include "image/sprite_sheet.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > (1u << 20)) return 0;
  using namespace zelvarpack::image;
  const std::uint8_t* file = data + 1;
  const std::size_t count = size - 1;
  const std::uint8_t depth = PngDepth(file, count);
  Check(depth == 32 || (count > 24 && depth == file[24]));

  // Smaller than the server's limits, so that each run stays quick.
  const DecodeLimits limits{1024, 1024 * 1024};
  RgbaImage image;
  ImageFormat format = ImageFormat::kUnknown;
  bool ok = false;
  switch (data[0] % 4) {
    case 0:
      ok = DecodeImage(file, count, limits, format, image);
      break;
    case 1:
      ok = DecodeGif(file, count, limits, image);
      break;
    case 2:
      ok = DecodeJpeg(file, count, limits, image);
      break;
    case 3:
      ok = DecodePng(file, count, limits, image);
      break;
  }
  if (!ok) {
    Check(image.pixels.empty());
    return 0;
  }
  Check(limits.Admits(image.width, image.height));
  Check(image.pixels.size() == static_cast<std::size_t>(image.width) * image.height * 4);
  if (image.width * image.height > 64 * 64) return 0;

  std::string png;
  Check(EncodePng(image, png));
  RgbaImage back;
  Check(DecodeImage(reinterpret_cast<const std::uint8_t*>(png.data()), png.size(), limits, format,
                    back));
  Check(back.width == image.width && back.height == image.height && back.pixels == image.pixels);
  RgbaImage sheet = NewCanvas(image.width + 3, image.height * 2 + 1, 255, 255, 255, 0);
  DrawScaled(sheet, image, 1, 1, image.width + 1, image.height * 2);
  Check(sheet.pixels.size() ==
        static_cast<std::size_t>(image.width + 3) * (image.height * 2 + 1) * 4);

  // A JPEG sheet drawn band by band equals the one drawn whole first.
  const std::vector<Placement> placements = {{&image, 1, 1, image.width + 1, image.height * 2},
                                             {&image, -1, image.height, image.width, 3}};
  RgbaImage canvas = NewCanvas(sheet.width, sheet.height, 255, 255, 255, 0);
  for (const Placement& p : placements) DrawScaled(canvas, *p.source, p.x, p.y, p.width, p.height);
  std::string whole, banded;
  const int quality = data[0] % 2 == 0 ? 85 : 0;
  Check(EncodeJpeg(canvas, quality, whole));
  Check(EncodeJpegSheet(canvas.width, canvas.height, placements, quality, banded));
  Check(whole == banded);
  return 0;
}
