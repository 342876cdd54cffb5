#include "css/css_tokenizer.h"

#include <cstring>
#include <iterator>

#include "css/css_chars.h"

using zelvarpack::css::Is;
using zelvarpack::css::IsByte;
using zelvarpack::css::kDigit;
using zelvarpack::css::kHexDigit;
using zelvarpack::css::kName;
using zelvarpack::css::kNameStart;
using zelvarpack::css::kSpace;
using zelvarpack::css::kStringStop;
using zelvarpack::css::kUrlStop;
using zelvarpack::css::ToAsciiLower;

CCssTokenizerEvents::~CCssTokenizerEvents() = default;

const CCssTokenizer::Step CCssTokenizer::kSteps[kStateCount] = {
    &CCssTokenizer::DataState,
    &CCssTokenizer::DoubleQuotedStringState,
    &CCssTokenizer::SingleQuotedStringState,
    &CCssTokenizer::HashStartState,
    &CCssTokenizer::HashRestState,
    &CCssTokenizer::CommentState,
    &CCssTokenizer::AtKeywordStartState,
    &CCssTokenizer::AtKeywordRestState,
    &CCssTokenizer::IdentStartState,
    &CCssTokenizer::IdentRestState,
    &CCssTokenizer::FunctionWhitespaceState,
    &CCssTokenizer::NumberStartState,
    &CCssTokenizer::IntegerPartState,
    &CCssTokenizer::FractionState,
    &CCssTokenizer::DimensionUnitState,
    &CCssTokenizer::ExponentDigitsState,
    &CCssTokenizer::UrlStartState,
    &CCssTokenizer::UrlDoubleQuotedState,
    &CCssTokenizer::UrlSingleQuotedState,
    &CCssTokenizer::UrlEndState,
    &CCssTokenizer::UrlUnquotedState,
    &CCssTokenizer::BadUrlState,
    &CCssTokenizer::UnicodeRangeState,
};

CCssTokenizer::CCssTokenizer() {
  static_assert(std::size(kSteps) == kStateCount, "one step per state");
}
CCssTokenizer::~CCssTokenizer() = default;

void CCssTokenizer::Tokenize(unsigned char* input, std::int32_t length) {
  if (length < 0 || events == nullptr) return;
  input_ = input;
  length_ = static_cast<std::uint32_t>(length);
  // Preprocessing: CR becomes LF in place, so CR LF is two line feeds.
  for (unsigned char* cr = length_ && !lineFeedsOnly
                               ? static_cast<unsigned char*>(std::memchr(input, '\r', length_))
                               : nullptr;
       cr != nullptr;
       cr = static_cast<unsigned char*>(std::memchr(cr + 1, '\r', input + length_ - cr - 1))) {
    *cr = '\n';
  }
  state = kDataState;
  std::uint32_t pos = 0;
  while (pos <= length_) {
    if (state >= kStateCount) state = kDataState;  // a caller wrote nonsense
    pos = (this->*kSteps[state])(pos);
  }
  input_ = nullptr;
  length_ = 0;
}

// ---------------------------------------------------------------------------
// Escapes (CSS Syntax "consume an escaped code point", kept as bytes)

bool CCssTokenizer::IsValidEscape(std::uint32_t pos) const {
  if (pos + 1 >= length_ || input_[pos] != '\\') return false;
  const unsigned char next = input_[pos + 1];
  return next != '\n' && next != '\f';
}

std::uint32_t CCssTokenizer::ConsumeEscape(std::uint32_t pos, CssText* text) {
  // Kept as written, backslash and all: a browser then reads the escape the
  // same way in the output as in the source.
  const std::uint32_t first = pos + 1;
  if (!IsByte(input_[first], kHexDigit)) {
    if (text != nullptr) text->Append(input_ + pos, 2);
    return first + 1;
  }
  std::uint32_t end = first;
  while (end < length_ && end - first < 6 && IsByte(input_[end], kHexDigit)) ++end;
  // One whitespace byte after a hex escape belongs to it (CSS Syntax; form
  // feed counts, as the standard's preprocessing makes it a line feed).
  if (end < length_ && (IsByte(input_[end], kSpace) || input_[end] == '\f')) ++end;
  if (text != nullptr) text->Append(input_ + pos, static_cast<std::int32_t>(end - pos));
  return end;
}

