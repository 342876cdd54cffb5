// Token payloads of the CSS tokenizer and the 25-operation interface that
// every stylesheet consumer implements (the CSS server to minify, the style
// finder to inspect declarations).
//
// Payloads are owned by the tokenizer and reused from token to token: a
// receiver borrows one for the duration of a single event call and copies what
// it keeps. None of these types is safe to share between threads; one
// stylesheet is tokenized on one thread.
#ifndef ZELVARPACK_CSS_EVENTS_H_
#define ZELVARPACK_CSS_EVENTS_H_

#include <cstddef>
#include <cstdint>

#include "zelvarpack/export.h"

// The text a token carries: always followed by a zero byte, so it can be read
// as a NUL-terminated string when it holds no zero bytes itself.
//
// `capacity` follows the exported rule (50 bytes at first, then 50 more each
// time the text and its terminator no longer fit); the block underneath grows
// geometrically, so appending stays amortised O(1) and a reused text
// allocates only while it grows past its largest earlier size.
class CssText {
 public:
  static constexpr std::int32_t kStep = 50;

  CssText();
  ~CssText();
  CssText(const CssText&) = delete;
  CssText& operator=(const CssText&) = delete;

  void Append(unsigned char c) {
    if (length + 1 >= allocated_) Grow(1);
    if (length + 1 >= capacity) capacity += kStep;
    data[length++] = c;
    data[length] = 0;
    reset = 0;
  }
  void Append(const unsigned char* bytes, std::int32_t count);
  // Sets the flag; when set to true the text is also discarded.
  void Reset(bool discard) {
    reset = discard ? 1 : 0;
    if (discard) {
      length = 0;
      data[0] = 0;
    }
  }
  void Assign(const unsigned char* bytes, std::int32_t count) {
    Reset(true);
    Append(bytes, count);
  }
  bool Equals(const char* literal) const;
  // ASCII case-insensitive comparison with a NUL-terminated literal.
  bool EqualsIgnoringCase(const char* literal) const;

  unsigned char reset = 0;
  unsigned char* data;
  std::int32_t length = 0;
  std::int32_t capacity = kStep;

 private:
  void Grow(std::int32_t extra);
  std::int32_t allocated_ = kStep;
};

// A string or url token: the text without quotes, and how it was quoted.
// Strings: 0 double quote, 1 apostrophe. Urls: 0 double-quoted, 1
// single-quoted, 2 unquoted.
struct CssQuotedText {
  enum Quote : unsigned char { kDouble = 0, kSingle = 1, kUnquoted = 2 };
  CssText text;
  unsigned char quote = kUnquoted;
};

// A dimension (first: the number, second: the unit) or a unicode-range
// (first: the start, second: the end, empty when none was given).
struct CssTextPair {
  CssText first;
  CssText second;
};

// The consumer side of the CSS constructor. Every operation receives the
// token's payload; kinds without one receive a non-null placeholder. The base
// operations do nothing, so a consumer overrides only the events it needs.
// The order of the operations is fixed (it is the reverse of the tokenizer's
// argument order) and must not change.
class CCssConstructorEvents {
 public:
  virtual ~CCssConstructorEvents();
  virtual void OnCloseBrace(void* token);
  virtual void OnOpenBrace(void* token);
  virtual void OnCloseParen(void* token);
  virtual void OnOpenParen(void* token);
  virtual void OnCloseBracket(void* token);
  virtual void OnOpenBracket(void* token);
  virtual void OnSemicolon(void* token);
  virtual void OnColon(void* token);
  virtual void OnCdc(void* token);
  virtual void OnCdo(void* token);
  virtual void OnComment(void* token);
  virtual void OnWhitespace(void* token);
  virtual void OnUnicodeRange(CssTextPair* range);
  virtual void OnDimension(CssTextPair* dimension);
  virtual void OnPercentage(CssText* number);
  virtual void OnNumber(CssText* number);
  virtual void OnDelim(CssText* delim);
  virtual void OnBadUrl(void* token);
  virtual void OnUrl(CssQuotedText* url);
  virtual void OnBadString(void* token);
  virtual void OnString(CssQuotedText* string);
  virtual void OnHash(CssText* name);
  virtual void OnAtKeyword(CssText* name);
  virtual void OnFunction(CssText* name);
  virtual void OnIdent(CssText* ident);
};

#endif  // ZELVARPACK_CSS_EVENTS_H_
