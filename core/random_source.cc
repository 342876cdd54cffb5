#include "core/random_source.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <random>

namespace zelvarpack {

void FillRandom(unsigned char* out, std::size_t count) {
  while (count > 0) {
    const ssize_t got = ::getrandom(out, count, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      // No kernel generator: fall back to the library's device.
      std::random_device device;
      for (; count > 0; --count) *out++ = static_cast<unsigned char>(device());
      return;
    }
    out += got;
    count -= static_cast<std::size_t>(got);
  }
}

std::string NewGuidText() {
  unsigned char g[16];
  FillRandom(g, sizeof g);
  g[6] = static_cast<unsigned char>((g[6] & 0x0F) | 0x40);  // version 4
  g[8] = static_cast<unsigned char>((g[8] & 0x3F) | 0x80);  // RFC 4122 variant
  char text[39];
  std::snprintf(text, sizeof text,
                "{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g[0],
                g[1], g[2], g[3], g[4], g[5], g[6], g[7], g[8], g[9], g[10], g[11], g[12], g[13],
                g[14], g[15]);
  return text;
}

}  // namespace zelvarpack
