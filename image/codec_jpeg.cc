// JPEG through libjpeg-turbo. libjpeg reports errors by calling error_exit,
// which must not return; here it longjmps back into the small C-style
// function that started the work. Those functions hold no object with a
// destructor, and no C++ frame lies between them and libjpeg, so the jump
// skips nothing. Everything that owns memory lives in the callers.
#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

// jpeglib.h needs FILE and size_t declared first.
#include <jerror.h>
#include <jpeglib.h>

#include "image/codec.h"

namespace zelvarpack::image {

namespace {

// A progressive file may hold any number of scans, each a pass over the whole
// image; real encoders write about ten.
constexpr int kMaxScans = 100;

struct ErrorTrap {
  jpeg_error_mgr manager;  // first, so the libjpeg pointer converts back
  std::jmp_buf jump;
};

[[noreturn]] void OnError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorTrap*>(info->err)->jump, 1);
}

// Warnings about data that ends early or breaks off mid-segment mean libjpeg
// would fill the rest with grey: such a file is corrupt. Other warnings
// (stray bytes between segments, common in camera files) are let pass. The
// library writes no messages.
void OnMessage(j_common_ptr info, int level) {
  if (level == -1 &&
      (info->err->msg_code == JWRN_JPEG_EOF || info->err->msg_code == JWRN_HIT_MARKER)) {
    OnError(info);
  }
}

void OnOutput(j_common_ptr) {}

void OnProgress(j_common_ptr info) {
  auto* decompress = reinterpret_cast<j_decompress_ptr>(info);
  if (info->is_decompressor && decompress->input_scan_number > kMaxScans) OnError(info);
}

void InstallTrap(ErrorTrap& trap) {
  jpeg_std_error(&trap.manager);
  trap.manager.error_exit = OnError;
  trap.manager.emit_message = OnMessage;
  trap.manager.output_message = OnOutput;
}

// Where decoded rows go: Allocate is called once with the size, and returns
// null when the sink refuses the size or memory ran out.
struct PixelSink {
  const DecodeLimits* limits;
  RgbaImage* image;
  bool outOfMemory;
};

std::uint8_t* Allocate(PixelSink* sink, JDIMENSION width, JDIMENSION height) {
  if (!sink->limits->Admits(width, height)) return nullptr;
  try {
    sink->image->width = static_cast<std::int32_t>(width);
    sink->image->height = static_cast<std::int32_t>(height);
    sink->image->pixels.resize(static_cast<std::size_t>(width) * height * 4);
  } catch (const std::bad_alloc&) {
    sink->outOfMemory = true;
    return nullptr;
  }
  return sink->image->pixels.data();
}

// Adobe files store CMYK inverted; others plain.
void CmykToRgba(std::uint8_t* row, JDIMENSION width, bool inverted) {
  for (JDIMENSION x = 0; x < width; ++x, row += 4) {
    unsigned c = row[0], m = row[1], y = row[2], k = row[3];
    if (!inverted) c = 255 - c, m = 255 - m, y = 255 - y, k = 255 - k;
    row[0] = static_cast<std::uint8_t>(c * k / 255);
    row[1] = static_cast<std::uint8_t>(m * k / 255);
    row[2] = static_cast<std::uint8_t>(y * k / 255);
    row[3] = 255;
  }
}

bool DecodeRaw(const std::uint8_t* bytes, std::size_t count, PixelSink* sink) {
  jpeg_decompress_struct info;
  ErrorTrap trap;
  jpeg_progress_mgr progress;
  info.err = &trap.manager;
  InstallTrap(trap);
  if (setjmp(trap.jump) != 0) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  jpeg_create_decompress(&info);
  progress.progress_monitor = OnProgress;
  info.progress = &progress;
  jpeg_mem_src(&info, bytes, static_cast<unsigned long>(count));
  if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK)
    OnError(reinterpret_cast<j_common_ptr>(&info));
  // Before jpeg_start_decompress: for a progressive file it takes memory for
  // the coefficients of the whole image.
  if (!sink->limits->Admits(info.image_width, info.image_height)) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  const bool cmyk = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
  info.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_RGBA;
  info.dct_method = JDCT_ISLOW;
  jpeg_start_decompress(&info);
  std::uint8_t* pixels = Allocate(sink, info.output_width, info.output_height);
  if (pixels == nullptr || info.output_components != 4) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  const std::size_t stride = static_cast<std::size_t>(info.output_width) * 4;
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels + stride * info.output_scanline;
    if (jpeg_read_scanlines(&info, &row, 1) != 1) OnError(reinterpret_cast<j_common_ptr>(&info));
    if (cmyk) CmykToRgba(row, info.output_width, info.saw_Adobe_marker);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return true;
}

