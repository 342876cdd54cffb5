// CStyleFinder reads a short piece of CSS (the declarations of one rule, or an
// inline style attribute) and records what the sprite logic needs: whether a
// background is declared, whether an image address occurs, and the number
// given last for height, width and the four paddings.
//
// Value rules, kept as they are on purpose: a property name makes its value
// slot pending until any token other than punctuation or whitespace ends it;
// every number, dimension or percentage while pending replaces the slot's
// text with its number part (units dropped), so the last value of a
// shorthand wins, and "padding" fills padding-bottom only. A function
// (calc(...)) ends the pending property.
//
// For the sprite logic it also reads the background's repeat and position:
// "no-repeat" or "repeat", "repeat-x", "repeat-y", "space", "round" in the
// "background" shorthand or in "background-repeat", and any position other
// than the origin (a non-zero number, "right", "center", "bottom") in the
// shorthand or in "background-position"; values inside functions (colours)
// are not positions. A "background-size" or a "/" in the shorthand counts
// as a size. These last until the ";" that ends the declaration.
//
// Not thread-safe: one finder, one thread.
#ifndef ZELVARPACK_CSS_STYLE_FINDER_H_
#define ZELVARPACK_CSS_STYLE_FINDER_H_

#include <cstdint>
#include <memory>

#include "css/css_constructor.h"
#include "zelvarpack/css_events.h"
#include "zelvarpack/zelvar_buffer.h"

class CStyleFinder : public CCssConstructorEvents {
 public:
  // The value slots, in the order in which a pending one is chosen.
  enum Slot { kHeight = 0, kPaddingBottom, kPaddingLeft, kPaddingRight, kPaddingTop, kWidth };
  static constexpr int kSlotCount = 6;

  CStyleFinder();
  ~CStyleFinder() override;
  CStyleFinder(const CStyleFinder&) = delete;
  CStyleFinder& operator=(const CStyleFinder&) = delete;

  // Tokenizes `bytes` into this finder (CRs become LFs in place). Results
  // accumulate over calls.
  void Find(unsigned char* bytes, std::int32_t length);

  // The number text of the last value of `slot`; empty when none was given.
  CZelvarBuffer* Value(Slot slot) { return values_[slot].get(); }

  void OnIdent(CssText* ident) override;
  void OnNumber(CssText* number) override;
  void OnDimension(CssTextPair* dimension) override;
  void OnPercentage(CssText* number) override;
  void OnUrl(CssQuotedText* url) override;
  void OnBadUrl(void* token) override;
  void OnCdc(void* token) override;
  void OnCdo(void* token) override;
  void OnComment(void* token) override;
  void OnUnicodeRange(CssTextPair* range) override;
  void OnDelim(CssText* delim) override;
  void OnBadString(void* token) override;
  void OnString(CssQuotedText* string) override;
  void OnHash(CssText* name) override;
  void OnAtKeyword(CssText* name) override;
  void OnFunction(CssText* name) override;
  void OnSemicolon(void* token) override;
  void OnOpenBrace(void* token) override;
  void OnCloseBrace(void* token) override;
  void OnOpenParen(void* token) override;
  void OnCloseParen(void* token) override;

  unsigned char hasBackground = 0;
  unsigned char hasBackgroundImage = 0;
  CCssConstructor* constructor;
  unsigned char pending[kSlotCount] = {};
  unsigned char isPercentage = 0;
  unsigned char hasUrl = 0;
  // The background's repeat, position and size, as described above.
  unsigned char noRepeat = 0;
  unsigned char repeats = 0;
  unsigned char positionOffOrigin = 0;
  unsigned char hasBackgroundSize = 0;
  // A height or width given in a unit other than px.
  unsigned char sizeNotInPixels = 0;

 private:
  // The background declaration being read, if any.
  enum Background : unsigned char { kNone, kShorthand, kRepeat, kPosition };

  void ForgetPending();
  void TakeValue(const CssText& number);
  void BackgroundIdent(const CssText& ident);
  void BackgroundNumber(const CssText& number);

  Background background_ = kNone;
  std::int32_t functionDepth_ = 0;

  std::unique_ptr<CZelvarBuffer> values_[kSlotCount];
};

#endif  // ZELVARPACK_CSS_STYLE_FINDER_H_
