// zelvarpack video pack: frames into an index file and a data file of JPEG
// mosaics, with the counts a user needs to judge the arrangement;
// zelvarpack video frame: one frame rebuilt from those files, as PNG.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "image/codec.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_video_server.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

namespace {

unsigned char* Bytes(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

std::int32_t Length(const std::string& text) {
  if (text.size() > 0x7FFFFFF0u) Fail("path too long");
  return static_cast<std::int32_t>(text.size());
}

// Records in a data file: 4-byte big-endian lengths, each followed by that
// many bytes.
std::size_t CountRecords(const std::string& data) {
  std::size_t records = 0;
  std::size_t at = 0;
  while (data.size() - at >= 4) {
    const auto* p = reinterpret_cast<const unsigned char*>(data.data() + at);
    const std::size_t n = std::size_t{p[0]} << 24 | std::size_t{p[1]} << 16 |
                          std::size_t{p[2]} << 8 | std::size_t{p[3]};
    if (data.size() - at - 4 < n) break;
    at += 4 + n;
    ++records;
  }
  return records;
}

// The options of both subcommands; `work` and `out` are taken only where
// the subcommand has them.
void ParseFiles(Arguments& args, std::string* work, std::string* out, std::string& index,
                std::string& data, std::vector<std::string>& rest) {
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (work != nullptr && arg == "--work") {
      *work = args.TakeValue(arg);
    } else if (arg == "--index") {
      index = args.TakeValue(arg);
    } else if (arg == "--data") {
      data = args.TakeValue(arg);
    } else if (out != nullptr && arg == "-o") {
      *out = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      rest.push_back(arg);
    }
  }
  if (index.empty() || data.empty()) Fail("--index FILE and --data FILE are both needed");
}

int RunVideoPack(Arguments& args) {
  std::string work, index, data;
  std::vector<std::string> frames;
  ParseFiles(args, &work, nullptr, index, data, frames);
  if (work.empty()) Fail("--work DIR is needed");
  if (frames.empty()) Fail("no frame given");
  if (!std::filesystem::is_directory(work)) Fail("work folder " + work + " does not exist");

  void* server = CZelvarVideoServer::Create(Bytes(work), Length(work), Bytes(index), Length(index),
                                            Bytes(data), Length(data), 0);
  std::uintmax_t inputBytes = 0;
  try {
    for (std::string& frame : frames) {
      try {
        CZelvarVideoServer::Write(server, Bytes(frame), Length(frame));
      } catch (const std::runtime_error& error) {
        throw std::runtime_error(frame + ": " + error.what());
      }
      inputBytes += std::filesystem::file_size(frame);
    }
    CZelvarVideoServer::Flush(server);
  } catch (...) {
    CZelvarVideoServer::Destroy(server);
    throw;
  }
  CZelvarVideoServer::Destroy(server);

  const std::string dataBytes = zelvarpack::cli::ReadInput(data);
  const auto indexBytes = std::filesystem::file_size(index);
  std::printf("frames: %zu\n", frames.size());
  std::printf("tiles: %zu\n", frames.size() * 225);
  std::printf("tesserae started: %zu\n", CountRecords(dataBytes));
  std::printf("input bytes: %ju\n", inputBytes);
  std::printf("output bytes: %ju (index %ju, data %zu)\n",
              static_cast<std::uintmax_t>(indexBytes + dataBytes.size()),
              static_cast<std::uintmax_t>(indexBytes), dataBytes.size());
  return 0;
}

int RunVideoFrame(Arguments& args) {
  std::string index, data;
  std::vector<std::string> rest;
  std::string out;
  ParseFiles(args, nullptr, &out, index, data, rest);
  if (out.empty()) Fail("-o OUT.png is needed");
  if (rest.size() != 1) Fail("expected one frame number");
  char* end = nullptr;
  const long n = std::strtol(rest[0].c_str(), &end, 10);
  if (end == rest[0].c_str() || *end != '\0' || n < 0 || n > 0x7FFFFFFF) {
    Fail("frame number " + rest[0] + " is not a number from 0");
  }

  void* server = CZelvarVideoServer::Create(Bytes(index), Length(index), Bytes(data), Length(data));
  std::unique_ptr<CZelvarBuffer> pixels;
  std::int32_t frames = 0;
  try {
    frames = CZelvarVideoServer::FrameCount(server);
    pixels.reset(CZelvarVideoServer::ReadFrame(server, static_cast<std::int32_t>(n)));
  } catch (...) {
    CZelvarVideoServer::Destroy(server);
    throw;
  }
  CZelvarVideoServer::Destroy(server);
  if (!pixels) {
    throw std::runtime_error("frame " + rest[0] + " is not in the index (" +
                             std::to_string(frames) + " frames)");
  }
  zelvarpack::image::RgbaImage image;
  image.width = CZelvarVideoServer::kFrameWidth;
  image.height = CZelvarVideoServer::kFrameHeight;
  image.pixels.assign(pixels->GetValue(), pixels->GetValue() + pixels->GetValueLength());
  std::string png;
  if (!zelvarpack::image::EncodePng(image, png)) throw std::runtime_error("could not encode PNG");
  zelvarpack::cli::WriteOutput(out, reinterpret_cast<const unsigned char*>(png.data()),
                               static_cast<std::int32_t>(png.size()));
  return 0;
}

}  // namespace

int RunVideo(Arguments& args) {
  if (args.Done()) Fail("expected a subcommand: pack or frame");
  const std::string sub = args.Take();
  if (sub == "pack") return RunVideoPack(args);
  if (sub == "frame") return RunVideoFrame(args);
  Fail("unknown subcommand " + sub + " (expected pack or frame)");
}
