// ASCII-only character classes and comparisons for the HTML code. They never
// consult the locale: bytes of 0x80 and above are ordinary characters.
#ifndef ZELVARPACK_HTML_ASCII_H_
#define ZELVARPACK_HTML_ASCII_H_

#include <cstddef>
#include <string_view>

namespace zelvarpack::html {

constexpr bool IsAsciiAlpha(unsigned char c) {
  return static_cast<unsigned char>((c | 0x20) - 'a') < 26;
}

constexpr unsigned char ToAsciiLower(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c | 0x20) : c;
}

// The HTML standard's tokenizer whitespace: tab, LF, FF and space. CR never
// reaches a state: it has been folded into LF before.
constexpr bool IsHtmlSpace(unsigned char c) {
  return c == ' ' || c == '\n' || c == '\t' || c == '\f';
}

// True when bytes[0, n) equals literal[0, n) ignoring ASCII case.
// REQUIRES: both ranges hold at least n bytes.
// `text` without the HTML whitespace at either end.
inline std::string_view TrimHtmlSpace(std::string_view text) {
  while (!text.empty() && IsHtmlSpace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && IsHtmlSpace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

inline bool EqualsIgnoringAsciiCase(const unsigned char* bytes, const char* literal,
                                    std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    if (ToAsciiLower(bytes[i]) != ToAsciiLower(static_cast<unsigned char>(literal[i]))) {
      return false;
    }
  }
  return true;
}

// The bytes that end a run of ordinary bytes in one tokenizer state. CR and
// NUL always do, so that folding and dropping stay with the per-byte code.
struct StopBytes {
  explicit constexpr StopBytes(const char* stops) : marked{} {
    marked[static_cast<unsigned char>('\r')] = true;
    marked[0] = true;
    for (; *stops != 0; ++stops) marked[static_cast<unsigned char>(*stops)] = true;
  }
  bool marked[256];
};

}  // namespace zelvarpack::html

#endif  // ZELVARPACK_HTML_ASCII_H_
