// libFuzzer target: arbitrary bytes as the index file of the video server,
// read against a data file of three records (read form: Read, FrameCount,
// Destroy), and the same bytes walked as a data file's records.
//
// Besides the sanitizers' checks it asserts: the only text thrown is
// "Invalid file."; an index is accepted exactly when it is whole frames of
// entries that name one of the three records and a place below 225, and
// then FrameCount is its length / 1125; the record walk accepts exactly
// when the lengths tile the bytes, and every span lies inside them.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "media/video_index.h"
#include "zelvarpack/zelvar_video_server.h"

namespace {

struct Files {
  Files() {
    char folder[] = "/tmp/zelvarpack-video-fuzz.XXXXXX";
    if (::mkdtemp(folder) == nullptr) std::abort();
    dir = folder;
    index = dir + "/i";
    data = dir + "/d";
    // Three records of 0, 1 and 2 bytes: the reader never opens them here.
    std::ofstream(data, std::ios::binary).write("\0\0\0\0\0\0\0\1A\0\0\0\2BC", 15);
  }
  ~Files() { std::filesystem::remove_all(dir); }
  std::string dir, index, data;
};

// Whether the index is what the format allows, by a separate reading of
// the grammar.
bool Acceptable(const std::uint8_t* bytes, std::size_t size) {
  if (size % 1125 != 0) return false;
  for (std::size_t at = 0; at < size; at += 5) {
    if (bytes[at] != 0 || bytes[at + 1] != 0 || bytes[at + 2] != 0 || bytes[at + 3] > 2 ||
        bytes[at + 4] > 224) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Files files;
  std::ofstream(files.index, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  const bool acceptable = Acceptable(bytes, size);

  std::string index = files.index, data = files.data;
  void* reader = CZelvarVideoServer::Create(
      reinterpret_cast<unsigned char*>(index.data()), static_cast<std::int32_t>(index.size()),
      reinterpret_cast<unsigned char*>(data.data()), static_cast<std::int32_t>(data.size()));
  try {
    const std::int32_t frames = CZelvarVideoServer::FrameCount(reader);
    if (!acceptable || static_cast<std::size_t>(frames) != size / 1125) std::abort();
  } catch (const std::runtime_error& error) {
    if (acceptable || std::strcmp(error.what(), "Invalid file.") != 0) std::abort();
  }
  CZelvarVideoServer::Destroy(reader);

  std::vector<zelvarpack::RecordSpan> spans;
  const bool walked = zelvarpack::ScanVideoRecords(
      size,
      [&](std::uint64_t at, std::uint8_t* b) {
        if (at + 4 > size) std::abort();
        std::memcpy(b, bytes + at, 4);
        return true;
      },
      size / 4, spans);
  if (walked) {
    std::uint64_t end = 0;
    for (const auto& span : spans) {
      if (span.offset != end + 4 || span.offset + span.length > size) std::abort();
      end = span.offset + span.length;
    }
    if (end != size) std::abort();
  }
  return 0;
}
