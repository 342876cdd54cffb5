// CCssTokenizer turns the bytes of a stylesheet (or of CSS text found in a
// page) into tokens with the vocabulary of CSS Syntax, one pass, delivered one
// at a time to a CCssTokenizerEvents receiver. It works on bytes: nothing is
// decoded, and every byte of 0x80 and above is an ordinary non-name byte.
//
// Deliberate departures from CSS Syntax, which consumers rely on:
//   - a percentage is followed by a delim "%" (the "%" is examined twice);
//   - escapes are not decoded: a token's text keeps them as written, the
//     backslash, the hex digits and the one whitespace byte a hex escape
//     takes, so writing the text back reads the same;
//   - a wildcard unicode-range keeps its text as written ("4??", no end);
//   - a comment carries its text (after "/*", without "*/") only when it
//     begins with "!", the mark of a licence notice;
//   - form feed is not whitespace; CR becomes LF in the caller's buffer.
//
// The tokenizer owns its payloads and reuses them. Not thread-safe: one
// stylesheet, one thread.
#ifndef ZELVARPACK_CSS_CSS_TOKENIZER_H_
#define ZELVARPACK_CSS_CSS_TOKENIZER_H_

#include <cstdint>

#include "zelvarpack/css_events.h"

// Receives each token the moment it is complete. Exactly one argument is
// non-null; kinds without a payload get a pointer to a one-byte placeholder.
// The argument order is fixed.
class CCssTokenizerEvents {
 public:
  virtual ~CCssTokenizerEvents();
  virtual void OnToken(CssText* ident, CssText* function, CssText* atKeyword, CssText* hash,
                       CssQuotedText* string, void* badString, CssQuotedText* url, void* badUrl,
                       CssText* delim, CssText* number, CssText* percentage, CssTextPair* dimension,
                       CssTextPair* unicodeRange, void* whitespace, void* comment, void* cdo,
                       void* cdc, void* colon, void* semicolon, void* openBracket,
                       void* closeBracket, void* openParen, void* closeParen, void* openBrace,
                       void* closeBrace) = 0;
};

class CCssTokenizer {
 public:
  // States, named after what they read.
  enum State : std::uint32_t {
    kDataState = 0,
    kDoubleQuotedStringState = 1,
    kSingleQuotedStringState = 2,
    kHashStartState = 3,
    kHashRestState = 4,
    kCommentState = 5,
    kAtKeywordStartState = 6,
    kAtKeywordRestState = 7,
    kIdentStartState = 8,
    kIdentRestState = 9,
    kFunctionWhitespaceState = 10,
    kNumberStartState = 11,
    kIntegerPartState = 12,
    kFractionState = 13,
    kDimensionUnitState = 14,
    kExponentDigitsState = 15,
    kUrlStartState = 16,
    kUrlDoubleQuotedState = 17,
    kUrlSingleQuotedState = 18,
    kUrlEndState = 19,
    kUrlUnquotedState = 20,
    kBadUrlState = 21,
    kUnicodeRangeState = 22,
    kStateCount = 23,
  };

  CCssTokenizer();
  ~CCssTokenizer();
  CCssTokenizer(const CCssTokenizer&) = delete;
  CCssTokenizer& operator=(const CCssTokenizer&) = delete;

  // Runs the machine over input[0, length) from the data state, then takes
  // the end-of-input step of the state it stands in. Every CR in `input` is
  // overwritten with LF first (unless lineFeedsOnly says there is none). A negative length, or no
  // receiver, returns at once.
  void Tokenize(unsigned char* input, std::int32_t length);

  CCssTokenizerEvents* events = nullptr;
  std::uint32_t state = kDataState;
  // When set, whitespace between a name and "(" still makes a function. Off
  // unless a caller sets it.
  bool functionWhitespace = false;
  // When set, the caller vouches that the input holds no CR, and Tokenize
  // does not look for one. Off unless a caller sets it.
  bool lineFeedsOnly = false;

 private:
  using Step = std::uint32_t (CCssTokenizer::*)(std::uint32_t pos);
  static const Step kSteps[kStateCount];

