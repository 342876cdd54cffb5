// The minified output of CZelvarCssServer: one handler per token, three
// flags, no tree and no second pass.
//
//   suppressSpace_  a whitespace token writes nothing (after punctuation);
//   trailingSpace_  the last byte written is a space written for whitespace,
//                   which punctuation takes back;
//   afterAtKeyword_ the last token was an at-keyword, so a string is an
//                   address ("@import'a.css'") and is rewritten like a url.
//
// Every handler ends with the three flags cleared unless it says otherwise.
#include <cstring>

#include "css/css_server_state.h"
#include "zelvarpack/zelvar_css_server.h"

using zelvarpack::css::CssOutputEntry;

namespace {

bool StartsWith(const CssText& text, const char* literal) {
  const std::size_t n = std::strlen(literal);
  return static_cast<std::size_t>(text.length) >= n && std::memcmp(text.data, literal, n) == 0;
}

bool StartsWithIgnoringCase(const std::string& text, const char* literal) {
  const std::size_t n = std::strlen(literal);
  if (text.size() < n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 'A' && c <= 'Z') c |= 0x20;
    if (c != static_cast<unsigned char>(literal[i])) return false;
  }
  return true;
}

}  // namespace

void CZelvarCssServer::ResetMinifier() {
  ClearFlags();
  lastIdentWasBackground_ = 0;
  capture_ = 0;
  storeCapture_ = 0;
  state_->captureText.Clear();
}

void CZelvarCssServer::Write(const unsigned char* bytes, std::size_t count) {
  text_->Append(bytes, count);
  if (capture_) state_->captureText.Append(bytes, count);
}

void CZelvarCssServer::Write(const char* text, std::size_t count) {
  Write(reinterpret_cast<const unsigned char*>(text), count);
}

void CZelvarCssServer::Write(const CssText& text) {
  Write(text.data, static_cast<std::size_t>(text.length));
}

void CZelvarCssServer::DropTrailingSpace() {
  if (!trailingSpace_) return;
  text_->PopBack();
  if (capture_) state_->captureText.PopBack();
}

void CZelvarCssServer::WritePunctuation(const char* text, std::size_t count) {
  DropTrailingSpace();
  Write(text, count);
  ClearFlags();
  suppressSpace_ = 1;
}

void CZelvarCssServer::OnIdent(CssText* ident) {
  Write(*ident);
  lastIdentWasBackground_ = ident->EqualsIgnoringCase("background") ? 1 : 0;
  ClearFlags();
}

void CZelvarCssServer::OnFunction(CssText* name) {
  Write(*name);
  Write("(", 1);
  ClearFlags();  // a space after a function's "(" is kept
}

void CZelvarCssServer::OnAtKeyword(CssText* name) {
  Write("@", 1);
  Write(*name);
  ClearFlags();
  afterAtKeyword_ = 1;
}

void CZelvarCssServer::OnHash(CssText* name) {
  Write("#", 1);
  Write(*name);
  ClearFlags();
}

void CZelvarCssServer::OnString(CssQuotedText* string) {
  if (afterAtKeyword_) {
    // An address given as a string right after an at-keyword is rewritten
    // like a url; string quote kinds 0 and 1 are the url's kinds too.
    OnUrl(string);
    return;
  }
  const char quote = string->quote == CssQuotedText::kSingle ? '\'' : '"';
  Write(&quote, 1);
  Write(string->text);
  Write(&quote, 1);
  ClearFlags();
}

// A percentage is completed by the "%" delim that the tokenizer sends after it.
void CZelvarCssServer::OnNumber(CssText* number) {
  Write(*number);
  ClearFlags();
}

void CZelvarCssServer::OnPercentage(CssText* number) {
  Write(*number);
  ClearFlags();
}

void CZelvarCssServer::OnDelim(CssText* delim) {
  Write(*delim);
  ClearFlags();
}

void CZelvarCssServer::OnDimension(CssTextPair* dimension) {
  Write(dimension->first);
  Write(dimension->second);
  ClearFlags();
}

void CZelvarCssServer::OnUnicodeRange(CssTextPair* range) {
  Write("U+", 2);
  Write(range->first);
  if (range->second.length > 0) {
    Write("-", 1);
    Write(range->second);
  }
  ClearFlags();
}

void CZelvarCssServer::OnWhitespace(void*) {
  afterAtKeyword_ = 0;
  if (suppressSpace_) return;
  Write(" ", 1);
  trailingSpace_ = 1;
  suppressSpace_ = 1;
}

// Comments, bad strings and bad urls vanish. Clearing the flags means a space
// on each side of a comment may survive ("a /**/ b" keeps two).
void CZelvarCssServer::OnComment(void*) { ClearFlags(); }
void CZelvarCssServer::OnBadString(void*) { ClearFlags(); }
void CZelvarCssServer::OnBadUrl(void*) { ClearFlags(); }

