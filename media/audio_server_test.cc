#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "media/audio_fingerprint.h"
#include "media/wav_test_support.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_audio_server.h"

namespace zelvarpack {
namespace {

using testing::Chunk;
using testing::InflatedRecords;
using testing::MonoWav;
using testing::Noise;
using testing::Repeat;
using testing::Samples;
using testing::Wav;
using testing::WavFormat;

unsigned char* Bytes(const std::string& s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s.data()));
}

// 800 samples of a +-8000 square wave of period 40: bucket 10345 (0x2869),
// computed independently. Its negation has exactly the same fingerprint.
std::string SquarePiece(int sign = 1) {
  std::vector<int> samples;
  for (int i = 0; i < 800; ++i) samples.push_back(sign * ((i / 20) % 2 == 0 ? 8000 : -8000));
  return Samples(samples);
}

std::string MessageOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(nothing thrown)";
}

std::vector<std::string> FilesIn(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

class AudioServerTest : public ::testing::Test {
 protected:
  AudioServerTest() {
    std::filesystem::create_directory(dir_.path() / "work");
    std::filesystem::create_directory(dir_.path() / "out");
  }
  ~AudioServerTest() override { CZelvarAudioServer::Destroy(handle_); }

  void* Writer() {
    if (handle_ == nullptr) {
      handle_ =
          CZelvarAudioServer::Create(Bytes(work_), static_cast<std::int32_t>(work_.size()),
                                     Bytes(index_), static_cast<std::int32_t>(index_.size()),
                                     Bytes(data_), static_cast<std::int32_t>(data_.size()), 7);
    }
    return handle_;
  }
  std::string Put(const std::string& wav) {
    const std::string path = dir_.File("in" + std::to_string(++files_) + ".wav");
    WriteWholeFile(path, wav);
    return path;
  }
  void Write(const std::string& path) {
    CZelvarAudioServer::Write(Writer(), Bytes(path), static_cast<std::int32_t>(path.size()));
  }
  std::string WriteError(const std::string& wav) {
    const std::string path = Put(wav);
    return MessageOf([&] { Write(path); });
  }
  void Flush() { CZelvarAudioServer::Flush(Writer()); }
  std::string Index() const { return ReadWholeFile(index_); }
  std::vector<std::string> Records() const { return InflatedRecords(ReadWholeFile(data_)); }

  TempDir dir_;
  std::string work_ = (dir_.path() / "work").string();
  std::string index_ = (dir_.path() / "out" / "pack.idx").string();
  std::string data_ = (dir_.path() / "out" / "pack.dat").string();
  void* handle_ = nullptr;
  int files_ = 0;
};

TEST_F(AudioServerTest, CutsBlocksIntoTenNineTwoAndOnePieces) {
  const struct {
    WavFormat format;
    std::size_t block;
    std::size_t pieces;
  } kCases[] = {
      {{1, 8000, 16}, 16000, 10},  // 10 pieces of 1600
      {{1, 8001, 16}, 16002, 9},   // 9 of 1778
      {{1, 11, 16}, 22, 2},        // 2 of 11
      {{1, 17, 8}, 17, 1},         // 1 of 17
      {{2, 11, 16}, 44, 4},        // stereo: 4 of 11
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.block);
    TempDir out;
    const std::string index = out.File("i"), data = out.File("d");
    void* h = CZelvarAudioServer::Create(Bytes(work_), static_cast<std::int32_t>(work_.size()),
                                         Bytes(index), static_cast<std::int32_t>(index.size()),
                                         Bytes(data), static_cast<std::int32_t>(data.size()), 0);
    const std::string pcm = Noise(static_cast<std::uint32_t>(c.block), c.block);
    const std::string path = Put(Wav(c.format, Chunk("data", pcm)));
    CZelvarAudioServer::Write(h, Bytes(path), 0);
    CZelvarAudioServer::Flush(h);
    CZelvarAudioServer::Destroy(h);

    const std::string indexBytes = ReadWholeFile(index);
    ASSERT_EQ(indexBytes.size(), c.pieces);
    AudioFingerprint fingerprint;
    const std::size_t length = c.block / c.pieces;
    for (std::size_t p = 0; p < c.pieces; ++p) {
      const std::int32_t bucket = AudioFingerprint::BucketOf(
          fingerprint.Of(Bytes(pcm) + p * length, static_cast<std::int64_t>(length)));
      EXPECT_EQ(static_cast<unsigned char>(indexBytes[p]), bucket & 0xFF) << "piece " << p;
    }
    std::string joined;
    for (const std::string& record : InflatedRecords(ReadWholeFile(data))) {
      EXPECT_EQ(record.size() % length, 0u);
      joined += record;
    }
    EXPECT_EQ(joined.size(), pcm.size());
  }
}

