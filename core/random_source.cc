#include "core/random_source.h"

#include <sys/random.h>

#include <cerrno>
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

}  // namespace zelvarpack
