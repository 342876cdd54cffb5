// HtmlTokenizer turns the bytes of an HTML page into tokens, following the
// tokenization chapter of the HTML standard (the edition with the script-data
// escape states and the CDATA section state), with these deliberate
// departures:
//   - no character references are decoded ("&amp;" arrives as five bytes);
//   - tag and attribute names keep their case;
//   - character data is delivered one byte per token;
//   - CR becomes LF in the caller's buffer, and a CR swallows every LF that
//     follows it.
//
// The tokenizer owns its token records and reuses them; a receiver borrows a
// record for one OnToken call. Not thread-safe: one page, one thread.
#ifndef ZELVARPACK_HTML_HTML_TOKENIZER_H_
#define ZELVARPACK_HTML_HTML_TOKENIZER_H_

#include <cstddef>
#include <cstdint>

#include "zelvarpack/html_events.h"

// Receives each token the moment it is complete. Exactly one of the three
// pointers is non-null.
class CHtmlTokenizerEvents {
 public:
  virtual ~CHtmlTokenizerEvents();
  virtual void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) = 0;
};

class HtmlTokenizer {
 public:
  // Values a receiver may write into `state` during OnToken; the new state
  // takes effect from the next input byte. The other states' values are
  // internal to the tokenizer.
  static constexpr std::uint32_t kRcdataState = 3;
  static constexpr std::uint32_t kRawtextState = 6;
  static constexpr std::uint32_t kScriptDataState = 8;
  static constexpr std::uint32_t kPlaintextState = 10;
  static constexpr std::uint32_t kAttributeValueDoubleQuotedState = 40;
  static constexpr std::uint32_t kDataState = 1;

  HtmlTokenizer();
  ~HtmlTokenizer();
  HtmlTokenizer(const HtmlTokenizer&) = delete;
  HtmlTokenizer& operator=(const HtmlTokenizer&) = delete;

  // Runs the machine over input[0, length), then takes the end-of-input
  // branch of the state it stands in. CRs in `input` are overwritten with LFs.
  // A negative length returns at once.
  void Tokenize(unsigned char* input, int length);

  // Sets the name used by the appropriate-end-tag test (as if a start tag of
  // that name had just been emitted).
  void SetLastStartTagName(const unsigned char* name, std::size_t length);

  std::uint32_t state;
  CHtmlTokenizerEvents* events = nullptr;
  // (further members are the implementation's)
};

#endif  // ZELVARPACK_HTML_HTML_TOKENIZER_H_
