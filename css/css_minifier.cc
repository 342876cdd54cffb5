// The minifier's handlers. Three flags carry from token to token:
//
//   suppressSpace_  a whitespace token writes nothing (after punctuation);
//   trailingSpace_  the last byte written is a space written for whitespace,
//                   which punctuation takes back;
//   afterImport_    the last token was "@import", so a string is an address
//                   ("@import'a.css'", "@import "a.css"").
//
// Every handler ends with the flags cleared unless it says otherwise.
#include "css/css_minifier.h"

#include <cstring>
#include <memory>

#include "css/css_chars.h"

namespace zelvarpack::css {

namespace {

bool StartsWith(const CssText& text, const char* literal) {
  const std::size_t n = std::strlen(literal);
  return static_cast<std::size_t>(text.length) >= n && std::memcmp(text.data, literal, n) == 0;
}

// At-rules whose block holds rules rather than declarations.
bool HoldsRules(const CssText& name) {
  static constexpr const char* kNames[] = {
      "media",     "supports",          "document",       "-moz-document",
      "layer",     "container",         "scope",          "starting-style",
      "keyframes", "-webkit-keyframes", "-moz-keyframes", "-o-keyframes"};
  for (const char* n : kNames) {
    if (name.EqualsIgnoringCase(n)) return true;
  }
  return false;
}

}  // namespace

void CssMinifier::BeginSheet() {
  ClearFlags();
  afterGroup_ = 0;
  parenDepth_ = 0;
  varDepth_ = 0;
  capture_ = 0;
  storeCapture_ = 0;
  ruleUrls_ = 0;
  statement_ = kNoStatement;
  atRuleHoldsRules_ = false;
  blocks_.clear();
  state_.captureText.Clear();
  text_ = &state_.entries.back()->text;
}

void CssMinifier::DropTrailingSpace() {
  if (!trailingSpace_) return;
  text_->PopBack();
  if (capture_) state_.captureText.PopBack();
}

bool CssMinifier::InSelector() const {
  const Block block = blocks_.empty() ? kRules : blocks_.back();
  // A statement in a declaration block is a nested rule's selector when it
  // does not begin with a name ("&:hover", ".a :b").
  return block == kRules ? statement_ != kAtRule && statement_ != kCustomProperty
                         : statement_ == kOtherFirst;
}

void CssMinifier::WritePunctuation(const char* text, std::size_t count) {
  DropTrailingSpace();
  Write(text, count);
  ClearFlags();
  afterGroup_ = 0;
  suppressSpace_ = 1;
}

void CssMinifier::OnIdent(CssText* ident) {
  Begin(kIdentFirst);
  Write(*ident);
  ClearFlags();
  afterGroup_ = 0;
}

void CssMinifier::OnFunction(CssText* name) {
  Begin(kOtherFirst);
  ++parenDepth_;
  if (varDepth_ == 0 && name->EqualsIgnoringCase("var")) varDepth_ = parenDepth_;
  Write(*name);
  Write("(", 1);
  ClearFlags();  // a space after a function's "(" is kept
  afterGroup_ = 0;
}

void CssMinifier::OnAtKeyword(CssText* name) {
  if (statement_ == kNoStatement) atRuleHoldsRules_ = HoldsRules(*name);
  Begin(kAtRule);
  Write("@", 1);
  Write(*name);
  ClearFlags();
  afterGroup_ = 0;
  afterImport_ = name->EqualsIgnoringCase("import") ? 1 : 0;
}

void CssMinifier::OnHash(CssText* name) {
  Begin(kOtherFirst);
  Write("#", 1);
  Write(*name);
  ClearFlags();
  afterGroup_ = 0;
}

void CssMinifier::OnString(CssQuotedText* string) {
  Begin(kOtherFirst);
  const char quote = string->quote == CssQuotedText::kSingle ? '\'' : '"';
  Write(&quote, 1);
  if (afterImport_) {
    // The address of an import ("@import'a.css'", "@import "a.css""),
    // resolved like a url and still written as a string.
    Resolve(string->text, nullptr);
  } else {
    Write(string->text);
  }
  Write(&quote, 1);
  ClearFlags();
  afterGroup_ = 0;
}

// A percentage is completed by the "%" delim that the tokenizer sends after it.
void CssMinifier::OnNumber(CssText* number) {
  Begin(kOtherFirst);
  Write(*number);
  ClearFlags();
  afterGroup_ = 0;
}

void CssMinifier::OnPercentage(CssText* number) { OnNumber(number); }

void CssMinifier::OnDelim(CssText* delim) {
  // "--name" starts with a delim "-": a custom property, not a selector.
  Begin(delim->Equals("-") ? kCustomProperty : kOtherFirst);
  const unsigned char c = delim->length == 1 ? delim->data[0] : 0;
  // Spaces around "," say nothing (but a custom property keeps its value
  // as written); nor do those before "!" or around a selector's
  // combinators outside parentheses ("2n + 1" stays).
  const bool comma = c == ',' && statement_ != kCustomProperty && varDepth_ == 0;
  const bool combinator = (c == '>' || c == '+' || c == '~') && parenDepth_ == 0 && InSelector();
  if (comma || combinator || c == '!') DropTrailingSpace();
  Write(*delim);
  ClearFlags();
  afterGroup_ = 0;
  if (comma || combinator || c == '!') suppressSpace_ = 1;
}

void CssMinifier::OnDimension(CssTextPair* dimension) {
  Begin(kOtherFirst);
  Write(dimension->first);
  Write(dimension->second);
  ClearFlags();
  afterGroup_ = 0;
}

void CssMinifier::OnUnicodeRange(CssTextPair* range) {
  Begin(kOtherFirst);
  Write("U+", 2);
  Write(range->first);
  if (range->second.length > 0) {
    Write("-", 1);
    Write(range->second);
  }
  ClearFlags();
  afterGroup_ = 0;
}

void CssMinifier::OnWhitespace(void*) {
  if (suppressSpace_) return;
  Write(" ", 1);
  trailingSpace_ = 1;
  suppressSpace_ = 1;
}

// Comments vanish, apart from licence notices ("/*!"), which stay where they
// stood, each text once in the combined output. Clearing the flags means a
// space on each side of a comment may survive ("a /**/ b" keeps two).
void CssMinifier::OnComment(void* token) {
  const auto* text = static_cast<const CssText*>(token);
  if (text != nullptr && text->length > 0 &&
      licences_.emplace(reinterpret_cast<const char*>(text->data), text->length).second) {
    Write("/*", 2);
    Write(*text);
    Write("*/", 2);
  }
  const unsigned char afterImport = afterImport_;
  ClearFlags();
  afterImport_ = afterImport;  // "@import /**/ 'a.css'" is still an import
}

void CssMinifier::OnBadString(void*) { ClearFlags(); }
void CssMinifier::OnBadUrl(void*) { ClearFlags(); }

// In a selector, a space before ":" or "[" is a descendant combinator and is
// kept; elsewhere ("color : red", "(max-width : 10px)") it goes.
void CssMinifier::OnColon(void*) {
  if (trailingSpace_ && InSelector()) trailingSpace_ = 0;
  Begin(kOtherFirst);
  WritePunctuation(":", 1);
}

void CssMinifier::OnOpenBracket(void*) {
  if (trailingSpace_ && InSelector()) trailingSpace_ = 0;
  Begin(kOtherFirst);
  WritePunctuation("[", 1);
}

void CssMinifier::OnSemicolon(void*) {
  WritePunctuation(";", 1);
  statement_ = kNoStatement;
  parenDepth_ = 0;
  varDepth_ = 0;
}

void CssMinifier::OnCdo(void*) { WritePunctuation("<!--", 4); }
void CssMinifier::OnCdc(void*) { WritePunctuation("-->", 3); }

// After ")" and "]" a space is kept unless punctuation follows: it separates
// tokens in "calc((1px) + 2px)", "url(a) no-repeat", ":not(.a) .b", "[x] a".
void CssMinifier::OnCloseParen(void*) {
  if (parenDepth_ > 0) --parenDepth_;
  if (parenDepth_ < varDepth_) varDepth_ = 0;
  WritePunctuation(")", 1);
  suppressSpace_ = 0;
  afterGroup_ = 1;
}

void CssMinifier::OnCloseBracket(void*) {
  WritePunctuation("]", 1);
  suppressSpace_ = 0;
  afterGroup_ = 1;
}

// A space before "(" is kept, so "and (max-width...)" keeps its space.
void CssMinifier::OnOpenParen(void*) {
  Begin(kOtherFirst);
  ++parenDepth_;
  Write("(", 1);
  ClearFlags();
  afterGroup_ = 0;
  suppressSpace_ = 1;
}

void CssMinifier::OnOpenBrace(void*) {
  const Block context = blocks_.empty() ? kRules : blocks_.back();
  Block block = kDeclarations;
  if (statement_ == kAtRule && atRuleHoldsRules_ && context == kRules) block = kRules;
  // A hostile sheet may nest without end: the stack grows with the input
  // only, by one byte per "{".
  blocks_.push_back(block);
  statement_ = kNoStatement;
  parenDepth_ = 0;
  varDepth_ = 0;
  WritePunctuation("{", 1);
  // The declarations of the rule are captured for the sprite pass of filter
  // mode, which reads a background image's size and padding from them.
  if (state_.isFilter) capture_ = 1;
  state_.captureText.Clear();
  ruleUrls_ = 0;
}

void CssMinifier::OnCloseBrace(void*) {
  DropTrailingSpace();
  if (storeCapture_) {
    // The rule's declarations, without braces, stay with its url entry, and
    // a geometry entry before the "}" writes the sprite's position and size.
    auto& entries = state_.entries;
    CssOutputEntry* url = nullptr;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
      if ((*it)->kind != CssOutputEntry::kUrl) continue;
      if ((*it)->ruleClosed) break;  // an inner rule's
      url = it->get();
      url->ruleClosed = true;
      url->declarations.assign(reinterpret_cast<const char*>(state_.captureText.data()),
                               state_.captureText.size());
      url->spriteable = url->spriteable && ruleUrls_ == 1;
    }
    if (url != nullptr && url->spriteable) {
      auto geometry = std::make_shared<CssOutputEntry>(CssOutputEntry::kGeometry);
      geometry->of = url;
      entries.push_back(std::move(geometry));
      entries.push_back(std::make_shared<CssOutputEntry>(CssOutputEntry::kText));
      text_ = &entries.back()->text;
    }
  }
  text_->Append('}');  // never captured
  ClearFlags();
  afterGroup_ = 0;
  suppressSpace_ = 1;
  if (!blocks_.empty()) blocks_.pop_back();
  statement_ = kNoStatement;
  parenDepth_ = 0;
  varDepth_ = 0;
  storeCapture_ = 0;
  capture_ = 0;
  ruleUrls_ = 0;
  state_.captureText.Clear();
}

