#include "zelvarpack/css_events.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "css/css_chars.h"

CssText::CssText() : data(static_cast<unsigned char*>(std::calloc(kStep, 1))) {
  if (data == nullptr) throw std::bad_alloc();
}

CssText::~CssText() { std::free(data); }

void CssText::Grow(std::int32_t extra) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  const std::int64_t needed = std::int64_t{length} + extra + 1;  // + terminator
  if (extra < 0 || needed > kMax) throw std::bad_alloc();
  if (needed <= allocated_) return;
  // Doubling keeps appends amortised O(1); 64-bit arithmetic keeps the
  // doubled size from wrapping before it is capped.
  const std::int64_t size = std::max(std::min(2 * std::int64_t{allocated_}, kMax), needed);
  auto* block = static_cast<unsigned char*>(std::realloc(data, static_cast<std::size_t>(size)));
  if (block == nullptr) throw std::bad_alloc();
  data = block;
  allocated_ = static_cast<std::int32_t>(size);
}

void CssText::Append(const unsigned char* bytes, std::int32_t count) {
  if (count <= 0) return;
  if (count >= allocated_ - length) Grow(count);
  if (count <= 16) {
    for (std::int32_t i = 0; i < count; ++i) data[length + i] = bytes[i];
  } else {
    std::memcpy(data + length, bytes, static_cast<std::size_t>(count));
  }
  length += count;
  data[length] = 0;
  reset = 0;
  // The exported rule: whole steps of 50 until the text and its terminator
  // fit.
  if (length >= capacity) capacity += ((length - capacity) / kStep + 1) * kStep;
}

bool CssText::Equals(const char* literal) const {
  const std::size_t n = std::strlen(literal);
  return static_cast<std::size_t>(length) == n && std::memcmp(data, literal, n) == 0;
}

bool CssText::EqualsIgnoringCase(const char* literal) const {
  const std::size_t n = std::strlen(literal);
  if (static_cast<std::size_t>(length) != n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (zelvarpack::css::ToAsciiLower(data[i]) !=
        zelvarpack::css::ToAsciiLower(static_cast<unsigned char>(literal[i]))) {
      return false;
    }
  }
  return true;
}

CCssConstructorEvents::~CCssConstructorEvents() = default;
void CCssConstructorEvents::OnCloseBrace(void*) {}
void CCssConstructorEvents::OnOpenBrace(void*) {}
void CCssConstructorEvents::OnCloseParen(void*) {}
void CCssConstructorEvents::OnOpenParen(void*) {}
void CCssConstructorEvents::OnCloseBracket(void*) {}
void CCssConstructorEvents::OnOpenBracket(void*) {}
void CCssConstructorEvents::OnSemicolon(void*) {}
void CCssConstructorEvents::OnColon(void*) {}
void CCssConstructorEvents::OnCdc(void*) {}
void CCssConstructorEvents::OnCdo(void*) {}
void CCssConstructorEvents::OnComment(void*) {}
void CCssConstructorEvents::OnWhitespace(void*) {}
void CCssConstructorEvents::OnUnicodeRange(CssTextPair*) {}
void CCssConstructorEvents::OnDimension(CssTextPair*) {}
void CCssConstructorEvents::OnPercentage(CssText*) {}
void CCssConstructorEvents::OnNumber(CssText*) {}
void CCssConstructorEvents::OnDelim(CssText*) {}
void CCssConstructorEvents::OnBadUrl(void*) {}
void CCssConstructorEvents::OnUrl(CssQuotedText*) {}
void CCssConstructorEvents::OnBadString(void*) {}
void CCssConstructorEvents::OnString(CssQuotedText*) {}
void CCssConstructorEvents::OnHash(CssText*) {}
void CCssConstructorEvents::OnAtKeyword(CssText*) {}
void CCssConstructorEvents::OnFunction(CssText*) {}
void CCssConstructorEvents::OnIdent(CssText*) {}
