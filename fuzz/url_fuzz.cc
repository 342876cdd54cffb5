// libFuzzer target: the URL helpers, HTTP dates and the zlib helpers. The
// first byte picks the helper. Besides the sanitizers' checks it asserts:
// entity decoding equals the replace-first-and-restart rule, cracked URLs
// are request-line safe, resolved URLs are absolute, compression round-trips
// and inflating never exceeds its limit.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "net/http_date.h"
#include "net/url_helpers.h"
#include "net/zlib_codec.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

std::string NaiveDecode(std::string text) {
  const char* passes[][2] = {{"&amp;", "&"}, {"&gt;", ">"}, {"&lt;", "<"}, {"&quot;", "\""}};
  for (const auto& pass : passes) {
    for (std::size_t at; (at = text.find(pass[0])) != std::string::npos;) {
      text.replace(at, std::strlen(pass[0]), pass[1]);
    }
  }
  return text;
}

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > (1u << 16)) return 0;
  const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
  using namespace zelvarpack::net;
  switch (data[0] % 5) {
    case 0: {
      const std::string decoded = DecodeUrlEntities(input);
      if (input.size() < 512) Check(decoded == NaiveDecode(input));
      if (const auto cracked = CrackUrl(decoded)) {
        Check(!cracked->host.empty() && !cracked->path.empty() && cracked->path[0] == '/');
        for (const char c : cracked->path) {
          Check(c > 0x20 && c < 0x7F && std::strchr("<>\"\\^`{|}#", c) == nullptr);
        }
      }
      break;
    }
    case 1: {
      // base, reference and host separated by the first two NUL bytes
      const std::size_t a = input.find('\0');
      const std::size_t b = a == std::string::npos ? a : input.find('\0', a + 1);
      const std::string base = input.substr(0, a);
      const std::string ref = a == std::string::npos ? "" : input.substr(a + 1, b - a - 1);
      const std::string host = b == std::string::npos ? "" : input.substr(b + 1);
      const auto parts =
          CZelvarUtils::SplitUrl(base.data(), static_cast<std::int32_t>(base.size()));
      Check(parts.size() >= 2);
      std::unique_ptr<CZelvarBuffer> url(
          CZelvarUtils::ResolveUrl(host.data(), static_cast<std::int32_t>(host.size()), base.data(),
                                   static_cast<std::int32_t>(base.size()), ref.data(),
                                   static_cast<std::int32_t>(ref.size()), (size & 1) != 0));
      Check(url->GetValueLength() >= 7 && std::memcmp(url->GetValue(), "http://", 7) == 0);
      break;
    }
    case 2: {
      const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
      constexpr std::size_t kLimit = 1 << 20;
      for (const ZlibFormat format : {ZlibFormat::kGzip, ZlibFormat::kRawDeflate}) {
        Check(static_cast<std::size_t>(
                  Decompress(bytes, input.size(), format, kLimit)->GetValueLength()) <= kLimit);
      }
      break;
    }
    case 3: {
      const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
      for (const ZlibFormat format : {ZlibFormat::kGzip, ZlibFormat::kRawDeflate}) {
        const auto packed = Compress(bytes, input.size(), format);
        const auto unpacked =
            Decompress(packed->GetValue(), static_cast<std::size_t>(packed->GetValueLength()),
                       format, input.size());
        Check(static_cast<std::size_t>(unpacked->GetValueLength()) == input.size() &&
              std::memcmp(unpacked->GetValue(), bytes, input.size()) == 0);
      }
      break;
    }
    default:
      if (const auto when = ParseHttpDate(input)) Check(*when > -100000LL * 86400 * 366);
      break;
  }
  return 0;
}
