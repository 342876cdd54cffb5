// CHtmlConstructor sits between the tokenizer and one page consumer: it
// forwards every token to the consumer's OnTag / OnDoctype / OnText, switches
// the tokenizer into RCDATA, RAWTEXT, script data or PLAINTEXT after the start
// tags that need it, and decides quirks mode from the DOCTYPE. It builds no
// tree. Not thread-safe: one page, one thread.
#ifndef ZELVARPACK_HTML_HTML_CONSTRUCTOR_H_
#define ZELVARPACK_HTML_HTML_CONSTRUCTOR_H_

#include "html/html_tokenizer.h"
#include "zelvarpack/html_events.h"

class CHtmlConstructor : public CHtmlTokenizerEvents {
 public:
  // REQUIRES: events outlives the constructor.
  explicit CHtmlConstructor(CHtmlConstructorEvents* events);
  ~CHtmlConstructor() override;
  CHtmlConstructor(const CHtmlConstructor&) = delete;
  CHtmlConstructor& operator=(const CHtmlConstructor&) = delete;

  void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override;
  void OnCharacter(HtmlTextToken* text) override {
    if (events != nullptr) events->OnText(text);
  }
  // Runs of text go to the consumer's OnTextRun, whose base operation hands
  // them on byte by byte.
  bool TakesCharacterRuns() const override { return true; }
  void OnCharacters(HtmlTextToken* text, const unsigned char* bytes, std::size_t count) override {
    if (events != nullptr) events->OnTextRun(text, bytes, count);
  }

  HtmlTokenizer* Tokenizer() { return tokenizer; }

  CHtmlConstructorEvents* events;
  // 1 until a DOCTYPE decides otherwise.
  unsigned char quirksMode = 1;
  HtmlTokenizer* tokenizer;

 private:
  void DecideQuirksMode(const HtmlDoctypeToken& doctype);
};

#endif  // ZELVARPACK_HTML_HTML_CONSTRUCTOR_H_
