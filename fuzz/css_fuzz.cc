// libFuzzer target: arbitrary bytes through the CSS tokenizer, the
// constructor, the minifier (CSS server, sheet named by an absolute or a
// relative address) and the style finder. Besides the sanitizers' checks it
// asserts the tokens' own invariants: exactly one argument per call, texts
// terminated and never longer than the input they came from, and every CR
// turned into LF.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "css/css_tokenizer.h"
#include "css/style_finder.h"
#include "zelvarpack/zelvar_css_server.h"

namespace {

class CheckingReceiver : public CCssTokenizerEvents {
 public:
  explicit CheckingReceiver(std::size_t inputSize) : limit_(static_cast<std::int32_t>(inputSize)) {}
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
    if (present != 1) std::abort();
    for (CssText* t : {ident, function, atKeyword, hash, delim, number, percentage}) {
      if (t != nullptr) Check(*t);
    }
    if (string != nullptr) Check(string->text);
    if (url != nullptr) {
      Check(url->text);
      if (url->quote > 2) std::abort();
    }
    if (delim != nullptr && delim->length != 1) std::abort();
    for (CssTextPair* pair : {dimension, unicodeRange}) {
      if (pair != nullptr) {
        Check(pair->first);
        Check(pair->second);
      }
    }
    if (unicodeRange != nullptr &&
        (unicodeRange->first.length > 6 || unicodeRange->second.length > 6)) {
      std::abort();
    }
  }

 private:
  void Check(const CssText& text) const {
    if (text.length < 0 || text.length > limit_ || text.length >= text.capacity ||
        text.data[text.length] != 0) {
      std::abort();
    }
  }
  std::int32_t limit_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (1u << 20)) return 0;
  std::vector<unsigned char> sheet(data, data + size);

  CheckingReceiver receiver(size);
  CCssTokenizer tokenizer;
  tokenizer.events = &receiver;
  tokenizer.Tokenize(sheet.data(), static_cast<std::int32_t>(sheet.size()));
  for (unsigned char c : sheet) {
    if (c == '\r') std::abort();
  }

  // The minifier, with url references resolved against an absolute sheet
  // name for odd first bytes.
  char cache[] = "/nonexistent-zelvarpack-fuzz";
  CZelvarCssServer server(cache);
  char absolute[] = "https://fuzz.test/a/b/sheet.css?v=1";
  char relative[] = "sheet.css";
  sheet.assign(data, data + size);
  server.AddWork(size > 0 && (data[0] & 1) ? absolute : relative, sheet.data(),
                 static_cast<std::int32_t>(sheet.size()));
  server.BeginInlineWork();
  server.AddInlineWork(sheet.data(), static_cast<std::int32_t>(sheet.size()));
  server.EndInlineWork();
  server.DoWork();
  CZelvarBuffer* output = server.GetOutput();
  if (output->GetValue()[output->GetValueLength()] != 0) std::abort();

  CStyleFinder finder;
  sheet.assign(data, data + size);
  finder.Find(sheet.data(), static_cast<std::int32_t>(sheet.size()));
  for (int slot = 0; slot < CStyleFinder::kSlotCount; ++slot) {
    if (finder.Value(static_cast<CStyleFinder::Slot>(slot))->GetValueLength() >
        static_cast<std::int32_t>(size)) {
      std::abort();
    }
  }
  return 0;
}
