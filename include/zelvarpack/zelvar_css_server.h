// CZelvarCssServer combines a group of stylesheets into one minified
// stylesheet and keeps it in the cache folder under a content identifier.
//
// Calling pattern: AddWork (and the inline-block operations) for each sheet,
// DoWork once, then GetMinifiedId() to store the result and learn its
// identifier; later GetMinifiedId(id, gzip) serves a stored sheet back,
// gzipped when the caller accepts gzip and that form is smaller.
//
// Minifying happens token by token in the event operations below (this class
// is the CSS constructor's receiver while DoWork runs): whitespace runs become
// one space, whitespace around punctuation and comments disappear, and url
// references are rewritten so that the combined sheet, served from a handler
// URL, still reaches the same resources.
//
// Files: cache/css/<id> and its gzip twin cache/css/<id>.g, written once;
// they appear whole under their final names. Any number of servers, in any
// number of threads or processes, may share one cache folder. One object is
// used by one thread at a time.
#ifndef ZELVARPACK_ZELVAR_CSS_SERVER_H_
#define ZELVARPACK_ZELVAR_CSS_SERVER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "zelvarpack/css_events.h"
#include "zelvarpack/export.h"
#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::css {
class OutputText;
struct CssServerState;
}  // namespace zelvarpack::css

class ZP_EXPORT CZelvarCssServer : public CCssConstructorEvents {
 public:
  // Copies `cacheDirectory`, the cache root (null counts as "").
  explicit CZelvarCssServer(char* cacheDirectory);
  ~CZelvarCssServer() override;
  CZelvarCssServer(const CZelvarCssServer&) = delete;
  CZelvarCssServer& operator=(const CZelvarCssServer&) = delete;

  // Adds one stylesheet (its bytes are copied) under `name`, normally its
  // resolved URL; url references in a sheet named by an absolute "http:" or
  // "https:" address are resolved against that address. A name that is
  // already present adds nothing. A null name counts as ""; a negative
  // length adds nothing.
  void AddWork(char* name, unsigned char* bytes, std::int32_t length);

  // An inline style block: Begin empties the block, Add appends text to it,
  // End adds it as a sheet named by the decimal count of sheets already held.
  void BeginInlineWork();
  void AddInlineWork(unsigned char* bytes, std::int32_t length);
  void EndInlineWork();

  // Switches the server to filter mode (one stylesheet response, output
  // served from memory, nothing written under cache/css) and keeps the
  // settings: the time-out for url downloads and, when not null or empty,
  // the server URL that sprite references start with.
  void SetIsFilter(std::int32_t timeoutSeconds, char* serverUrl);

  // Minifies the sheets, in the order they were added, into the output.
  void DoWork();

  // The identifier of the output: IdFromNumber of its collate hash. Unless in
  // filter mode, writes cache/css/<id> and cache/css/<id>.g when the sheet is
  // not stored yet; when a file of that name holds other bytes (the 32-bit
  // hash collides), the next candidate id is used instead. "" when the
  // sheet could not be stored.
  std::string GetMinifiedId();

  // A new buffer owned by the caller with the sheet stored under `id` (in
  // filter mode: the output held in memory), or null when there is none (and
  // for any `id` that is not a braced upper-case GUID, without looking at the
  // disk). On entry `gzip` says whether the caller accepts gzip. The gzip
  // form is returned when accepted and strictly smaller, and then the
  // was-gzip flag is set; `gzip` is cleared when the plain bytes are returned
  // although a gzip form existed. A missing gzip file leaves `gzip` as it
  // was: rely on GetWasGzip().
  CZelvarBuffer* GetMinifiedId(std::string id, bool& gzip);

  // True once GetMinifiedId(id, gzip) has returned a gzip form; never cleared.
  bool GetWasGzip() const { return wasGzip_ != 0; }

  // The combined minified output of the last DoWork; owned by the server.
  CZelvarBuffer* GetOutput() { return output_.get(); }

  std::int32_t GetSheetCount() const;

  // The minifier: each token of the sheet being tokenized, written in
  // minified form to the current output text.
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
  // Writes a piece to the output text and, while capturing, to the capture
  // text.
  void Write(const unsigned char* bytes, std::size_t count);
  void Write(const char* text, std::size_t count);
  void Write(const CssText& text);
  // Takes back the space the last whitespace token wrote, if it was the last
  // thing written.
  void DropTrailingSpace();
  // The common end of a handler: no space is pending or suppressed, and the
  // last token was not an at-keyword.
  void ClearFlags() {
    suppressSpace_ = 0;
    trailingSpace_ = 0;
    afterAtKeyword_ = 0;
  }
  // Punctuation: drops the trailing space, writes `text`, suppresses the
  // whitespace that follows.
  void WritePunctuation(const char* text, std::size_t count);
  // Sets the base against which the url references of the next sheet are
  // resolved, from the sheet's name.
  void SetBase(const std::string& sheetName);
  void WriteAddress(const CssText& address);
  void AddSheet(std::string name, const unsigned char* bytes, std::int32_t length);
  void ResetMinifier();

  std::unique_ptr<zelvarpack::css::CssServerState> state_;
  std::unique_ptr<CZelvarBuffer> output_;
  // The current text entry's text, where the handlers write.
  zelvarpack::css::OutputText* text_ = nullptr;
  unsigned char suppressSpace_ = 0;
  unsigned char trailingSpace_ = 0;
  unsigned char afterAtKeyword_ = 0;
  unsigned char lastIdentWasBackground_ = 0;
  unsigned char capture_ = 0;
  unsigned char storeCapture_ = 0;
  unsigned char isFilter_ = 0;
  unsigned char wasGzip_ = 0;
};

#endif  // ZELVARPACK_ZELVAR_CSS_SERVER_H_