TEST_F(AudioServerTest, SilenceFallsIntoBucketZero) {
  Write(Put(MonoWav(8000, std::string(16000 * 3, '\0'))));
  Flush();
  EXPECT_EQ(Index(), std::string(30, '\0'));
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], std::string(16000 * 3, '\0'));
}

TEST_F(AudioServerTest, BucketOfManyBytesWritesItsLowByte) {
  Write(Put(MonoWav(8000, Repeat(SquarePiece(), 10))));
  Flush();
  EXPECT_EQ(Index(), std::string(10, '\x69'));  // bucket 10345 = 0x2869
  ASSERT_EQ(Records().size(), 1u);
}

TEST_F(AudioServerTest, RecordsFollowStartOrderAndPiecesArrivalOrder) {
  // Square (bucket 10345) starts first, silence (bucket 0) second: the data
  // file lists the square tessera first although its bucket is higher.
  const std::string silence(1600, '\0');
  const std::string a = SquarePiece(1), b = SquarePiece(-1);
  Write(Put(MonoWav(8000, a + silence + b + silence + a + b + silence + a + b + a)));
  Flush();
  const auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], a + b + a + b + a + b + a);
  EXPECT_EQ(records[1], silence + silence + silence);
}

TEST_F(AudioServerTest, TwoFilesShareTesserae) {
  Write(Put(MonoWav(8000, Repeat(SquarePiece(1), 10))));
  Write(Put(MonoWav(8000, Repeat(SquarePiece(-1), 10))));
  Flush();
  EXPECT_EQ(Index().size(), 20u);
  const auto records = Records();
  ASSERT_EQ(records.size(), 1u) << "the second file's pieces join the first file's tessera";
  EXPECT_EQ(records[0], Repeat(SquarePiece(1), 10) + Repeat(SquarePiece(-1), 10));
}

TEST_F(AudioServerTest, RejectedFileKeepsPiecesOfEarlierBlocks) {
  // The data chunk claims three seconds; the file holds two and a half.
  const std::string pcm = Repeat(SquarePiece(), 25);
  std::string body = Chunk("data", pcm);
  body[4] = static_cast<char>(48000 & 0xFF);
  body[5] = static_cast<char>(48000 >> 8);
  EXPECT_EQ(WriteError(Wav(WavFormat{}, body)), "Invalid file.");
  // The handle stays usable.
  Write(Put(MonoWav(8000, std::string(16000, '\0'))));
  Flush();
  EXPECT_EQ(Index(), std::string(20, '\x69') + std::string(10, '\0'));
  const auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], Repeat(SquarePiece(), 20));
}

TEST_F(AudioServerTest, ExtraChunksAroundDataAreSkipped) {
  const std::string pcm = Repeat(SquarePiece(), 10) + SquarePiece().substr(0, 22);
  Write(Put(Wav(WavFormat{}, Chunk("LIST", "odd") + Chunk("fact", std::string(4, 'x')) +
                                 Chunk("data", pcm) + Chunk("junk", Noise(1, 1000)) +
                                 Chunk("data", std::string(16000, '\0')))));
  Flush();
  // 10 square pieces, the 22-byte tail block in 2 pieces, 10 of silence.
  EXPECT_EQ(Index().size(), 22u);
  std::string joined;
  for (const auto& record : Records()) joined += record;
  EXPECT_EQ(joined.size(), pcm.size() + 16000);
}