// Rows for the encoder: either an image's own rows, or a band of `band`
// rows drawn from placements as the encoder asks for them.
struct RowSource {
  const RgbaImage* image;  // whole image, when not null
  const std::vector<Placement>* placements;
  RgbaImage* band;
};

constexpr std::int32_t kBandRows = 32;

// Fills `band` with sheet rows from `top` on: opaque white, then every
// placement that reaches those rows.
void DrawBand(RgbaImage& band, std::int32_t top, const std::vector<Placement>& placements) {
  std::uint8_t* const bytes = band.pixels.data();
  const std::size_t total = band.pixels.size();
  std::memset(bytes, 255, total);
  for (const Placement& placement : placements) {
    if (placement.y >= top + band.height || placement.y + placement.height <= top) continue;
    DrawScaled(band, *placement.source, placement.x, placement.y - top, placement.width,
               placement.height);
  }
}

// On success `*buffer` holds `*size` bytes allocated with malloc.
bool EncodeRaw(std::int32_t width, std::int32_t height, const RowSource* rows, int quality,
               unsigned char** buffer, unsigned long* size) {
  jpeg_compress_struct info;
  ErrorTrap trap;
  info.err = &trap.manager;
  InstallTrap(trap);
  if (setjmp(trap.jump) != 0) {
    jpeg_destroy_compress(&info);
    return false;
  }
  jpeg_create_compress(&info);
  jpeg_mem_dest(&info, buffer, size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 4;
  info.in_color_space = JCS_EXT_RGBX;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality < 1 ? 1 : quality, TRUE);
  info.optimize_coding = TRUE;
  jpeg_start_compress(&info, TRUE);
  const std::size_t stride = static_cast<std::size_t>(width) * 4;
  JSAMPROW pointers[kBandRows];
  while (info.next_scanline < info.image_height) {
    const auto top = static_cast<std::int32_t>(info.next_scanline);
    const std::int32_t count = std::min(kBandRows, height - top);
    const std::uint8_t* first;
    if (rows->image != nullptr) {
      first = rows->image->pixels.data() + stride * static_cast<std::size_t>(top);
    } else {
      rows->band->height = count;  // the last band may be short
      DrawBand(*rows->band, top, *rows->placements);
      first = rows->band->pixels.data();
    }
    for (std::int32_t i = 0; i < count; ++i) {
      pointers[i] = const_cast<JSAMPROW>(first + stride * static_cast<std::size_t>(i));
    }
    JDIMENSION done = 0;
    while (done < static_cast<JDIMENSION>(count)) {
      done += jpeg_write_scanlines(&info, pointers + done, static_cast<JDIMENSION>(count) - done);
    }
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return true;
}

bool EncodeRows(std::int32_t width, std::int32_t height, const RowSource& rows, int quality,
                std::string& out) {
  out.clear();
  if (width <= 0 || height <= 0) return false;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  const bool ok = EncodeRaw(width, height, &rows, quality, &buffer, &size);
  struct Free {
    void operator()(unsigned char* p) const { std::free(p); }
  };
  const std::unique_ptr<unsigned char, Free> owned(buffer);
  if (ok) out.assign(reinterpret_cast<const char*>(buffer), size);
  return ok;
}

}  // namespace

bool DecodeJpeg(const std::uint8_t* bytes, std::size_t count, const DecodeLimits& limits,
                RgbaImage& out) {
  // The caller's pixel memory is reused when it is large enough.
  RgbaImage image;
  image.pixels.swap(out.pixels);
  image.pixels.clear();
  PixelSink sink{&limits, &image, false};
  const bool ok = DecodeRaw(bytes, count, &sink);
  if (sink.outOfMemory) throw std::bad_alloc();
  out = ok ? std::move(image) : RgbaImage{};
  return ok;
}

bool EncodeJpeg(const RgbaImage& image, int quality, std::string& out) {
  if (image.pixels.size() !=
      static_cast<std::size_t>(std::max(image.width, 0)) * std::max(image.height, 0) * 4) {
    out.clear();
    return false;
  }
  return EncodeRows(image.width, image.height, {&image, nullptr, nullptr}, quality, out);
}

bool EncodeJpegSheet(std::int32_t width, std::int32_t height,
                     const std::vector<Placement>& placements, int quality, std::string& out) {
  if (width <= 0 || height <= 0) {
    out.clear();
    return false;
  }
  RgbaImage band;
  band.width = width;
  band.height = std::min(kBandRows, height);
  band.pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(band.height) * 4);
  return EncodeRows(width, height, {nullptr, &placements, &band}, quality, out);
}

}  // namespace zelvarpack::image

namespace zelvarpack::image {

// The compressor, its error trap and its destination, at fixed addresses:
// libjpeg keeps pointers to all three.
struct JpegRowEncoder::State {
  struct Destination {
    jpeg_destination_mgr manager;  // first, so the libjpeg pointer converts back
    State* owner;
  };
  static constexpr std::size_t kOutputBytes = 16384;