std::uint32_t CCssTokenizer::ConsumeName(std::uint32_t pos, CssText& text) {
  for (;;) {
    const std::uint32_t start = pos;
    while (pos < length_ && IsByte(input_[pos], kName)) ++pos;
    if (pos > start) text.Append(input_ + start, static_cast<std::int32_t>(pos - start));
    if (!IsValidEscape(pos)) return pos;
    pos = ConsumeEscape(pos, &text);
  }
}

// ---------------------------------------------------------------------------
// 0. Data (CSS Syntax "consume a token")

std::uint32_t CCssTokenizer::DataState(std::uint32_t pos) {
  if (pos >= length_) return pos + 1;
  const unsigned char c = input_[pos];
  switch (c) {
    case '\n':
    case '\t':
    case ' ': {
      ++pos;
      while (pos < length_ && IsByte(input_[pos], kSpace)) ++pos;
      EmitWhitespace();
      return pos;
    }
    case '"':
      string_.text.Reset(true);
      string_.quote = CssQuotedText::kDouble;
      state = kDoubleQuotedStringState;
      return pos + 1;
    case '\'':
      string_.text.Reset(true);
      string_.quote = CssQuotedText::kSingle;
      state = kSingleQuotedStringState;
      return pos + 1;
    case '#':
      state = kHashStartState;
      return pos + 1;
    case '@':
      state = kAtKeywordStartState;
      return pos + 1;
    case '(':
      EmitMarker<22>();
      return pos + 1;
    case ')':
      EmitMarker<23>();
      return pos + 1;
    case ':':
      EmitMarker<18>();
      return pos + 1;
    case ';':
      EmitMarker<19>();
      return pos + 1;
    case '[':
      EmitMarker<20>();
      return pos + 1;
    case ']':
      EmitMarker<21>();
      return pos + 1;
    case '{':
      EmitMarker<24>();
      return pos + 1;
    case '}':
      EmitMarker<25>();
      return pos + 1;
    case '+':
      if (Is(Peek(pos + 1), kDigit) || (Peek(pos + 1) == '.' && Is(Peek(pos + 2), kDigit))) {
        state = kNumberStartState;
        return NumberStartState(pos);
      }
      EmitDelim(c);
      return pos + 1;
    case '-':
      if (Peek(pos + 1) == '-' && Peek(pos + 2) == '>') {
        EmitMarker<17>();
        return pos + 3;
      }
      if (Is(Peek(pos + 1), kDigit) || (Peek(pos + 1) == '.' && Is(Peek(pos + 2), kDigit))) {
        state = kNumberStartState;
        return NumberStartState(pos);
      }
      if (Is(Peek(pos + 1), kNameStart)) {
        state = kIdentStartState;
        return IdentStartState(pos);
      }
      EmitDelim(c);
      return pos + 1;
    case '.':
      if (Is(Peek(pos + 1), kDigit)) {
        state = kNumberStartState;
        return NumberStartState(pos);
      }
      EmitDelim(c);
      return pos + 1;
    case '/':
      if (Peek(pos + 1) == '*') {
        state = kCommentState;
        comment_start_ = pos + 2;
        return pos + 2;
      }
      EmitDelim(c);
      return pos + 1;
    case '<':
      if (Peek(pos + 1) == '!' && Peek(pos + 2) == '-' && Peek(pos + 3) == '-') {
        EmitMarker<16>();
        return pos + 4;
      }
      EmitDelim(c);
      return pos + 1;
    case '\\':
      if (IsValidEscape(pos)) {
        state = kIdentStartState;
        return IdentStartState(pos);
      }
      EmitDelim(c);
      return pos + 1;
    case 'U':
    case 'u':
      if (Peek(pos + 1) == '+' && Is(Peek(pos + 2), kHexDigit)) {
        state = kUnicodeRangeState;
        return pos + 2;
      }
      if (ToAsciiLower(static_cast<unsigned char>(Peek(pos + 1))) == 'r' &&
          ToAsciiLower(static_cast<unsigned char>(Peek(pos + 2))) == 'l' && Peek(pos + 3) == '(') {
        state = kUrlStartState;
        return pos + 4;
      }
      state = kIdentStartState;
      return IdentStartState(pos);
    default:
      if (IsByte(c, kDigit)) {
        state = kNumberStartState;
        return NumberStartState(pos);
      }
      if (IsByte(c, kNameStart)) {
        state = kIdentStartState;
        return IdentStartState(pos);
      }
      // Form feed, control bytes and every byte of 0x80 and above.
      EmitDelim(c);
      return pos + 1;
  }
}

// ---------------------------------------------------------------------------
// 1, 2. Strings (CSS Syntax "consume a string token"). An unterminated string
// at the end of the input is an ordinary string token.

