// libFuzzer target: arbitrary bytes as a WAV file through the audio server
// (write form: Write, Flush, Destroy). An input whose RIFF size does not
// match its length is run a second time with the size corrected, so the
// fuzzer reaches the chunk walk without having to guess the size.
//
// Besides the sanitizers' checks it asserts: only the two WAV messages are
// thrown; every index byte stands for one piece; the data file parses into
// records that inflate, together, to exactly the PCM bytes the reader
// delivered; the work folder is empty after Flush; and every piece's
// fingerprint stays within what 16-bit samples allow (F <= 512.02).
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "media/audio_fingerprint.h"
#include "media/wav_reader.h"
#include "net/zlib_codec.h"
#include "zelvarpack/zelvar_audio_server.h"

namespace {

class CountingSink : public zelvarpack::WavBlockSink {
 public:
  void OnBlock(const unsigned char* bytes, std::int64_t n) override {
    const std::int32_t parts = zelvarpack::PiecesInBlock(n);
    const std::int64_t length = n / parts;
    for (std::int32_t p = 0; p < parts; ++p) {
      const double f = fingerprint.Of(bytes + p * length, length);
      if (!(f >= 0.0 && f <= 512.02)) std::abort();
    }
    pieces += parts;
    pcm += n;
  }
  zelvarpack::AudioFingerprint fingerprint;
  std::int64_t pieces = 0;
  std::int64_t pcm = 0;
};

// A fresh folder per run, removed when the run ends (libFuzzer leaves
// without running exit handlers, so nothing may outlive a run).
class ScratchDir {
 public:
  ScratchDir() {
    // Memory-backed when available: every run creates and deletes files.
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                           ? std::filesystem::path("/dev/shm")
                                           : std::filesystem::temp_directory_path();
    path_ = (base / "zelvarpack-audio-fuzz-XXXXXX").string();
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
    std::filesystem::create_directory(path_ + "/work");
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string Slurp(const std::string& path) {
  std::string out;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) std::abort();
  char chunk[65536];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) out.append(chunk, got);
  std::fclose(f);
  return out;
}

unsigned char* Bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }

void RunOne(const std::uint8_t* data, std::size_t size) {
  const ScratchDir scratch;
  std::string wav = scratch.path() + "/in.wav";
  std::string work = scratch.path() + "/work";
  std::string index = scratch.path() + "/pack.idx";
  std::string dataPath = scratch.path() + "/pack.dat";
  FILE* f = std::fopen(wav.c_str(), "wb");
  if (f == nullptr || std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);

  // What the reader delivers, counted independently of the server.
  CountingSink expected;
  std::vector<unsigned char> block;
  std::string readerError;
  try {
    zelvarpack::WalkWavFile(wav.c_str(), expected, block);
  } catch (const std::runtime_error& error) {
    readerError = error.what();
  }

  void* server =
      CZelvarAudioServer::Create(Bytes(work), static_cast<std::int32_t>(work.size()), Bytes(index),
                                 static_cast<std::int32_t>(index.size()), Bytes(dataPath),
                                 static_cast<std::int32_t>(dataPath.size()), 0);
  std::string serverError;
  try {
    CZelvarAudioServer::Write(server, Bytes(wav), 0);
  } catch (const std::runtime_error& error) {
    serverError = error.what();
  }
  if (serverError != readerError) std::abort();
  if (!serverError.empty() && serverError != "Invalid file.") std::abort();
  CZelvarAudioServer::Flush(server);
  CZelvarAudioServer::Destroy(server);

  if (static_cast<std::int64_t>(Slurp(index).size()) != expected.pieces) std::abort();
  const std::string packed = Slurp(dataPath);
  std::int64_t inflated = 0;
  std::size_t at = 0;
  while (at < packed.size()) {
    if (packed.size() - at < 4) std::abort();
    const auto* p = reinterpret_cast<const unsigned char*>(packed.data() + at);
    const std::size_t n = std::size_t{p[0]} << 24 | std::size_t{p[1]} << 16 |
                          std::size_t{p[2]} << 8 | std::size_t{p[3]};
    at += 4;
    if (packed.size() - at < n) std::abort();
    const auto record = zelvarpack::net::Decompress(
        p + 4, n, zelvarpack::net::ZlibFormat::kRawDeflate, zelvarpack::net::kMaxBufferBytes);
    if (record->GetValueLength() == 0) std::abort();  // a started tessera has a piece
    inflated += record->GetValueLength();
    at += n;
  }
  if (inflated != expected.pcm) std::abort();
  if (!std::filesystem::is_empty(work)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (1u << 20)) return 0;
  RunOne(data, size);
  if (size >= 8) {
    std::vector<std::uint8_t> fixed(data, data + size);
    const auto riff = static_cast<std::uint32_t>(size - 8);
    for (int i = 0; i < 4; ++i) fixed[4 + i] = static_cast<std::uint8_t>(riff >> (8 * i));
    if (std::memcmp(fixed.data() + 4, data + 4, 4) != 0) RunOne(fixed.data(), size);
  }
  return 0;
}
