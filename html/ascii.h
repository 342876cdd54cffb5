// ASCII-only character classes and comparisons for the HTML code. They never
// consult the locale: bytes of 0x80 and above are ordinary characters.
#ifndef ZELVARPACK_HTML_ASCII_H_
#define ZELVARPACK_HTML_ASCII_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "zelvarpack/html_events.h"

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

// The first byte in [bytes, end) that is NUL or equal to A or B, or end.
// Sixteen bytes at a time where the processor has SSE2: runs of plain text
// and of attribute values are the bulk of a page.
template <unsigned char A, unsigned char B>
const unsigned char* FindNulOr(const unsigned char* bytes, const unsigned char* end) {
#if defined(__SSE2__)
  const __m128i va = _mm_set1_epi8(static_cast<char>(A));
  const __m128i vb = _mm_set1_epi8(static_cast<char>(B));
  const __m128i nul = _mm_setzero_si128();
  while (end - bytes >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i hits =
        _mm_or_si128(_mm_cmpeq_epi8(block, nul),
                     _mm_or_si128(_mm_cmpeq_epi8(block, va), _mm_cmpeq_epi8(block, vb)));
    const int mask = _mm_movemask_epi8(hits);
    if (mask != 0) return bytes + std::countr_zero(static_cast<unsigned>(mask));
    bytes += 16;
  }
#endif
  while (bytes < end && *bytes != 0 && *bytes != A && *bytes != B) ++bytes;
  return bytes;
}

// The first byte in [bytes, end) that is a space or a control byte (0x20 or
// below: every HTML whitespace byte, CR and NUL among them) or equal to A, B
// or C, or end. The stops of names and unquoted values, with a few more
// control bytes that the per-byte path then handles as ordinary bytes.
template <unsigned char A, unsigned char B, unsigned char C>
const unsigned char* FindSpaceOr(const unsigned char* bytes, const unsigned char* end) {
#if defined(__SSE2__)
  const __m128i space = _mm_set1_epi8(0x20);
  const __m128i va = _mm_set1_epi8(static_cast<char>(A));
  const __m128i vb = _mm_set1_epi8(static_cast<char>(B));
  const __m128i vc = _mm_set1_epi8(static_cast<char>(C));
  while (end - bytes >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i low = _mm_cmpeq_epi8(_mm_min_epu8(block, space), block);
    const __m128i hits =
        _mm_or_si128(_mm_or_si128(low, _mm_cmpeq_epi8(block, va)),
                     _mm_or_si128(_mm_cmpeq_epi8(block, vb), _mm_cmpeq_epi8(block, vc)));
    const int mask = _mm_movemask_epi8(hits);
    if (mask != 0) return bytes + std::countr_zero(static_cast<unsigned>(mask));
    bytes += 16;
  }
#endif
  while (bytes<end&& * bytes> 0x20 && *bytes != A && *bytes != B && *bytes != C) ++bytes;
  return bytes;
}

// Copies n <= 16 bytes with at most four loads and stores, none of them
// outside [from, from + n) or [to, to + n): the common length of names and
// values, where a call to memcpy costs more than the copy.
inline void CopyShort(unsigned char* to, const unsigned char* from, std::size_t n) {
  if (n >= 8) {
    std::uint64_t head, tail;
    std::memcpy(&head, from, 8);
    std::memcpy(&tail, from + n - 8, 8);
    std::memcpy(to, &head, 8);
    std::memcpy(to + n - 8, &tail, 8);
  } else if (n >= 4) {
    std::uint32_t head, tail;
    std::memcpy(&head, from, 4);
    std::memcpy(&tail, from + n - 4, 4);
    std::memcpy(to, &head, 4);
    std::memcpy(to + n - 4, &tail, 4);
  } else if (n > 0) {
    const unsigned char first = from[0], middle = from[n / 2], last = from[n - 1];
    to[0] = first;
    to[n / 2] = middle;
    to[n - 1] = last;
  }
}

// HtmlString::Append with the short copy inline when the string has room
// (1 to 16 bytes; nothing at all is appended as by Append).
inline void AppendBytes(HtmlString& out, const unsigned char* bytes, std::size_t count) {
  if (count - 1 < 16 && count < static_cast<std::size_t>(out.capacity - out.length)) {
    CopyShort(out.data + out.length, bytes, count);
    out.length += static_cast<std::int32_t>(count);
    out.data[out.length] = 0;
    out.reset = 0;
    return;
  }
  out.Append(bytes, count);
}

}  // namespace zelvarpack::html

#endif  // ZELVARPACK_HTML_ASCII_H_