std::uint32_t CCssTokenizer::DoubleQuotedStringState(std::uint32_t pos) {
  return QuotedString(pos, '"');
}

std::uint32_t CCssTokenizer::SingleQuotedStringState(std::uint32_t pos) {
  return QuotedString(pos, '\'');
}

std::uint32_t CCssTokenizer::QuotedString(std::uint32_t pos, unsigned char quote) {
  for (;;) {
    const std::uint32_t start = pos;
    while (pos < length_ && input_[pos] != quote && !IsByte(input_[pos], kStringStop)) ++pos;
    if (pos > start) string_.text.Append(input_ + start, static_cast<std::int32_t>(pos - start));
    if (pos >= length_) {
      EmitString();
      state = kDataState;
      return length_ + 1;
    }
    const unsigned char c = input_[pos];
    if (c == quote) {
      EmitString();
      state = kDataState;
      return pos + 1;
    }
    if (c != '\\') {  // LF or FF: the string is broken; the byte is reconsumed
      EmitBadString();
      state = kDataState;
      return pos;
    }
    if (pos + 1 >= length_) {
      EmitBadString();
      state = kDataState;
      return pos + 1;
    }
    const unsigned char next = input_[pos + 1];
    if (next == '\n' || next == '\f') {
      pos += 2;  // line continuation
    } else {
      pos = ConsumeEscape(pos, &string_.text);
    }
  }
}

// ---------------------------------------------------------------------------
// 3, 4. Hash (CSS Syntax "#": a hash token when a name follows)

