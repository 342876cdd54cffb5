// ASCII-only byte classes for the CSS code, from one 256-entry table. They
// never consult the locale: bytes of 0x80 and above belong to no class
// except "ends an unquoted url".
#ifndef ZELVARPACK_CSS_CSS_CHARS_H_
#define ZELVARPACK_CSS_CSS_CHARS_H_

#include <array>
#include <cstdint>

namespace zelvarpack::css {

enum CharClass : std::uint8_t {
  kDigit = 1 << 0,
  kHexDigit = 1 << 1,
  kNameStart = 1 << 2,   // letter or "_"
  kName = 1 << 3,        // letter, digit, "_" or "-"
  kSpace = 1 << 4,       // LF, tab, space (form feed is not whitespace here)
  kUrlStop = 1 << 5,     // ends a run of plain bytes in an unquoted url
  kStringStop = 1 << 6,  // LF, FF, "\" (quotes are checked by the caller)
};

constexpr std::array<std::uint8_t, 256> MakeClassTable() {
  std::array<std::uint8_t, 256> table{};
  for (int c = 0; c < 256; ++c) {
    std::uint8_t bits = 0;
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    const bool digit = c >= '0' && c <= '9';
    if (digit) bits |= kDigit;
    if (digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) bits |= kHexDigit;
    if (letter || c == '_') bits |= kNameStart;
    if (letter || digit || c == '_' || c == '-') bits |= kName;
    if (c == '\n' || c == '\t' || c == ' ') bits |= kSpace;
    // Whitespace, ")", "\", the quotes, "(", and the bytes that make an
    // unquoted url bad: 0-8, 14-31, 127 and above. 11, 12 and 13 are kept.
    if (c == '\n' || c == '\t' || c == ' ' || c == ')' || c == '\\' || c == '"' || c == '\'' ||
        c == '(' || c <= 8 || (c >= 14 && c <= 31) || c >= 127) {
      bits |= kUrlStop;
    }
    if (c == '\n' || c == '\f' || c == '\\') bits |= kStringStop;
    table[c] = bits;
  }
  return table;
}

inline constexpr std::array<std::uint8_t, 256> kCharClasses = MakeClassTable();

// `c` may be -1 (past the end), which belongs to no class.
constexpr bool Is(int c, std::uint8_t classes) {
  return c >= 0 && (kCharClasses[static_cast<unsigned>(c)] & classes) != 0;
}

constexpr bool IsByte(unsigned char c, std::uint8_t classes) {
  return (kCharClasses[c] & classes) != 0;
}

constexpr unsigned char ToAsciiLower(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c | 0x20) : c;
}

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_CSS_CHARS_H_
