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
  if (ident->EqualsIgnoringCase("background")) {
    hasBackground = 1;
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

void CStyleFinder::OnNumber(CssText* number) { TakeValue(*number); }

void CStyleFinder::OnDimension(CssTextPair* dimension) { TakeValue(dimension->first); }

void CStyleFinder::OnPercentage(CssText* number) {
  TakeValue(*number);
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
void CStyleFinder::OnDelim(CssText*) { ForgetPending(); }
void CStyleFinder::OnBadString(void*) { ForgetPending(); }
void CStyleFinder::OnString(CssQuotedText*) { ForgetPending(); }
void CStyleFinder::OnHash(CssText*) { ForgetPending(); }
void CStyleFinder::OnAtKeyword(CssText*) { ForgetPending(); }
void CStyleFinder::OnFunction(CssText*) { ForgetPending(); }
