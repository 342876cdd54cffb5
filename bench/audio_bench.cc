// Audio tesserae benchmark.
//
//   audio_bench --work DIR [--work DIR...] WAV...
//
// 1. Packs the WAV files (Create, Write each, Flush, Destroy) several times
//    with the tessera files in each work folder, and prints the real-time
//    factor of the fastest pack: seconds of sound per second of work. Every
//    started tessera is a file created and deleted in the work folder, so
//    the folder's file system shows in the result.
// 2. Gathers the frames the pack fingerprints (the first 1024 samples of
//    every piece, x 0.5) and times our 1024-point transform against FFTW's
//    on the same frames, after checking that ours is bit for bit the
//    step-by-step radix-2 loop and agrees with FFTW to rounding.
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "media/audio_fingerprint.h"
#include "media/wav_reader.h"
#include "tests/textbook_fft.h"
#include "zelvarpack/zelvar_audio_server.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kN = zelvarpack::AudioFingerprint::kPoints;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Collects every piece's frame, in natural order, as the pack builds it.
class FrameCollector : public zelvarpack::WavBlockSink {
 public:
  void OnBlock(const unsigned char* bytes, std::int64_t n) override {
    const std::int32_t parts = zelvarpack::PiecesInBlock(n);
    const std::int64_t length = n / parts;
    for (std::int32_t p = 0; p < parts; ++p) {
      const unsigned char* piece = bytes + p * length;
      const std::int64_t used = std::min<std::int64_t>(length, 2 * kN);
      std::vector<double> frame(kN, 0.0);
      for (std::int64_t offset = 0, k = 0; offset < used; offset += 2, ++k) {
        const unsigned high = offset + 1 < used ? piece[offset + 1] : 0u;
        frame[static_cast<std::size_t>(k)] =
            static_cast<std::int16_t>(static_cast<std::uint16_t>(piece[offset] | high << 8)) * 0.5;
      }
      frames.push_back(std::move(frame));
    }
    bytesOfSound += n;
  }
  std::vector<std::vector<double>> frames;
  std::int64_t bytesOfSound = 0;
};

// Byte rate from the header (offset 28); the files here are plain PCM.
double SecondsOfSound(const std::string& path, std::int64_t pcmBytes) {
  FILE* f = std::fopen(path.c_str(), "rb");
  unsigned char header[32] = {};
  const std::size_t got = f != nullptr ? std::fread(header, 1, sizeof header, f) : 0;
  if (f != nullptr) std::fclose(f);
  if (got < 32) return 0.0;
  const std::uint32_t byteRate = header[28] | header[29] << 8 | header[30] << 16 |
                                 static_cast<std::uint32_t>(header[31]) << 24;
  return byteRate == 0 ? 0.0 : static_cast<double>(pcmBytes) / byteRate;
}