void CZelvarCssServer::OnColon(void*) { WritePunctuation(":", 1); }
void CZelvarCssServer::OnSemicolon(void*) { WritePunctuation(";", 1); }
void CZelvarCssServer::OnOpenBracket(void*) { WritePunctuation("[", 1); }
void CZelvarCssServer::OnCloseBracket(void*) { WritePunctuation("]", 1); }
void CZelvarCssServer::OnCloseParen(void*) { WritePunctuation(")", 1); }
void CZelvarCssServer::OnCdo(void*) { WritePunctuation("<!--", 4); }
void CZelvarCssServer::OnCdc(void*) { WritePunctuation("-->", 3); }

// A space before "(" is kept, so "and (max-width...)" keeps its space.
void CZelvarCssServer::OnOpenParen(void*) {
  Write("(", 1);
  ClearFlags();
  suppressSpace_ = 1;
}

void CZelvarCssServer::OnOpenBrace(void*) {
  WritePunctuation("{", 1);
  // The declarations of the rule are captured for the sprite pass of filter
  // mode, which reads a background image's size and padding from them.
  if (isFilter_) capture_ = 1;
  state_->captureText.Clear();
}

void CZelvarCssServer::OnCloseBrace(void*) {
  DropTrailingSpace();
  text_->Append('}');  // never captured
  ClearFlags();
  suppressSpace_ = 1;
  if (storeCapture_) {
    // The rule's declarations, without braces, stay with its url entries.
    const zelvarpack::css::OutputText& capture = state_->captureText;
    for (auto it = state_->entries.rbegin(); it != state_->entries.rend(); ++it) {
      CssOutputEntry& entry = **it;
      if (entry.kind != CssOutputEntry::kUrl) continue;
      if (!entry.declarations.empty()) break;
      entry.declarations.assign(reinterpret_cast<const char*>(capture.data()), capture.size());
    }
  }
  storeCapture_ = 0;
  capture_ = 0;
  state_->captureText.Clear();
}

// ---------------------------------------------------------------------------
// Url references

void CZelvarCssServer::SetBase(const std::string& sheetName) {
  zelvarpack::css::CssServerState& state = *state_;
  state.canResolve = false;
  state.baseUrl.clear();
  if (StartsWithIgnoringCase(sheetName, "http:") || StartsWithIgnoringCase(sheetName, "https:")) {
    state.baseUrl = sheetName;
  }
  if (state.baseUrl.empty()) return;
  // Split: no query; the scheme before "://"; the host up to the next "/";
  // the directory up to the last "/". A base without "://" resolves nothing.
  const std::string base = state.baseUrl.substr(0, state.baseUrl.find('?'));
  const std::size_t separator = base.find("://");
  if (separator == std::string::npos) return;
  state.baseScheme = base.substr(0, separator);
  const std::size_t hostStart = separator + 3;
  const std::size_t pathStart = base.find('/', hostStart);
  state.basePrefix = base.substr(0, pathStart);
  if (pathStart == std::string::npos) {
    state.basePrefix += '/';
  } else {
    state.basePrefix += base.substr(pathStart, base.rfind('/') - pathStart + 1);
  }
  state.canResolve = true;
}

void CZelvarCssServer::WriteAddress(const CssText& address) {
  const zelvarpack::css::CssServerState& state = *state_;
  // Absolute and root-relative addresses still reach the same resources from
  // the handler URL; scheme-relative ones get the sheet's scheme and relative
  // ones the sheet's folder. The comparisons are case-sensitive on purpose.
  if (!state.canResolve || StartsWith(address, "data:") || StartsWith(address, "http://") ||
      StartsWith(address, "https://")) {
    Write(address);
  } else if (StartsWith(address, "//")) {
    Write(state.baseScheme.data(), state.baseScheme.size());
    Write(":", 1);
    Write(address);
  } else if (StartsWith(address, "/")) {
    Write(address);
  } else {
    Write(state.basePrefix.data(), state.basePrefix.size());
    Write(address);
  }
}

void CZelvarCssServer::OnUrl(CssQuotedText* url) {
  ClearFlags();
  const char* quote = url->quote == CssQuotedText::kDouble   ? "\""
                      : url->quote == CssQuotedText::kSingle ? "'"
                                                             : "";
  const std::size_t quoteLength = url->quote == CssQuotedText::kUnquoted ? 0 : 1;
  Write("url(", 4);
  Write(quote, quoteLength);
  WriteAddress(url->text);
  Write(quote, quoteLength);
  Write(")", 1);
  ClearFlags();
}