std::uint32_t CCssTokenizer::HashStartState(std::uint32_t pos) {
  const int c = Peek(pos);
  if (Is(c, kName)) {
    hash_.Reset(true);
    hash_.Append(static_cast<unsigned char>(c));
    state = kHashRestState;
    return HashRestState(pos + 1);
  }
  if (IsValidEscape(pos)) {
    hash_.Reset(true);
    state = kHashRestState;
    return HashRestState(ConsumeEscape(pos, &hash_));
  }
  EmitDelim('#');
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::HashRestState(std::uint32_t pos) {
  pos = ConsumeName(pos, hash_);
  EmitHash();
  state = kDataState;
  return pos;
}

// ---------------------------------------------------------------------------
// 5. Comment (CSS Syntax "consume comments"); an unclosed comment ends at the
// end of the input and is still a comment token.

std::uint32_t CCssTokenizer::CommentState(std::uint32_t pos) {
  while (pos < length_) {
    const auto* star =
        static_cast<const unsigned char*>(std::memchr(input_ + pos, '*', length_ - pos));
    if (star == nullptr) break;
    pos = static_cast<std::uint32_t>(star - input_);
    if (pos + 1 < length_ && input_[pos + 1] == '/') {
      EmitComment(pos);
      state = kDataState;
      return pos + 2;
    }
    ++pos;
  }
  EmitComment(length_);
  state = kDataState;
  return length_ + 1;
}

// ---------------------------------------------------------------------------
// 6, 7. At-keyword (CSS Syntax "@": an at-keyword when an identifier follows)

std::uint32_t CCssTokenizer::AtKeywordStartState(std::uint32_t pos) {
  const int c = Peek(pos);
  if (Is(c, kNameStart)) {
    at_keyword_.Reset(true);
    at_keyword_.Append(static_cast<unsigned char>(c));
    state = kAtKeywordRestState;
    return AtKeywordRestState(pos + 1);
  }
  if (c == '-' && Is(Peek(pos + 1), kNameStart)) {
    at_keyword_.Reset(true);
    at_keyword_.Append('-');
    at_keyword_.Append(input_[pos + 1]);
    state = kAtKeywordRestState;
    return AtKeywordRestState(pos + 2);
  }
  if (IsValidEscape(pos)) {
    at_keyword_.Reset(true);
    state = kAtKeywordRestState;
    return AtKeywordRestState(ConsumeEscape(pos, &at_keyword_));
  }
  EmitDelim('@');
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::AtKeywordRestState(std::uint32_t pos) {
  pos = ConsumeName(pos, at_keyword_);
  EmitAtKeyword();
  state = kDataState;
  return pos;
}

// ---------------------------------------------------------------------------
// 8, 9, 10. Ident-like (CSS Syntax "consume an ident-like token"); "url(" is
// recognised in the data state, so an escaped "url" makes a function.

std::uint32_t CCssTokenizer::IdentStartState(std::uint32_t pos) {
  const int c = Peek(pos);
  if (c == '-' && Is(Peek(pos + 1), kNameStart)) {
    ident_.Reset(true);
    ident_.Append('-');
    state = kIdentRestState;
    return IdentRestState(pos + 1);
  }
  if (Is(c, kNameStart)) {
    ident_.Reset(true);
    ident_.Append(static_cast<unsigned char>(c));
    state = kIdentRestState;
    return IdentRestState(pos + 1);
  }
  if (IsValidEscape(pos)) {
    ident_.Reset(true);
    state = kIdentRestState;
    return IdentRestState(ConsumeEscape(pos, &ident_));
  }
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::IdentRestState(std::uint32_t pos) {
  pos = ConsumeName(pos, ident_);
  const int c = Peek(pos);
  if (c == '(') {
    EmitFunction();
    state = kDataState;
    return pos + 1;
  }
  if (functionWhitespace && Is(c, kSpace)) {
    state = kFunctionWhitespaceState;
    return pos + 1;
  }
  EmitIdent();
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::FunctionWhitespaceState(std::uint32_t pos) {
  while (Is(Peek(pos), kSpace)) ++pos;
  if (Peek(pos) == '(') {
    EmitFunction();
    state = kDataState;
    return pos + 1;
  }
  EmitIdent();
  state = kDataState;
  return pos;
}

// ---------------------------------------------------------------------------
// 11-15. Numeric (CSS Syntax "consume a numeric token"), with the "%" left
// for the data state.

std::uint32_t CCssTokenizer::NumberStartState(std::uint32_t pos) {
  const int c = Peek(pos);
  if (c == '-' || c == '+') {
    if (Is(Peek(pos + 1), kDigit)) {
      number_.Reset(true);
      number_.Append(input_ + pos, 2);
      state = kIntegerPartState;
      return IntegerPartState(pos + 2);
    }
    if (Peek(pos + 1) == '.' && Is(Peek(pos + 2), kDigit)) {
      number_.Reset(true);
      number_.Append(input_ + pos, 3);
      state = kFractionState;
      return FractionState(pos + 3);
    }
  } else if (Is(c, kDigit)) {
    number_.Reset(true);
    number_.Append(static_cast<unsigned char>(c));
    state = kIntegerPartState;
    return IntegerPartState(pos + 1);
  } else if (c == '.' && Is(Peek(pos + 1), kDigit)) {
    number_.Reset(true);
    number_.Append(input_ + pos, 2);
    state = kFractionState;
    return FractionState(pos + 2);
  }
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::IntegerPartState(std::uint32_t pos) {
  const std::uint32_t start = pos;
  while (pos < length_ && IsByte(input_[pos], kDigit)) ++pos;
  if (pos > start) number_.Append(input_ + start, static_cast<std::int32_t>(pos - start));
  if (Peek(pos) == '.' && Is(Peek(pos + 1), kDigit)) {
    number_.Append(input_ + pos, 2);
    state = kFractionState;
    return FractionState(pos + 2);
  }
  return NumberSuffix(pos);
}

std::uint32_t CCssTokenizer::FractionState(std::uint32_t pos) {
  const std::uint32_t start = pos;
  while (pos < length_ && IsByte(input_[pos], kDigit)) ++pos;
  if (pos > start) number_.Append(input_ + start, static_cast<std::int32_t>(pos - start));
  if (Peek(pos) == '.') {  // 1.2.3 is 1.2 then .3
    EmitNumber();
    state = kDataState;
    return pos;
  }
  return NumberSuffix(pos);
}

void CCssTokenizer::StartDimension() {
  dimension_.first.Assign(number_.data, number_.length);
  dimension_.second.Reset(true);
}

std::uint32_t CCssTokenizer::NumberSuffix(std::uint32_t pos) {
  const int c = Peek(pos);
  if (c == '%') {
    // Reconsumed: the data state then emits the delim "%" that receivers use
    // to write the percentage back.
    EmitPercentage();
    state = kDataState;
    return pos;
  }
  if ((c == 'e' || c == 'E') && !exponent_) {
    // The exponent, letter and all (CSS Syntax): 1e3, 1.5E-2.
    const int next = Peek(pos + 1);
    if (Is(next, kDigit)) {
      number_.Append(input_ + pos, 2);
      state = kExponentDigitsState;
      return ExponentDigitsState(pos + 2);
    }
    if ((next == '+' || next == '-') && Is(Peek(pos + 2), kDigit)) {
      number_.Append(input_ + pos, 3);
      state = kExponentDigitsState;
      return ExponentDigitsState(pos + 3);
    }
  }
  if (Is(c, kNameStart)) {
    StartDimension();
    state = kDimensionUnitState;
    return DimensionUnitState(pos);
  }
  if (c == '-') {
    if (Is(Peek(pos + 1), kNameStart)) {
      StartDimension();
      dimension_.second.Append('-');
      state = kDimensionUnitState;
      return DimensionUnitState(pos + 1);
    }
    if (IsValidEscape(pos + 1)) {
      StartDimension();
      dimension_.second.Append('-');
      state = kDimensionUnitState;
      return DimensionUnitState(ConsumeEscape(pos + 1, &dimension_.second));
    }
  } else if (IsValidEscape(pos)) {
    StartDimension();
    state = kDimensionUnitState;
    return DimensionUnitState(ConsumeEscape(pos, &dimension_.second));
  }
  EmitNumber();
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::DimensionUnitState(std::uint32_t pos) {
  pos = ConsumeName(pos, dimension_.second);
  EmitDimension();
  state = kDataState;
  return pos;
}

std::uint32_t CCssTokenizer::ExponentDigitsState(std::uint32_t pos) {
  const std::uint32_t start = pos;
  while (pos < length_ && IsByte(input_[pos], kDigit)) ++pos;
  if (pos > start) number_.Append(input_ + start, static_cast<std::int32_t>(pos - start));
  // A number with an exponent may still be a percentage or a dimension
  // (1e2%, 1e3px), but takes no second exponent.
  exponent_ = true;
  const std::uint32_t next = NumberSuffix(pos);
  exponent_ = false;
  return next;
}

// ---------------------------------------------------------------------------
// 16-21. Url (CSS Syntax "consume a url token", with quoted urls kept as url
// tokens). An unfinished url at the end of the input emits nothing.

std::uint32_t CCssTokenizer::UrlStartState(std::uint32_t pos) {
  while (Is(Peek(pos), kSpace)) ++pos;
  if (pos >= length_) return length_ + 1;
  const unsigned char c = input_[pos];
  url_.text.Reset(true);
  if (c == '"' || c == '\'') {
    url_.quote = c == '"' ? CssQuotedText::kDouble : CssQuotedText::kSingle;
    state = c == '"' ? kUrlDoubleQuotedState : kUrlSingleQuotedState;
    return pos + 1;
  }
  url_.quote = CssQuotedText::kUnquoted;
  if (c == ')') {
    EmitUrl();
    state = kDataState;
    return pos + 1;
  }
  state = kUrlUnquotedState;
  return UrlUnquotedState(pos);
}

std::uint32_t CCssTokenizer::UrlDoubleQuotedState(std::uint32_t pos) { return QuotedUrl(pos, '"'); }

std::uint32_t CCssTokenizer::UrlSingleQuotedState(std::uint32_t pos) {
  return QuotedUrl(pos, '\'');
}

std::uint32_t CCssTokenizer::QuotedUrl(std::uint32_t pos, unsigned char quote) {
  for (;;) {
    const std::uint32_t start = pos;
    while (pos < length_ && input_[pos] != quote && !IsByte(input_[pos], kStringStop)) ++pos;
    if (pos > start) url_.text.Append(input_ + start, static_cast<std::int32_t>(pos - start));
    if (pos >= length_) return length_ + 1;
    const unsigned char c = input_[pos];
    if (c == quote) {
      state = kUrlEndState;
      return pos + 1;
    }
    if (c != '\\') {  // LF or FF
      state = kBadUrlState;
      return pos + 1;
    }
    if (pos + 1 >= length_) {
      EmitBadUrl();
      state = kDataState;
      return pos + 1;
    }
    const unsigned char next = input_[pos + 1];
    if (next == '\n' || next == '\f') {
      pos += 2;  // line continuation
    } else {
      pos = ConsumeEscape(pos, &url_.text);
    }
  }
}

std::uint32_t CCssTokenizer::UrlEndState(std::uint32_t pos) {
  while (Is(Peek(pos), kSpace)) ++pos;
  if (pos >= length_) return length_ + 1;
  if (input_[pos] == ')') {
    EmitUrl();
    state = kDataState;
    return pos + 1;
  }
  state = kBadUrlState;
  return pos;
}

std::uint32_t CCssTokenizer::UrlUnquotedState(std::uint32_t pos) {
  for (;;) {
    const std::uint32_t start = pos;
    while (pos < length_ && !IsByte(input_[pos], kUrlStop)) ++pos;
    if (pos > start) url_.text.Append(input_ + start, static_cast<std::int32_t>(pos - start));
    if (pos >= length_) return length_ + 1;
    const unsigned char c = input_[pos];
    if (IsByte(c, kSpace)) {
      state = kUrlEndState;
      return pos + 1;
    }
    if (c == ')') {
      EmitUrl();
      state = kDataState;
      return pos + 1;
    }
    if (c == '\\' && IsValidEscape(pos)) {
      pos = ConsumeEscape(pos, &url_.text);
      continue;
    }
    // A quote, "(", a control byte, a byte of 127 and above, or a "\" that
    // does not start an escape.
    state = kBadUrlState;
    return pos + 1;
  }
}

std::uint32_t CCssTokenizer::BadUrlState(std::uint32_t pos) {
  while (pos < length_) {
    const unsigned char c = input_[pos];
    if (c == ')') {
      EmitBadUrl();
      state = kDataState;
      return pos + 1;
    }
    pos = (c == '\\' && IsValidEscape(pos)) ? ConsumeEscape(pos, nullptr) : pos + 1;
  }
  return length_ + 1;
}

// ---------------------------------------------------------------------------
// 22. Unicode range (CSS Syntax "consume a unicode-range token"): the token
// covers exactly its own bytes; a wildcard range keeps its "?"s as written
// and has no end.

std::uint32_t CCssTokenizer::UnicodeRangeState(std::uint32_t pos) {
  CssText& start = unicode_range_.first;
  CssText& end = unicode_range_.second;
  start.Reset(true);
  end.Reset(true);
  std::uint32_t at = pos;
  while (at - pos < 6 && Is(Peek(at), kHexDigit)) ++at;
  bool wildcard = false;
  while (at - pos < 6 && Peek(at) == '?') {
    ++at;
    wildcard = true;
  }
  start.Append(input_ + pos, static_cast<std::int32_t>(at - pos));
  if (!wildcard && Peek(at) == '-' && Is(Peek(at + 1), kHexDigit)) {
    const std::uint32_t from = at + 1;
    for (at = from; at - from < 6 && Is(Peek(at), kHexDigit);) ++at;
    end.Append(input_ + from, static_cast<std::int32_t>(at - from));
  }
  EmitUnicodeRange();
  state = kDataState;
  return at;
}

// ---------------------------------------------------------------------------
// Emitters: each places its payload in its own argument and null elsewhere.
// The function and percentage tokens carry the ident and number texts
// themselves; no copy is made.

void CCssTokenizer::EmitIdent() {
  events->OnToken(&ident_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitFunction() {
  events->OnToken(nullptr, &ident_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitAtKeyword() {
  events->OnToken(nullptr, nullptr, &at_keyword_, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitHash() {
  events->OnToken(nullptr, nullptr, nullptr, &hash_, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitString() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, &string_, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitBadString() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, &placeholder_, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitUrl() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &url_, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitBadUrl() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &placeholder_,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitDelim(unsigned char c) {
  delim_.Reset(true);
  delim_.Append(c);
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &delim_,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitNumber() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  &number_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitPercentage() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, &number_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitDimension() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, &dimension_, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitUnicodeRange() {
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, &unicode_range_, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void CCssTokenizer::EmitWhitespace() { EmitMarker<14>(); }

void CCssTokenizer::EmitComment(std::uint32_t end) {
  // Only a "/*!" comment (a licence notice, which minifiers keep) carries its
  // text; the others are not copied.
  if (comment_start_ < end && input_[comment_start_] == '!') {
    comment_.Assign(input_ + comment_start_, static_cast<std::int32_t>(end - comment_start_));
  } else {
    comment_.Reset(true);
  }
  events->OnToken(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, &comment_, nullptr, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

template <int kArgument>
void CCssTokenizer::EmitMarker() {
  // One instance per kind, so every argument is a constant.
  void* p = &placeholder_;
  events->OnToken(
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, nullptr, nullptr, kArgument == 14 ? p : nullptr, kArgument == 15 ? p : nullptr,
      kArgument == 16 ? p : nullptr, kArgument == 17 ? p : nullptr, kArgument == 18 ? p : nullptr,
      kArgument == 19 ? p : nullptr, kArgument == 20 ? p : nullptr, kArgument == 21 ? p : nullptr,
      kArgument == 22 ? p : nullptr, kArgument == 23 ? p : nullptr, kArgument == 24 ? p : nullptr,
      kArgument == 25 ? p : nullptr);
}