// Runs `one(frame)` over all frames, round after round, for at least a
// second; returns transforms per second.
template <typename F>
double Rate(const std::vector<std::vector<double>>& frames, F one) {
  std::size_t done = 0;
  const auto start = Clock::now();
  double elapsed = 0.0;
  do {
    for (const auto& frame : frames) one(frame);
    done += frames.size();
    elapsed = Seconds(Clock::now() - start);
  } while (elapsed < 1.0);
  return static_cast<double>(done) / elapsed;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> works, wavs;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--work" && i + 1 < argc) {
      works.push_back(argv[++i]);
    } else {
      wavs.push_back(argv[i]);
    }
  }
  if (works.empty() || wavs.empty()) {
    std::fprintf(stderr, "usage: audio_bench --work DIR [--work DIR...] WAV...\n");
    return 2;
  }

  FrameCollector collector;
  std::vector<unsigned char> block;
  double sound = 0.0;
  for (const std::string& wav : wavs) {
    const std::int64_t before = collector.bytesOfSound;
    zelvarpack::WalkWavFile(wav.c_str(), collector, block);
    sound += SecondsOfSound(wav, collector.bytesOfSound - before);
  }
  std::printf("pack: %zu files, %.1f s of sound, %lld PCM bytes, %zu pieces\n", wavs.size(), sound,
              static_cast<long long>(collector.bytesOfSound), collector.frames.size());

  auto bytes = [](std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); };
  auto length = [](const std::string& s) { return static_cast<std::int32_t>(s.size()); };
  for (const std::string& work : works) {
    std::string tesserae = work + "/tesserae";
    std::filesystem::create_directories(tesserae);
    std::string index = work + "/bench.idx", data = work + "/bench.dat";
    double best = 1e300;
    for (int round = 0; round < 7; ++round) {
      const auto start = Clock::now();
      void* h = CZelvarAudioServer::Create(bytes(tesserae), length(tesserae), bytes(index),
                                           length(index), bytes(data), length(data), 0);
      for (std::string& wav : wavs) CZelvarAudioServer::Write(h, bytes(wav), length(wav));
      CZelvarAudioServer::Flush(h);
      CZelvarAudioServer::Destroy(h);
      best = std::min(best, Seconds(Clock::now() - start));
    }
    std::printf(
        "pack, work folder %s: fastest of 7 runs %.1f ms, index %llu bytes, data %llu "
        "bytes\n",
        work.c_str(), best * 1e3,
        static_cast<unsigned long long>(std::filesystem::file_size(index)),
        static_cast<unsigned long long>(std::filesystem::file_size(data)));
    std::printf("pack, work folder %s: real-time factor %.0f x (goal >= 500)\n", work.c_str(),
                sound / best);
  }

  // Same frames through all three transforms.
  zelvarpack::AudioFingerprint ours;
  std::vector<double> re(kN), im(kN), tre(kN), tim(kN);
  fftw_complex* in = fftw_alloc_complex(kN);
  fftw_complex* out = fftw_alloc_complex(kN);
  fftw_plan plan = fftw_plan_dft_1d(kN, in, out, FFTW_FORWARD, FFTW_MEASURE);
  double worstFftw = 0.0;
  for (const auto& frame : collector.frames) {
    std::copy(frame.begin(), frame.end(), re.begin());
    std::fill(im.begin(), im.end(), 0.0);
    tre = re;
    tim = im;
    ours.Transform(re.data(), im.data());
    zelvarpack::reference::TextbookFft(tre.data(), tim.data(), kN);
    for (int i = 0; i < kN; ++i) {
      if (re[i] != tre[i] || im[i] != tim[i]) {
        std::printf("transform: MISMATCH with the step-by-step loop at output %d\n", i);
        return 1;
      }
    }
    for (int i = 0; i < kN; ++i) {
      in[i][0] = frame[static_cast<std::size_t>(i)];
      in[i][1] = 0.0;
    }
    fftw_execute(plan);
    double scale = 1.0;
    for (int i = 0; i < kN; ++i) scale = std::max(scale, std::fabs(out[i][0] / kN));
    for (int i = 0; i < kN; ++i) {
      worstFftw = std::max(worstFftw, std::fabs(out[i][0] / kN - re[i]) / scale);
      worstFftw = std::max(worstFftw, std::fabs(out[i][1] / kN - im[i]) / scale);
    }
  }
  std::printf(
      "transform: %zu frames; ours bit-identical to the step-by-step loop; largest "
      "difference from FFTW %.1e of the frame's peak\n",
      collector.frames.size(), worstFftw);

  const double oursRate = Rate(collector.frames, [&](const std::vector<double>& frame) {
    std::copy(frame.begin(), frame.end(), re.begin());
    std::fill(im.begin(), im.end(), 0.0);
    ours.Transform(re.data(), im.data());
  });
  const double textbookRate = Rate(collector.frames, [&](const std::vector<double>& frame) {
    std::copy(frame.begin(), frame.end(), re.begin());
    std::fill(im.begin(), im.end(), 0.0);
    zelvarpack::reference::TextbookFft(re.data(), im.data(), kN);
  });
  const double fftwRate = Rate(collector.frames, [&](const std::vector<double>& frame) {
    for (int i = 0; i < kN; ++i) {
      in[i][0] = frame[static_cast<std::size_t>(i)];
      in[i][1] = 0.0;
    }
    fftw_execute(plan);
  });
  std::printf("transform: ours       %9.0f per second\n", oursRate);
  std::printf("transform: textbook   %9.0f per second\n", textbookRate);
  std::printf("transform: FFTW       %9.0f per second\n", fftwRate);
  std::printf("transform: FFTW time / ours: ours takes %.2f x FFTW's time (goal <= 3)\n",
              fftwRate / oursRate);
  fftw_destroy_plan(plan);
  fftw_free(in);
  fftw_free(out);
  return 0;
}