TEST_F(AudioServerTest, ThrowsExactMessages) {
  const std::string missing = dir_.File("missing.wav");
  EXPECT_EQ(MessageOf([&] { Write(missing); }), "Could not open file.");

  const std::string pcm = Noise(5, 100);
  const std::string good = MonoWav(8000, pcm);
  auto with = [&](std::size_t at, const std::string& bytes) {
    std::string wav = good;
    wav.replace(at, bytes.size(), bytes);
    return wav;
  };
  WavFormat stereoFloat;
  stereoFloat.format = 3;
  WavFormat threeChannels;
  threeChannels.channels = 3;
  WavFormat eighteen;
  eighteen.formatSize = 18;
  WavFormat fourBit;
  fourBit.bitsPerSample = 4;
  const struct {
    const char* what;
    std::string wav;
  } kInvalid[] = {
      {"empty file", ""},
      {"not RIFF", with(0, "RIFX")},
      {"RIFF size one short", Wav(WavFormat{}, Chunk("data", pcm), -1)},
      {"RIFF size one long", Wav(WavFormat{}, Chunk("data", pcm), 1)},
      {"not WAVE", with(8, "AVI ")},
      {"no fmt chunk first", with(12, "LIST")},
      {"fmt size 18", Wav(eighteen, Chunk("data", pcm))},
      {"not PCM", Wav(stereoFloat, Chunk("data", pcm))},
      {"three channels", Wav(threeChannels, Chunk("data", pcm))},
      {"header cut in fmt", Wav(WavFormat{}, "").substr(0, 30)},
      {"chunk header cut", Wav(WavFormat{}, "dat")},
      {"chunk beyond the end", Wav(WavFormat{}, Chunk("junk", "abcd").substr(0, 10))},
      {"data beyond the end", Wav(WavFormat{}, Chunk("data", pcm).substr(0, 60))},
      {"zero-byte blocks", Wav(fourBit, Chunk("data", pcm))},
  };
  for (const auto& c : kInvalid) {
    std::string wav = c.wav;
    if (std::string(c.what).find("RIFF size") == std::string::npos && wav.size() >= 8) {
      // Keep the RIFF size right so that the later check is the one hit.
      const auto size = static_cast<std::uint32_t>(wav.size() - 8);
      for (int i = 0; i < 4; ++i) wav[4 + i] = static_cast<char>((size >> (8 * i)) & 0xFF);
    }
    EXPECT_EQ(WriteError(wav), "Invalid file.") << c.what;
  }
  EXPECT_EQ(Index().size(), 0u);
  // A header with no chunks at all is valid and holds nothing.
  EXPECT_EQ(WriteError(Wav(WavFormat{}, "")), "(nothing thrown)");
}

TEST_F(AudioServerTest, NothingStartedGivesEmptyDataFile) {
  Write(Put(MonoWav(8000, "")));
  Flush();
  EXPECT_TRUE(std::filesystem::exists(data_));
  EXPECT_EQ(ReadWholeFile(data_), "");
  EXPECT_EQ(Index(), "");
}

TEST_F(AudioServerTest, FilesAppearOnlyWhenPublishedAndWorkFolderEmpties) {
  Write(Put(MonoWav(8000, Noise(9, 32000))));
  EXPECT_FALSE(std::filesystem::exists(index_));
  EXPECT_FALSE(std::filesystem::exists(data_));
  Flush();
  EXPECT_EQ(Index().size(), 20u);
  EXPECT_GT(Records().size(), 0u);
  EXPECT_TRUE(FilesIn(work_).empty()) << "tessera files are deleted as they are copied";
  auto outputs = FilesIn(dir_.path() / "out");
  std::sort(outputs.begin(), outputs.end());
  EXPECT_EQ(outputs, (std::vector<std::string>{"pack.dat", "pack.idx"}));
}

TEST_F(AudioServerTest, DestroyWithoutFlushDropsPendingPieces) {
  Write(Put(MonoWav(8000, Noise(9, 16000))));
  CZelvarAudioServer::Destroy(handle_);
  handle_ = nullptr;
  EXPECT_EQ(Index().size(), 10u);
  EXPECT_EQ(ReadWholeFile(data_), "");
  EXPECT_TRUE(FilesIn(work_).empty());
}

