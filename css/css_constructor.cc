#include "css/css_constructor.h"

CCssConstructor::CCssConstructor(CCssConstructorEvents* events)
    : events(events), tokenizer(new CCssTokenizer) {
  tokenizer->events = this;
}

CCssConstructor::~CCssConstructor() {
  tokenizer->events = nullptr;
  delete tokenizer;
}

void CCssConstructor::OnToken(CssText* ident, CssText* function, CssText* atKeyword, CssText* hash,
                              CssQuotedText* string, void* badString, CssQuotedText* url,
                              void* badUrl, CssText* delim, CssText* number, CssText* percentage,
                              CssTextPair* dimension, CssTextPair* unicodeRange, void* whitespace,
                              void* comment, void* cdo, void* cdc, void* colon, void* semicolon,
                              void* openBracket, void* closeBracket, void* openParen,
                              void* closeParen, void* openBrace, void* closeBrace) {
  CCssConstructorEvents* receiver = events;
  if (receiver == nullptr) return;
  if (ident != nullptr) return receiver->OnIdent(ident);
  if (function != nullptr) return receiver->OnFunction(function);
  if (atKeyword != nullptr) return receiver->OnAtKeyword(atKeyword);
  if (hash != nullptr) return receiver->OnHash(hash);
  if (string != nullptr) return receiver->OnString(string);
  if (badString != nullptr) return receiver->OnBadString(badString);
  if (url != nullptr) return receiver->OnUrl(url);
  if (badUrl != nullptr) return receiver->OnBadUrl(badUrl);
  if (delim != nullptr) return receiver->OnDelim(delim);
  if (number != nullptr) return receiver->OnNumber(number);
  if (percentage != nullptr) return receiver->OnPercentage(percentage);
  if (dimension != nullptr) return receiver->OnDimension(dimension);
  if (unicodeRange != nullptr) return receiver->OnUnicodeRange(unicodeRange);
  if (whitespace != nullptr) return receiver->OnWhitespace(whitespace);
  if (comment != nullptr) return receiver->OnComment(comment);
  if (cdo != nullptr) return receiver->OnCdo(cdo);
  if (cdc != nullptr) return receiver->OnCdc(cdc);
  if (colon != nullptr) return receiver->OnColon(colon);
  if (semicolon != nullptr) return receiver->OnSemicolon(semicolon);
  if (openBracket != nullptr) return receiver->OnOpenBracket(openBracket);
  if (closeBracket != nullptr) return receiver->OnCloseBracket(closeBracket);
  if (openParen != nullptr) return receiver->OnOpenParen(openParen);
  if (closeParen != nullptr) return receiver->OnCloseParen(closeParen);
  if (openBrace != nullptr) return receiver->OnOpenBrace(openBrace);
  if (closeBrace != nullptr) return receiver->OnCloseBrace(closeBrace);
}
