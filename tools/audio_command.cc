// zelvarpack audio pack: WAV files into an index file and a data file of
// tesserae, with the sizes a user needs to judge the arrangement.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "media/wav_reader.h"
#include "net/zlib_codec.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_audio_server.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

namespace {

// Collects the PCM of the WAV files in file order, for the comparison
// stream.
class PcmCollector : public zelvarpack::WavBlockSink {
 public:
  void OnBlock(const unsigned char* bytes, std::int64_t n) override {
    pcm.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(n));
  }
  std::string pcm;
};

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
    at += 4 + n;
    ++records;
  }
  return records;
}

int RunAudioPack(Arguments& args) {
  std::string work, index, data;
  std::vector<std::string> wavs;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--work") {
      work = args.TakeValue(arg);
    } else if (arg == "--index") {
      index = args.TakeValue(arg);
    } else if (arg == "--data") {
      data = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      wavs.push_back(arg);
    }
  }
  if (work.empty() || index.empty() || data.empty()) {
    Fail("--work DIR, --index FILE and --data FILE are all needed");
  }
  if (wavs.empty()) Fail("no WAV file given");
  if (!std::filesystem::is_directory(work)) Fail("work folder " + work + " does not exist");

  void* server = CZelvarAudioServer::Create(Bytes(work), Length(work), Bytes(index), Length(index),
                                            Bytes(data), Length(data), 0);
  PcmCollector collector;
  std::vector<unsigned char> block;
  try {
    for (std::string& wav : wavs) {
      try {
        CZelvarAudioServer::Write(server, Bytes(wav), Length(wav));
      } catch (const std::runtime_error& error) {
        throw std::runtime_error(wav + ": " + error.what());
      }
      zelvarpack::WalkWavFile(wav.c_str(), collector, block);
    }
    CZelvarAudioServer::Flush(server);
  } catch (...) {
    CZelvarAudioServer::Destroy(server);
    throw;
  }
  CZelvarAudioServer::Destroy(server);

  const std::string dataBytes = zelvarpack::cli::ReadInput(data);
  const auto pieces = std::filesystem::file_size(index);
  const auto single =
      zelvarpack::net::Compress(reinterpret_cast<const unsigned char*>(collector.pcm.data()),
                                collector.pcm.size(), zelvarpack::net::ZlibFormat::kRawDeflate);
  std::printf("pieces: %llu\n", static_cast<unsigned long long>(pieces));
  std::printf("tesserae started: %zu\n", CountRecords(dataBytes));
  std::printf("input bytes: %zu\n", collector.pcm.size());
  std::printf("data-file bytes: %zu\n", dataBytes.size());
  std::printf("one raw-deflate stream in file order: %d bytes\n",
              static_cast<int>(single->GetValueLength()));
  return 0;
}

}  // namespace

int RunAudio(Arguments& args) {
  if (args.Done()) Fail("expected a subcommand: pack");
  const std::string sub = args.Take();
  if (sub != "pack") Fail("unknown subcommand " + sub + " (expected pack)");
  return RunAudioPack(args);
}