  jpeg_compress_struct info;
  ErrorTrap trap;
  Destination destination;
  Sink sink;
  bool created = false;
  bool failed = false;
  unsigned char output[kOutputBytes];

  static State* Of(j_compress_ptr info) {
    return reinterpret_cast<Destination*>(info->dest)->owner;
  }
  static void Init(j_compress_ptr info) {
    State* state = Of(info);
    state->destination.manager.next_output_byte = state->output;
    state->destination.manager.free_in_buffer = kOutputBytes;
  }
  static boolean Empty(j_compress_ptr info) {
    State* state = Of(info);
    if (!state->sink(state->output, kOutputBytes)) ERREXIT(info, JERR_FILE_WRITE);
    Init(info);
    return TRUE;
  }
  static void Term(j_compress_ptr info) {
    State* state = Of(info);
    const std::size_t used = kOutputBytes - state->destination.manager.free_in_buffer;
    if (used > 0 && !state->sink(state->output, used)) ERREXIT(info, JERR_FILE_WRITE);
  }
};

namespace {

// The three steps of JpegRowEncoder, each its own setjmp frame with no C++
// object in it, as libjpeg's error exit requires.
bool StartRaw(JpegRowEncoder::State* s, std::int32_t width, std::int32_t height, int quality) {
  jpeg_compress_struct* info = &s->info;
  if (setjmp(s->trap.jump) != 0) return false;
  jpeg_create_compress(info);
  s->created = true;
  s->destination.manager.init_destination = JpegRowEncoder::State::Init;
  s->destination.manager.empty_output_buffer = JpegRowEncoder::State::Empty;
  s->destination.manager.term_destination = JpegRowEncoder::State::Term;
  s->destination.owner = s;
  info->dest = &s->destination.manager;
  info->image_width = static_cast<JDIMENSION>(width);
  info->image_height = static_cast<JDIMENSION>(height);
  info->input_components = 4;
  info->in_color_space = JCS_EXT_RGBX;
  jpeg_set_defaults(info);
  jpeg_set_quality(info, quality < 1 ? 1 : quality, TRUE);
  info->comp_info[0].h_samp_factor = 2;
  info->comp_info[0].v_samp_factor = 1;
  info->optimize_coding = FALSE;
  jpeg_start_compress(info, TRUE);
  return true;
}

bool WriteRowsRaw(JpegRowEncoder::State* s, JSAMPROW* pointers, JDIMENSION count) {
  if (setjmp(s->trap.jump) != 0) return false;
  JDIMENSION done = 0;
  while (done < count) {
    const JDIMENSION wrote = jpeg_write_scanlines(&s->info, pointers + done, count - done);
    if (wrote == 0) return false;  // more rows than the image has
    done += wrote;
  }
  return true;
}

bool FinishRaw(JpegRowEncoder::State* s) {
  if (setjmp(s->trap.jump) != 0) return false;
  jpeg_finish_compress(&s->info);
  return true;
}

}  // namespace

JpegRowEncoder::JpegRowEncoder() = default;

JpegRowEncoder::~JpegRowEncoder() {
  if (state_ && state_->created) jpeg_destroy_compress(&state_->info);
}

bool JpegRowEncoder::Start(std::int32_t width, std::int32_t height, int quality, Sink sink) {
  if (state_ || width <= 0 || height <= 0 || width > JPEG_MAX_DIMENSION ||
      height > JPEG_MAX_DIMENSION) {
    return false;
  }
  state_ = std::make_unique<State>();
  state_->sink = std::move(sink);
  state_->info.err = &state_->trap.manager;
  InstallTrap(state_->trap);
  if (!StartRaw(state_.get(), width, height, quality)) state_->failed = true;
  return !state_->failed;
}

bool JpegRowEncoder::WriteRows(const std::uint8_t* rows, std::int32_t count, std::size_t stride) {
  if (!state_ || state_->failed) return false;
  constexpr std::int32_t kBatch = 16;
  JSAMPROW pointers[kBatch];
  for (std::int32_t first = 0; first < count; first += kBatch) {
    const std::int32_t n = std::min(kBatch, count - first);
    for (std::int32_t i = 0; i < n; ++i) {
      pointers[i] = const_cast<JSAMPROW>(rows + stride * static_cast<std::size_t>(first + i));
    }
    if (!WriteRowsRaw(state_.get(), pointers, static_cast<JDIMENSION>(n))) {
      state_->failed = true;
      return false;
    }
  }
  return true;
}

bool JpegRowEncoder::Finish() {
  if (!state_ || state_->failed) return false;
  if (!FinishRaw(state_.get())) state_->failed = true;
  return !state_->failed;
}

}  // namespace zelvarpack::image
