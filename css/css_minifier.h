// CssMinifier writes stylesheets in minified form, token by token, into the
// output entries of a CSS server's state: no tree and no second pass, a few
// flags and a small stack of block kinds.
//
// Whitespace is removed only where no browser can tell (CSS Syntax and
// Selectors): around ";", "{", "}", "<!--", "-->", ",", after "(" and "[",
// before ")", "]" and "!", around the combinators ">", "+", "~" of a
// selector, and around ":" and before "[" except in a selector, where a
// space there is a descendant combinator (".a :hover", "div [x]"). Custom
// property values and var() keep their spaces around ",". It is kept
// after ")" and "]" unless punctuation follows, so "calc((1px) + 2px)",
// "url(a) no-repeat" and ":not(.a) .b" keep their meaning; it is kept around
// "+" and "-" everywhere, so math functions stay valid. Escapes, exponents
// and unicode-ranges are written as the tokenizer read them; "/*!" comments
// (licence notices) are kept once, where they stood; others vanish.
//
// Url references are resolved against the sheet's address; in filter mode an
// http(s) reference becomes a url entry of its own for the sprite pass.
//
// Not thread-safe: one sheet at a time, on the server's thread.
#ifndef ZELVARPACK_CSS_CSS_MINIFIER_H_
#define ZELVARPACK_CSS_CSS_MINIFIER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "css/css_server_state.h"
#include "zelvarpack/css_events.h"

namespace zelvarpack::css {

class CssMinifier : public CCssConstructorEvents {
 public:
  // Writes into the last text entry of `state.entries`.
  explicit CssMinifier(CssServerState& state) : state_(state) {}

  // Resets the flags for the next sheet; the kept licence notices carry over,
  // so each is written once in the combined output.
  void BeginSheet();

  void OnCloseBrace(void* token) override;
  void OnOpenBrace(void* token) override;
  void OnCloseParen(void* token) override;
  void OnOpenParen(void* token) override;
  void OnCloseBracket(void* token) override;
  void OnOpenBracket(void* token) override;
  void OnSemicolon(void* token) override;
  void OnColon(void* token) override;
  void OnCdc(void* token) override;
  void OnCdo(void* token) override;
  void OnComment(void* token) override;
  void OnWhitespace(void* token) override;
  void OnUnicodeRange(CssTextPair* range) override;
  void OnDimension(CssTextPair* dimension) override;
  void OnPercentage(CssText* number) override;
  void OnNumber(CssText* number) override;
  void OnDelim(CssText* delim) override;
  void OnBadUrl(void* token) override;
  void OnUrl(CssQuotedText* url) override;
  void OnBadString(void* token) override;
  void OnString(CssQuotedText* string) override;
  void OnHash(CssText* name) override;
  void OnAtKeyword(CssText* name) override;
  void OnFunction(CssText* name) override;
  void OnIdent(CssText* ident) override;

 private:
  // What the current statement (since the last ";", "{" or "}") began with.
  // kCustomProperty: "--name", whose value browsers keep as written.
  enum Statement : unsigned char {
    kNoStatement,
    kAtRule,
    kIdentFirst,
    kCustomProperty,
    kOtherFirst
  };
  // What a block holds.
  enum Block : unsigned char { kRules, kDeclarations };

  void Write(const unsigned char* bytes, std::size_t count) {
    text_->Append(bytes, count);
    if (capture_) state_.captureText.Append(bytes, count);
  }
  void Write(const char* text, std::size_t count) {
    Write(reinterpret_cast<const unsigned char*>(text), count);
  }
  void Write(const CssText& text) { Write(text.data, static_cast<std::size_t>(text.length)); }
  // Takes back the space the last whitespace token wrote, if it was the last
  // thing written.
  void DropTrailingSpace();
  void ClearFlags() {
    suppressSpace_ = 0;
    trailingSpace_ = 0;
    afterImport_ = 0;
  }
  void Begin(Statement kind) {
    if (statement_ == kNoStatement) statement_ = kind;
  }
  // Whether the current statement is a selector, where a space before ":"
  // or "[" is a combinator.
  bool InSelector() const;
  // Punctuation: drops the trailing space, writes `text`, suppresses the
  // whitespace that follows.
  void WritePunctuation(const char* text, std::size_t count);
  // Writes `address` resolved against the sheet's base (or appends it to
  // `out` when given).
  void Resolve(const CssText& address, std::string* out);
  void WriteUrl(const CssText& address, unsigned char quoteKind);

  CssServerState& state_;
  OutputText* text_ = nullptr;
  unsigned char suppressSpace_ = 0;
  unsigned char trailingSpace_ = 0;
  // The last token was "@import" (whitespace between does not count): a
  // string is its address, resolved like a url.
  unsigned char afterImport_ = 0;
  // The space pending after ")" or "]" may be dropped before "," and "!".
  unsigned char afterGroup_ = 0;
  // Parentheses and functions open in the current statement, and the depth
  // of the outermost var() among them (0: none), whose fallback browsers
  // keep as written.
  std::int32_t parenDepth_ = 0;
  std::int32_t varDepth_ = 0;
  unsigned char capture_ = 0;
  unsigned char storeCapture_ = 0;
  // Url entries made in the current rule (filter mode).
  std::int32_t ruleUrls_ = 0;
  Statement statement_ = kNoStatement;
  // The statement's at-rule holds rules (@media, @supports, ...).
  bool atRuleHoldsRules_ = false;
  std::vector<Block> blocks_;
  std::unordered_set<std::string> licences_;
};

}  // namespace zelvarpack::css

#endif  // ZELVARPACK_CSS_CSS_MINIFIER_H_