  // One function per state: examines the byte at `pos` (pos == length_ is the
  // end-of-input step) and returns the position to examine next. Returning
  // `pos` itself is a reconsume. Runs of bytes that leave the state unchanged
  // are consumed in one call.
  std::uint32_t DataState(std::uint32_t pos);
  std::uint32_t DoubleQuotedStringState(std::uint32_t pos);
  std::uint32_t SingleQuotedStringState(std::uint32_t pos);
  std::uint32_t HashStartState(std::uint32_t pos);
  std::uint32_t HashRestState(std::uint32_t pos);
  std::uint32_t CommentState(std::uint32_t pos);
  std::uint32_t AtKeywordStartState(std::uint32_t pos);
  std::uint32_t AtKeywordRestState(std::uint32_t pos);
  std::uint32_t IdentStartState(std::uint32_t pos);
  std::uint32_t IdentRestState(std::uint32_t pos);
  std::uint32_t FunctionWhitespaceState(std::uint32_t pos);
  std::uint32_t NumberStartState(std::uint32_t pos);
  std::uint32_t IntegerPartState(std::uint32_t pos);
  std::uint32_t FractionState(std::uint32_t pos);
  std::uint32_t DimensionUnitState(std::uint32_t pos);
  std::uint32_t ExponentDigitsState(std::uint32_t pos);
  std::uint32_t UrlStartState(std::uint32_t pos);
  std::uint32_t UrlDoubleQuotedState(std::uint32_t pos);
  std::uint32_t UrlSingleQuotedState(std::uint32_t pos);
  std::uint32_t UrlEndState(std::uint32_t pos);
  std::uint32_t UrlUnquotedState(std::uint32_t pos);
  std::uint32_t BadUrlState(std::uint32_t pos);
  std::uint32_t UnicodeRangeState(std::uint32_t pos);

  std::uint32_t QuotedString(std::uint32_t pos, unsigned char quote);
  std::uint32_t QuotedUrl(std::uint32_t pos, unsigned char quote);
  // The suffix after a number's digits: percentage, exponent, dimension.
  std::uint32_t NumberSuffix(std::uint32_t pos);
  // Appends the run of name bytes from `pos` (and the escapes among them) to
  // `text`; returns the position of the first byte that is neither.
  std::uint32_t ConsumeName(std::uint32_t pos, CssText& text);
  void StartDimension();

  // The byte at `pos`, or -1 past the end.
  int Peek(std::uint32_t pos) const { return pos < length_ ? input_[pos] : -1; }
  // A "\" at `pos` with a following byte that is neither LF nor FF.
  bool IsValidEscape(std::uint32_t pos) const;
  // Reads the escape whose "\" is at `pos` (REQUIRES: IsValidEscape(pos)),
  // appends its bytes to `text` when given, and returns the position after it.
  std::uint32_t ConsumeEscape(std::uint32_t pos, CssText* text);

  void EmitIdent();
  void EmitFunction();
  void EmitAtKeyword();
  void EmitHash();
  void EmitString();
  void EmitBadString();
  void EmitUrl();
  void EmitBadUrl();
  void EmitDelim(unsigned char c);
  void EmitNumber();
  void EmitPercentage();
  void EmitDimension();
  void EmitUnicodeRange();
  void EmitWhitespace();
  // `end` is the position of the comment's "*/" (or the end of the input).
  void EmitComment(std::uint32_t end);
  // The payload-free kinds by argument number (14 whitespace ... 25 "}").
  template <int kArgument>
  void EmitMarker();

  unsigned char* input_ = nullptr;
  std::uint32_t length_ = 0;

  // Pending payloads, reused from one token of their kind to the next.
  CssText at_keyword_;
  CssTextPair dimension_;
  CssText hash_;
  CssText ident_;
  CssText number_;
  CssQuotedText string_;
  CssQuotedText url_;
  CssTextPair unicode_range_;
  CssText delim_;
  CssText comment_;
  std::uint32_t comment_start_ = 0;
  // Set while the suffix of a number that has an exponent is read.
  bool exponent_ = false;
  unsigned char placeholder_ = 0;
};

#endif  // ZELVARPACK_CSS_CSS_TOKENIZER_H_