// ---------------------------------------------------------------------------
// Url references

void CssMinifier::Resolve(const CssText& address, std::string* out) {
  auto put = [&](const char* bytes, std::size_t count) {
    if (out != nullptr) {
      out->append(bytes, count);
    } else {
      Write(bytes, count);
    }
  };
  auto putText = [&](const CssText& text) {
    put(reinterpret_cast<const char*>(text.data), static_cast<std::size_t>(text.length));
  };
  // Absolute addresses stay; the others are resolved against the sheet's
  // address, keeping its scheme, so that the combined sheet, served from a
  // handler URL, still reaches the same resources. The comparisons are
  // case-sensitive on purpose.
  if (!state_.canResolve || StartsWith(address, "data:") || StartsWith(address, "http://") ||
      StartsWith(address, "https://") || (address.length > 0 && address.data[0] == '#')) {
    putText(address);
  } else if (StartsWith(address, "//")) {
    put(state_.baseScheme.data(), state_.baseScheme.size());
    put(":", 1);
    putText(address);
  } else if (StartsWith(address, "/")) {
    put(state_.baseOrigin.data(), state_.baseOrigin.size());
    putText(address);
  } else {
    put(state_.basePrefix.data(), state_.basePrefix.size());
    putText(address);
  }
}

void CssMinifier::OnUrl(CssQuotedText* url) {
  Begin(kOtherFirst);
  ClearFlags();
  afterGroup_ = 0;
  const char* quote = url->quote == CssQuotedText::kDouble   ? "\""
                      : url->quote == CssQuotedText::kSingle ? "'"
                                                             : "";
  const std::size_t quoteLength = url->quote == CssQuotedText::kUnquoted ? 0 : 1;
  if (state_.isFilter && capture_) {
    // A reference that can be downloaded becomes a url entry of its own,
    // which the sprite pass may point at a sheet of images.
    std::string address;
    Resolve(url->text, &address);
    const bool http =
        address.compare(0, 7, "http://") == 0 || address.compare(0, 8, "https://") == 0;
    if (http && address.find('\\') == std::string::npos) {
      auto entry = std::make_shared<CssOutputEntry>(CssOutputEntry::kUrl);
      entry->quote = static_cast<unsigned char>(quoteLength != 0 ? quote[0] : 0);
      entry->address = std::move(address);
      // The capture holds the reference too, for the style finder.
      state_.captureText.Append(reinterpret_cast<const unsigned char*>("url()"), 5);
      state_.entries.push_back(std::move(entry));
      state_.entries.push_back(std::make_shared<CssOutputEntry>(CssOutputEntry::kText));
      text_ = &state_.entries.back()->text;
      storeCapture_ = 1;
      ++ruleUrls_;
      return;
    }
  }
  if (state_.isFilter) ++ruleUrls_;
  Write("url(", 4);
  Write(quote, quoteLength);
  Resolve(url->text, nullptr);
  Write(quote, quoteLength);
  Write(")", 1);
}

}  // namespace zelvarpack::css
