// GIF through giflib, which reports errors by return codes. The file is
// walked record by record instead of read whole, so a hostile file with many
// frames costs nothing past the second image descriptor.
#include <gif_lib.h>

#include <algorithm>
#include <cstring>

#include "image/codec.h"

namespace zelvarpack::image {

namespace {

struct MemorySource {
  const std::uint8_t* bytes;
  std::size_t count;
  std::size_t next;
};

int ReadFromMemory(GifFileType* gif, GifByteType* into, int wanted) {
  auto* source = static_cast<MemorySource*>(gif->UserData);
  const std::size_t left = source->count - source->next;
  const std::size_t n = wanted < 0 ? 0 : std::min(left, static_cast<std::size_t>(wanted));
  std::memcpy(into, source->bytes + source->next, n);
  source->next += n;
  return static_cast<int>(n);
}

class GifFile {
 public:
  explicit GifFile(MemorySource* source) {
    int error = 0;
    gif_ = DGifOpen(source, ReadFromMemory, &error);
  }
  ~GifFile() {
    int error = 0;
    if (gif_ != nullptr) DGifCloseFile(gif_, &error);
  }
  GifFile(const GifFile&) = delete;
  GifFile& operator=(const GifFile&) = delete;
  GifFileType* get() const { return gif_; }

 private:
  GifFileType* gif_;
};

// Reads the frame whose descriptor was just read onto `canvas`.
bool ReadFrame(GifFileType* gif, int transparent, const DecodeLimits& limits, RgbaImage& canvas) {
  const GifImageDesc& frame = gif->Image;
  const ColorMapObject* colours = frame.ColorMap != nullptr ? frame.ColorMap : gif->SColorMap;
  if (colours == nullptr || colours->Colors == nullptr) return false;
  if (!limits.Admits(frame.Width, frame.Height) || frame.Left < 0 || frame.Top < 0) return false;
  std::int64_t width = gif->SWidth, height = gif->SHeight;
  if (width <= 0 || height <= 0) {
    width = static_cast<std::int64_t>(frame.Left) + frame.Width;
    height = static_cast<std::int64_t>(frame.Top) + frame.Height;
  }
  if (!limits.Admits(width, height)) return false;
  canvas =
      NewCanvas(static_cast<std::int32_t>(width), static_cast<std::int32_t>(height), 0, 0, 0, 0);
  std::vector<GifPixelType> line(static_cast<std::size_t>(frame.Width));
  static constexpr int kInterlacedStart[] = {0, 4, 2, 1};
  static constexpr int kInterlacedStep[] = {8, 8, 4, 2};
  const int passes = frame.Interlace ? 4 : 1;
  for (int pass = 0; pass < passes; ++pass) {
    const int start = frame.Interlace ? kInterlacedStart[pass] : 0;
    const int step = frame.Interlace ? kInterlacedStep[pass] : 1;
    for (int row = start; row < frame.Height; row += step) {
      if (DGifGetLine(gif, line.data(), frame.Width) != GIF_OK) return false;
      const std::int64_t y = static_cast<std::int64_t>(frame.Top) + row;
      if (y >= height) continue;
      for (int x = 0; x < frame.Width; ++x) {
        const std::int64_t cx = static_cast<std::int64_t>(frame.Left) + x;
        if (cx >= width) break;
        std::uint8_t* pixel =
            canvas.At(static_cast<std::int32_t>(cx), static_cast<std::int32_t>(y));
        const int index = line[static_cast<std::size_t>(x)];
        if (index == transparent) continue;  // the canvas is transparent already
        if (index < colours->ColorCount) {
          const GifColorType& c = colours->Colors[index];
          pixel[0] = c.Red, pixel[1] = c.Green, pixel[2] = c.Blue;
        }
        pixel[3] = 255;  // an index past the table shows black
      }
    }
  }
  return true;
}

}  // namespace

bool DecodeGif(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
               RgbaImage& out) {
  out = RgbaImage{};
  MemorySource source{bytes, count, 0};
  GifFile file(&source);
  GifFileType* gif = file.get();
  if (gif == nullptr) return false;
  RgbaImage canvas;
  bool haveFrame = false;
  int transparent = NO_TRANSPARENT_COLOR;
  while (true) {
    GifRecordType type;
    // Data after a whole first frame may be cut short; the frame stands.
    if (DGifGetRecordType(gif, &type) != GIF_OK) break;
    if (type == TERMINATE_RECORD_TYPE) break;
    if (type == IMAGE_DESC_RECORD_TYPE) {
      if (haveFrame) return false;  // a second frame: an animation
      if (DGifGetImageDesc(gif) != GIF_OK) return false;
      if (!ReadFrame(gif, transparent, limits, canvas)) return false;
      haveFrame = true;
    } else if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(gif, &code, &block) != GIF_OK) break;
      if (code == GRAPHICS_EXT_FUNC_CODE && block != nullptr && !haveFrame) {
        GraphicsControlBlock control;
        if (DGifExtensionToGCB(block[0], block + 1, &control) == GIF_OK) {
          transparent = control.TransparentColor;
        }
      }
      while (block != nullptr) {
        if (DGifGetExtensionNext(gif, &block) != GIF_OK) {
          if (!haveFrame) return false;
          block = nullptr;
          type = TERMINATE_RECORD_TYPE;
        }
      }
      if (type == TERMINATE_RECORD_TYPE) break;
    }
  }
  if (!haveFrame) return false;
  out = std::move(canvas);
  return true;
}

}  // namespace zelvarpack::image
