#include "css/style_finder.h"

#include <cstring>

CStyleFinder::CStyleFinder() : constructor(new CCssConstructor(this)) {
  for (auto& value : values_) value = std::make_unique<CZelvarBuffer>();
}

CStyleFinder::~CStyleFinder() {
  constructor->events = nullptr;
  delete constructor;
}

void CStyleFinder::Find(unsigned char* bytes, std::int32_t length) {
  constructor->Tokenizer()->Tokenize(bytes, length);
}

void CStyleFinder::ForgetPending() { std::memset(pending, 0, sizeof pending); }

void CStyleFinder::TakeValue(const CssText& number) {
  for (int slot = 0; slot < kSlotCount; ++slot) {
    if (!pending[slot]) continue;
    // The slot keeps the last value; pending flags stay set.
    values_[slot] = std::make_unique<CZelvarBuffer>();
    values_[slot]->Append(number.data, number.length);
    return;
  }
}

void CStyleFinder::OnIdent(CssText* ident) {
  ForgetPending();
  if (background_ != kNone && functionDepth_ == 0) {
    BackgroundIdent(*ident);
    return;
  }
  if (ident->EqualsIgnoringCase("background")) {
    hasBackground = 1;
    background_ = kShorthand;
  } else if (ident->EqualsIgnoringCase("background-repeat")) {
    background_ = kRepeat;
  } else if (ident->EqualsIgnoringCase("background-position")) {
    background_ = kPosition;
  } else if (ident->EqualsIgnoringCase("background-size")) {
    hasBackgroundSize = 1;
  } else if (ident->EqualsIgnoringCase("background-image")) {
    hasBackgroundImage = 1;
  } else if (ident->EqualsIgnoringCase("height")) {
    pending[kHeight] = 1;
  } else if (ident->EqualsIgnoringCase("padding")) {
    pending[kPaddingBottom] = pending[kPaddingLeft] = pending[kPaddingRight] =
        pending[kPaddingTop] = 1;
  } else if (ident->EqualsIgnoringCase("padding-bottom")) {
    pending[kPaddingBottom] = 1;
  } else if (ident->EqualsIgnoringCase("padding-left")) {
    pending[kPaddingLeft] = 1;
  } else if (ident->EqualsIgnoringCase("padding-right")) {
    pending[kPaddingRight] = 1;
  } else if (ident->EqualsIgnoringCase("padding-top")) {
    pending[kPaddingTop] = 1;
  } else if (ident->EqualsIgnoringCase("width")) {
    pending[kWidth] = 1;
  }
}

void CStyleFinder::BackgroundIdent(const CssText& ident) {
  if (ident.EqualsIgnoringCase("no-repeat")) {
    noRepeat = 1;
  } else if (ident.EqualsIgnoringCase("repeat") || ident.EqualsIgnoringCase("repeat-x") ||
             ident.EqualsIgnoringCase("repeat-y") || ident.EqualsIgnoringCase("space") ||
             ident.EqualsIgnoringCase("round")) {
    repeats = 1;
  } else if (ident.EqualsIgnoringCase("right") || ident.EqualsIgnoringCase("center") ||
             ident.EqualsIgnoringCase("bottom")) {
    positionOffOrigin = 1;
  }
}

void CStyleFinder::BackgroundNumber(const CssText& number) {
  if (background_ == kNone || functionDepth_ > 0) return;
  for (std::int32_t i = 0; i < number.length; ++i) {
    const unsigned char c = number.data[i];
    if (c == 'e' || c == 'E') break;  // 0e5 is still 0
    if (c >= '1' && c <= '9') positionOffOrigin = 1;
  }
}

void CStyleFinder::OnNumber(CssText* number) {
  TakeValue(*number);
  BackgroundNumber(*number);
}

void CStyleFinder::OnDimension(CssTextPair* dimension) {
  if ((pending[kHeight] || pending[kWidth]) && !dimension->second.EqualsIgnoringCase("px")) {
    sizeNotInPixels = 1;
  }
  TakeValue(dimension->first);
  BackgroundNumber(dimension->first);
}

void CStyleFinder::OnPercentage(CssText* number) {
  TakeValue(*number);
  BackgroundNumber(*number);
  if (pending[kHeight] || pending[kWidth]) isPercentage = 1;
}

void CStyleFinder::OnUrl(CssQuotedText*) {
  hasUrl = 1;
  ForgetPending();
}

void CStyleFinder::OnBadUrl(void*) {
  hasUrl = 1;
  ForgetPending();
}

// Any other token that is not punctuation or whitespace ends the property.
void CStyleFinder::OnCdc(void*) { ForgetPending(); }
void CStyleFinder::OnCdo(void*) { ForgetPending(); }
void CStyleFinder::OnComment(void*) { ForgetPending(); }
void CStyleFinder::OnUnicodeRange(CssTextPair*) { ForgetPending(); }
void CStyleFinder::OnDelim(CssText* delim) {
  ForgetPending();
  if (background_ == kShorthand && functionDepth_ == 0 && delim->Equals("/")) {
    hasBackgroundSize = 1;
  }
}
void CStyleFinder::OnBadString(void*) { ForgetPending(); }
void CStyleFinder::OnString(CssQuotedText*) { ForgetPending(); }
void CStyleFinder::OnHash(CssText*) { ForgetPending(); }
void CStyleFinder::OnAtKeyword(CssText*) { ForgetPending(); }
void CStyleFinder::OnFunction(CssText*) {
  ForgetPending();
  ++functionDepth_;
}

void CStyleFinder::OnOpenParen(void*) { ++functionDepth_; }

void CStyleFinder::OnCloseParen(void*) {
  if (functionDepth_ > 0) --functionDepth_;
}

// The end of a declaration ends the background context; the six value slots
// are not touched.
void CStyleFinder::OnSemicolon(void*) {
  background_ = kNone;
  functionDepth_ = 0;
}
void CStyleFinder::OnOpenBrace(void* token) { OnSemicolon(token); }
void CStyleFinder::OnCloseBrace(void* token) { OnSemicolon(token); }
