// Test support for the audio server: WAV files built byte by byte, and an
// independent raw-inflate and record walk for the data file.
#ifndef ZELVARPACK_MEDIA_WAV_TEST_SUPPORT_H_
#define ZELVARPACK_MEDIA_WAV_TEST_SUPPORT_H_

#include <zlib.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelvarpack::testing {

inline void PutLe(std::string& out, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

inline std::string Chunk(const std::string& id, const std::string& bytes) {
  std::string out = id;
  PutLe(out, static_cast<std::uint32_t>(bytes.size()), 4);
  return out + bytes;
}

struct WavFormat {
  std::uint16_t channels = 1;
  std::uint32_t rate = 8000;
  std::uint16_t bitsPerSample = 16;
  std::uint16_t format = 1;
  std::uint32_t formatSize = 16;
};

// "RIFF" size "WAVE", the 16-byte "fmt " chunk, then `body` (chunks); the
// RIFF size is made to match unless `riffSizeDelta` says otherwise.
inline std::string Wav(const WavFormat& f, const std::string& body,
                       std::int64_t riffSizeDelta = 0) {
  std::string out = "RIFF";
  PutLe(out, static_cast<std::uint32_t>(4 + 8 + 16 + body.size() + riffSizeDelta), 4);
  out += "WAVEfmt ";
  PutLe(out, f.formatSize, 4);
  PutLe(out, f.format, 2);
  PutLe(out, f.channels, 2);
  PutLe(out, f.rate, 4);
  PutLe(out, f.rate * f.channels * f.bitsPerSample / 8, 4);
  PutLe(out, static_cast<std::uint32_t>(f.channels * f.bitsPerSample / 8), 2);
  PutLe(out, f.bitsPerSample, 2);
  return out + body;
}

inline std::string MonoWav(std::uint32_t rate, const std::string& pcm) {
  WavFormat f;
  f.rate = rate;
  return Wav(f, Chunk("data", pcm));
}

inline std::string Samples(const std::vector<int>& samples) {
  std::string out;
  for (const int s : samples) PutLe(out, static_cast<std::uint32_t>(s), 2);
  return out;
}

inline std::string Repeat(const std::string& unit, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += unit;
  return out;
}

// Bytes of a fixed linear congruential sequence: noise.
inline std::string Noise(std::uint32_t seed, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) {
    seed = seed * 1103515245u + 12345u;
    out.push_back(static_cast<char>((seed >> 16) & 0xFF));
  }
  return out;
}

inline std::string InflateRaw(const std::string& packed) {
  z_stream z{};
  if (inflateInit2(&z, -15) != Z_OK) throw std::runtime_error("inflateInit2");
  std::string out;
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  z.avail_in = static_cast<uInt>(packed.size());
  int status = Z_OK;
  while (status == Z_OK) {
    char chunk[16384];
    z.next_out = reinterpret_cast<Bytef*>(chunk);
    z.avail_out = sizeof chunk;
    status = inflate(&z, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - z.avail_out);
    if (status == Z_BUF_ERROR && z.avail_in == 0) break;
  }
  inflateEnd(&z);
  if (status != Z_STREAM_END)
    throw std::runtime_error("record is not a complete raw deflate stream");
  return out;
}

// The data file's records, each inflated. Throws on a malformed file.
inline std::vector<std::string> InflatedRecords(const std::string& data) {
  std::vector<std::string> records;
  std::size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < 4) throw std::runtime_error("truncated record length");
    const auto* p = reinterpret_cast<const unsigned char*>(data.data() + at);
    const std::size_t n = std::size_t{p[0]} << 24 | std::size_t{p[1]} << 16 |
                          std::size_t{p[2]} << 8 | std::size_t{p[3]};
    at += 4;
    if (data.size() - at < n) throw std::runtime_error("truncated record");
    records.push_back(InflateRaw(data.substr(at, n)));
    at += n;
  }
  return records;
}

}  // namespace zelvarpack::testing

#endif  // ZELVARPACK_MEDIA_WAV_TEST_SUPPORT_H_
