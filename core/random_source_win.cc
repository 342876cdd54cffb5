// Windows side of the random seam. GUIDs come from COM's own generator and
// text form (CoCreateGuid, StringFromGUID2, neither of which needs COM to be
// initialised); other random bytes from the C runtime's rand_s, which draws
// on the system's cryptographic generator.
#define _CRT_RAND_S
#include <objbase.h>
#include <stdlib.h>
#include <windows.h>

#include <cstring>
#include <random>

#include "core/random_source.h"

namespace zelvarpack {

void FillRandom(unsigned char* out, std::size_t count) {
  while (count > 0) {
    unsigned int value = 0;
    if (::rand_s(&value) != 0) {
      // No system generator: fall back to the library's device.
      std::random_device device;
      value = device();
    }
    const std::size_t take = count < sizeof value ? count : sizeof value;
    std::memcpy(out, &value, take);
    out += take;
    count -= take;
  }
}

std::string NewGuidText() {
  GUID guid{};
  ::CoCreateGuid(&guid);
  // 38 characters and the terminator: braces, upper-case hexadecimal,
  // 8-4-4-4-12. All of them are ASCII, so each wide character's low byte is
  // the character.
  wchar_t wide[39] = {};
  ::StringFromGUID2(guid, wide, 39);
  std::string text(38, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = static_cast<char>(static_cast<unsigned>(wide[i]) & 0xFFu);
  }
  return text;
}

}  // namespace zelvarpack