TEST_F(AudioServerTest, ReadFormOpensFilesAndRefusesPieces) {
  Write(Put(MonoWav(8000, Noise(9, 16000))));
  Flush();
  const std::string before = ReadWholeFile(data_);

  void* reader = CZelvarAudioServer::Create(Bytes(index_), static_cast<std::int32_t>(index_.size()),
                                            Bytes(data_), static_cast<std::int32_t>(data_.size()));
  void* a = &reader;
  void* b = nullptr;
  void* c = &a;
  CZelvarAudioServer::Read(reader, a, b, c);
  CZelvarAudioServer::Discard(reader, a, b);
  EXPECT_EQ(a, &reader);
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(c, &a);
  const std::string wav = Put(MonoWav(8000, Noise(3, 16000)));
  EXPECT_EQ(MessageOf([&] { CZelvarAudioServer::Write(reader, Bytes(wav), 0); }),
            "Video tesserae is read-only.");
  CZelvarAudioServer::Flush(reader);
  CZelvarAudioServer::Destroy(reader);
  EXPECT_EQ(ReadWholeFile(data_), before);
  EXPECT_EQ(Index().size(), 10u);

  const std::string nowhere = dir_.File("nowhere");
  void* lost = CZelvarAudioServer::Create(Bytes(nowhere), static_cast<std::int32_t>(nowhere.size()),
                                          Bytes(data_), static_cast<std::int32_t>(data_.size()));
  EXPECT_EQ(MessageOf([&] { CZelvarAudioServer::Read(lost, a, b, c); }), "Could not open file.");
  CZelvarAudioServer::Destroy(lost);
}

// Pieces of a 16-bit mono WAV with a 44-byte header and one data chunk.
std::size_t PiecesOfPlainWav(const std::string& path) {
  const std::string header = ReadWholeFile(path).substr(0, 44);
  const auto* h = reinterpret_cast<const unsigned char*>(header.data());
  const std::size_t block = (std::size_t{h[24]} | std::size_t{h[25]} << 8 |
                             std::size_t{h[26]} << 16 | std::size_t{h[27]} << 24) *
                            2;
  const std::size_t size = std::filesystem::file_size(path) - 44;
  std::size_t pieces = 0;
  for (std::size_t at = 0; at < size; at += block) {
    pieces += static_cast<std::size_t>(
        PiecesInBlock(static_cast<std::int64_t>(std::min(block, size - at))));
  }
  return pieces;
}

// Real recordings: the WAV files of alsa-utils and speech made by espeak-ng
// (both installed by scripts/install-deps.sh).
TEST_F(AudioServerTest, PacksRealRecordings) {
  const std::string alsa = "/usr/share/sounds/alsa";
  const std::string front = alsa + "/Front_Center.wav";
  ASSERT_TRUE(std::filesystem::exists(front)) << front << " missing: install alsa-utils";
  ASSERT_EQ(::access("/usr/bin/espeak-ng", X_OK), 0) << "espeak-ng missing: install espeak-ng";
  const std::string speech = dir_.File("speech.wav");
  const std::string command = "/usr/bin/espeak-ng -w '" + speech +
                              "' 'Pieces of sound that are alike are packed together.'";
  ASSERT_EQ(std::system(command.c_str()), 0);

  std::vector<std::string> inputs{front, speech};
  for (const auto& entry : std::filesystem::directory_iterator(alsa)) {
    if (entry.path().extension() == ".wav" && entry.path() != front) {
      inputs.push_back(entry.path().string());
    }
  }
  ASSERT_GE(inputs.size(), 3u);
  std::size_t pcmBytes = 0;
  std::size_t pieces = 0;
  for (const std::string& path : inputs) {
    SCOPED_TRACE(path);
    Write(path);
    pcmBytes += std::filesystem::file_size(path) - 44;
    pieces += PiecesOfPlainWav(path);
  }
  Flush();
  const std::string index = Index();
  ASSERT_EQ(index.size(), pieces);
  std::size_t inflated = 0;
  const auto records = Records();
  for (const auto& record : records) inflated += record.size();
  EXPECT_EQ(inflated, pcmBytes);
  EXPECT_GT(records.size(), 10u) << "real sound spreads over many tesserae";

  // Front_Center.wav of alsa-utils 1.2.8 (137090 bytes of 48 kHz PCM: 10
  // pieces of 9600 bytes, then 10 of 4109), fingerprinted independently:
  // the low bytes of its buckets.
  if (std::filesystem::file_size(front) == 137134) {
    const std::string expected = {'\x17', '\xA1', '\x43', '\x44', '\x8A', '\x12', '\x00',
                                  '\x00', '\x35', '\xF4', '\x7B', '\x50', '\x6E', '\x14',
                                  '\x03', '\x8F', '\x81', '\x52', '\x4F', '\xCC'};
    EXPECT_EQ(index.substr(0, 20), expected);
  }
}

}  // namespace
}  // namespace zelvarpack
