// CCssConstructor sits between the CSS tokenizer and one stylesheet consumer:
// it hands every token on, unchanged and at once, to the consumer's matching
// CCssConstructorEvents operation. It builds no tree and keeps no parse
// state; consumers infer structure from the order of the calls. Not
// thread-safe: one stylesheet, one thread.
#ifndef ZELVARPACK_CSS_CSS_CONSTRUCTOR_H_
#define ZELVARPACK_CSS_CSS_CONSTRUCTOR_H_

#include "css/css_tokenizer.h"
#include "zelvarpack/css_events.h"

class CCssConstructor : public CCssTokenizerEvents {
 public:
  // Creates the tokenizer and registers itself as its receiver. `events` may
  // be null (tokens are then dropped) and may be changed later.
  explicit CCssConstructor(CCssConstructorEvents* events = nullptr);
  ~CCssConstructor() override;
  CCssConstructor(const CCssConstructor&) = delete;
  CCssConstructor& operator=(const CCssConstructor&) = delete;

  // Calls the operation of the first non-null argument; token argument n goes
  // to operation slot 26 - n.
  void OnToken(CssText* ident, CssText* function, CssText* atKeyword, CssText* hash,
               CssQuotedText* string, void* badString, CssQuotedText* url, void* badUrl,
               CssText* delim, CssText* number, CssText* percentage, CssTextPair* dimension,
               CssTextPair* unicodeRange, void* whitespace, void* comment, void* cdo, void* cdc,
               void* colon, void* semicolon, void* openBracket, void* closeBracket, void* openParen,
               void* closeParen, void* openBrace, void* closeBrace) override;

  CCssTokenizer* Tokenizer() { return tokenizer; }

  CCssConstructorEvents* events;
  CCssTokenizer* tokenizer;
};

#endif  // ZELVARPACK_CSS_CSS_CONSTRUCTOR_H_
