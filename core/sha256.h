// SHA-256 (FIPS 180-4), for the strong digests that stand guard where the
// 32-bit content hash is too weak: whether a stored file really holds the
// bytes its name was made from, and the keys of in-memory memos. Plain
// value type; any thread.
#ifndef ZELVARPACK_CORE_SHA256_H_
#define ZELVARPACK_CORE_SHA256_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zelvarpack {

class Sha256 {
 public:
  Sha256();
  void Update(const void* bytes, std::size_t count);
  void Update(std::string_view text) { Update(text.data(), text.size()); }
  // Adds a length before the bytes, so that a sequence of pieces has one
  // digest only ("ab"+"c" and "a"+"bc" differ).
  void UpdatePiece(std::string_view text);
  std::array<std::uint8_t, 32> Finish();
  // Lower-case hexadecimal of Finish().
  std::string FinishHex();

 private:
  void Block(const std::uint8_t* block);

  std::array<std::uint32_t, 8> state_;
  std::array<std::uint8_t, 64> buffer_{};
  std::size_t buffered_ = 0;
  std::uint64_t length_ = 0;
};

std::string Sha256Hex(std::string_view text);

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_SHA256_H_
