// Test helpers: run the CSS tokenizer and record its token stream in a
// compact, byte-exact text form, one item per token separated by spaces:
//
//   I(a) F(calc) @(media) #(fff)   ident, function, at-keyword, hash
//   S"x" S'x'                      string by quote kind
//   U"x" U'x' U(x)                 url: double-quoted, single-quoted, unquoted
//   BS BU                          bad-string, bad-url
//   D(%) N(1.5) P(50)              delim, number, percentage
//   DIM(1.5,em) UR(0000,00FF)      dimension, unicode-range
//   _ C C(!x) <!-- --> : ; [ ] ( ) { }
//                                  whitespace, comment (a "/*!" one with its
//                                  text), CDO, CDC, punctuation
//
// Bytes outside 0x20-0x7E inside texts are written \xHH.
#ifndef ZELVARPACK_CSS_CSS_TEST_SUPPORT_H_
#define ZELVARPACK_CSS_CSS_TEST_SUPPORT_H_

#include <cstdio>
#include <string>

#include "css/css_tokenizer.h"

namespace zelvarpack::css::testing {

inline std::string Escaped(const unsigned char* data, int length) {
  std::string out;
  for (int i = 0; i < length; ++i) {
    const unsigned char c = data[i];
    if (c < 0x20 || c >= 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

inline std::string Escaped(const std::string& bytes) {
  return Escaped(reinterpret_cast<const unsigned char*>(bytes.data()),
                 static_cast<int>(bytes.size()));
}

inline std::string Text(const CssText* text) { return Escaped(text->data, text->length); }

class TokenRecorder : public CCssTokenizerEvents {
 public:
  void OnToken(CssText* ident, CssText* function, CssText* atKeyword, CssText* hash,
               CssQuotedText* string, void* badString, CssQuotedText* url, void* badUrl,
               CssText* delim, CssText* number, CssText* percentage, CssTextPair* dimension,
               CssTextPair* unicodeRange, void* whitespace, void* comment, void* cdo, void* cdc,
               void* colon, void* semicolon, void* openBracket, void* closeBracket, void* openParen,
               void* closeParen, void* openBrace, void* closeBrace) override {
    const void* all[] = {ident,        function,  atKeyword,    hash,       string,
                         badString,    url,       badUrl,       delim,      number,
                         percentage,   dimension, unicodeRange, whitespace, comment,
                         cdo,          cdc,       colon,        semicolon,  openBracket,
                         closeBracket, openParen, closeParen,   openBrace,  closeBrace};
    int present = 0;
    for (const void* p : all) present += p != nullptr;
    if (present != 1) out += "<" + std::to_string(present) + " ARGUMENTS>";
    if (!out.empty()) out += ' ';
    if (ident) out += "I(" + Text(ident) + ")";
    if (function) out += "F(" + Text(function) + ")";
    if (atKeyword) out += "@(" + Text(atKeyword) + ")";
    if (hash) out += "#(" + Text(hash) + ")";
    if (string)
      out += string->quote == 0 ? "S\"" + Text(&string->text) + "\""
                                : "S'" + Text(&string->text) + "'";
    if (badString) out += "BS";
    if (url) {
      const std::string t = Text(&url->text);
      out += url->quote == 0 ? "U\"" + t + "\"" : url->quote == 1 ? "U'" + t + "'" : "U(" + t + ")";
    }
    if (badUrl) out += "BU";
    if (delim) out += "D(" + Text(delim) + ")";
    if (number) out += "N(" + Text(number) + ")";
    if (percentage) out += "P(" + Text(percentage) + ")";
    if (dimension) out += "DIM(" + Text(&dimension->first) + "," + Text(&dimension->second) + ")";
    if (unicodeRange) {
      out += "UR(" + Text(&unicodeRange->first) + "," + Text(&unicodeRange->second) + ")";
    }
    if (whitespace) out += "_";
    if (comment) {
      const auto* text = static_cast<const CssText*>(comment);
      out += text->length > 0 ? "C(" + Text(text) + ")" : "C";
    }
    if (cdo) out += "<!--";
    if (cdc) out += "-->";
    if (colon) out += ":";
    if (semicolon) out += ";";
    if (openBracket) out += "[";
    if (closeBracket) out += "]";
    if (openParen) out += "(";
    if (closeParen) out += ")";
    if (openBrace) out += "{";
    if (closeBrace) out += "}";
  }
  std::string out;
};

// The token stream of `input` (copied; the copy's CRs become LFs).
inline std::string Tokens(std::string input) {
  TokenRecorder recorder;
  CCssTokenizer tokenizer;
  tokenizer.events = &recorder;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                     static_cast<std::int32_t>(input.size()));
  return recorder.out;
}

}  // namespace zelvarpack::css::testing

#endif  // ZELVARPACK_CSS_CSS_TEST_SUPPORT_H_
