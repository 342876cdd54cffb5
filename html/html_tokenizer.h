// HtmlTokenizer turns the bytes of an HTML page into tokens, following the
// tokenization chapter of the HTML standard (the edition with the script-data
// escape states and the CDATA section state), with these deliberate
// departures:
//   - no character references are decoded ("&amp;" arrives as five bytes);
//   - tag and attribute names keep their case;
//   - character data is delivered one byte per token, or as runs of bytes to
//     a receiver that takes them (OnCharacters);
//   - CR becomes LF in the caller's buffer, and a CR swallows every LF that
//     follows it.
//
// The tokenizer owns its token records and reuses them; a receiver borrows a
// record for one OnToken call. Not thread-safe: one page, one thread.
#ifndef ZELVARPACK_HTML_HTML_TOKENIZER_H_
#define ZELVARPACK_HTML_HTML_TOKENIZER_H_

#include <cstddef>
#include <cstdint>

#include "html/ascii.h"
#include "zelvarpack/html_events.h"

// Receives each token the moment it is complete. Exactly one of the three
// pointers is non-null.
class CHtmlTokenizerEvents {
 public:
  virtual ~CHtmlTokenizerEvents();
  virtual void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) = 0;
  // One byte of character data: the hottest event, so a receiver may take it
  // without the three-way test. Same meaning as OnToken(text, null, null).
  virtual void OnCharacter(HtmlTextToken* text) { OnToken(text, nullptr, nullptr); }
  // True for a receiver that takes runs of character data through
  // OnCharacters. Asked once per Tokenize call; the others get every byte
  // through OnCharacter, and a state they write in the middle of a run of
  // text takes effect from the next byte.
  virtual bool TakesCharacterRuns() const { return false; }
  // A run of `count` (>= 1) bytes of character data, with the meaning of one
  // OnCharacter per byte with `text` (the one-byte character record) holding
  // that byte. A state written during a run takes effect after the run.
  virtual void OnCharacters(HtmlTextToken* text, const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      text->text.data[0] = bytes[i];
      OnCharacter(text);
    }
  }
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

 private:
  // The remaining states, named after the standard's headings.
  static constexpr std::uint32_t kCharacterReferenceInDataState = 2;
  static constexpr std::uint32_t kCharacterReferenceInRcdataState = 4;
  static constexpr std::uint32_t kRcdataLessThanSignState = 5;
  static constexpr std::uint32_t kRawtextLessThanSignState = 7;
  static constexpr std::uint32_t kScriptDataLessThanSignState = 9;
  static constexpr std::uint32_t kTagOpenState = 11;
  static constexpr std::uint32_t kEndTagOpenState = 12;
  static constexpr std::uint32_t kTagNameState = 13;
  static constexpr std::uint32_t kRcdataEndTagOpenState = 14;
  static constexpr std::uint32_t kRcdataEndTagNameState = 15;
  static constexpr std::uint32_t kRawtextEndTagOpenState = 16;
  static constexpr std::uint32_t kRawtextEndTagNameState = 17;
  static constexpr std::uint32_t kScriptDataEndTagOpenState = 18;
  static constexpr std::uint32_t kScriptDataEndTagNameState = 19;
  static constexpr std::uint32_t kScriptDataEscapeStartState = 20;
  static constexpr std::uint32_t kScriptDataEscapeStartDashState = 21;
  static constexpr std::uint32_t kScriptDataEscapedState = 22;
  static constexpr std::uint32_t kScriptDataEscapedDashState = 23;
  static constexpr std::uint32_t kScriptDataEscapedDashDashState = 24;
  static constexpr std::uint32_t kScriptDataEscapedLessThanSignState = 25;
  static constexpr std::uint32_t kScriptDataEscapedEndTagOpenState = 26;
  static constexpr std::uint32_t kScriptDataEscapedEndTagNameState = 27;
  static constexpr std::uint32_t kScriptDataDoubleEscapeStartState = 28;
  static constexpr std::uint32_t kScriptDataDoubleEscapedState = 29;
  static constexpr std::uint32_t kScriptDataDoubleEscapedDashState = 30;
  static constexpr std::uint32_t kScriptDataDoubleEscapedDashDashState = 31;
  static constexpr std::uint32_t kScriptDataDoubleEscapedLessThanSignState = 32;
  static constexpr std::uint32_t kScriptDataDoubleEscapeEndState = 33;
  static constexpr std::uint32_t kBeforeAttributeNameState = 34;
  static constexpr std::uint32_t kAttributeNameState = 35;
  static constexpr std::uint32_t kAfterAttributeNameState = 36;
  static constexpr std::uint32_t kBeforeAttributeValueState = 37;
  static constexpr std::uint32_t kAttributeValueSingleQuotedState = 38;
  static constexpr std::uint32_t kAttributeValueUnquotedState = 39;
  // 40: kAttributeValueDoubleQuotedState (public).
  static constexpr std::uint32_t kCharacterReferenceInAttributeValueState = 41;
  static constexpr std::uint32_t kAfterAttributeValueQuotedState = 42;
  static constexpr std::uint32_t kSelfClosingStartTagState = 43;
  static constexpr std::uint32_t kBogusCommentState = 44;
  static constexpr std::uint32_t kMarkupDeclarationOpenState = 45;
  static constexpr std::uint32_t kCommentStartState = 46;
  static constexpr std::uint32_t kCommentStartDashState = 47;
  static constexpr std::uint32_t kCommentState = 48;
  static constexpr std::uint32_t kCommentEndDashState = 49;
  static constexpr std::uint32_t kCommentEndState = 50;
  static constexpr std::uint32_t kCommentEndBangState = 51;
  static constexpr std::uint32_t kDoctypeState = 52;
  static constexpr std::uint32_t kBeforeDoctypeNameState = 53;
  static constexpr std::uint32_t kDoctypeNameState = 54;
  static constexpr std::uint32_t kAfterDoctypeNameState = 55;
  static constexpr std::uint32_t kAfterDoctypePublicKeywordState = 56;
  static constexpr std::uint32_t kBeforeDoctypePublicIdentifierState = 57;
  static constexpr std::uint32_t kDoctypePublicIdentifierDoubleQuotedState = 58;
  static constexpr std::uint32_t kDoctypePublicIdentifierSingleQuotedState = 59;
  static constexpr std::uint32_t kAfterDoctypePublicIdentifierState = 60;
  static constexpr std::uint32_t kBetweenDoctypePublicAndSystemIdentifiersState = 61;
  static constexpr std::uint32_t kAfterDoctypeSystemKeywordState = 62;
  static constexpr std::uint32_t kBeforeDoctypeSystemIdentifierState = 63;
  static constexpr std::uint32_t kDoctypeSystemIdentifierDoubleQuotedState = 64;
  static constexpr std::uint32_t kDoctypeSystemIdentifierSingleQuotedState = 65;
  static constexpr std::uint32_t kAfterDoctypeSystemIdentifierState = 66;
  static constexpr std::uint32_t kBogusDoctypeState = 67;
  static constexpr std::uint32_t kCdataSectionState = 68;
  // Value 0 is no state: a byte met in an unknown state is skipped.
  static constexpr std::uint32_t kStateCount = 69;

  // A state step handles the byte at `pos` (or the end of input when pos is
  // the input's length) and returns where the next step starts; states with
  // runs of ordinary bytes may handle many bytes in one step.
  using StateStep = std::size_t (*)(HtmlTokenizer& tokenizer, std::size_t pos);
  static const StateStep kStateSteps[kStateCount];
  template <std::size_t (HtmlTokenizer::*kStep)(std::size_t)>
  static std::size_t Step(HtmlTokenizer& tokenizer, std::size_t pos) {
    return (tokenizer.*kStep)(pos);
  }
  // Value 0 and values past the last state: the byte is skipped.
  std::size_t NoState(std::size_t pos) { return Next(pos); }

  // Carriage-return folding for the byte at `pos`, done exactly once per byte
  // reached: after a CR every LF is skipped, and a CR becomes an LF. Below
  // fold_at_ there is nothing to fold, which is the common case.
  std::size_t Fold(std::size_t pos) { return pos < fold_at_ ? pos : FoldSlow(pos); }
  std::size_t FoldSlow(std::size_t pos);
  // The end of the run that may start at `pos`: the input's end or the next
  // byte that folding must see, whichever comes first.
  std::size_t RunLimit() const { return fold_at_ < length_ ? fold_at_ : length_; }
  // The byte at `pos` is consumed: the next step starts after it.
  std::size_t Next(std::size_t pos) { return Fold(pos + 1); }
  // The byte at `pos` is handled again, in the state just set. Like every
  // byte reached, it is folded again: a reconsumed LF that came from a CR is
  // skipped as one of the LFs following that CR.
  std::size_t Reconsume(std::size_t pos) { return Fold(pos); }
  bool AtEnd(std::size_t pos) const { return pos >= length_; }

  // Appends the run of ordinary bytes from `pos` to `out` and returns the
  // (folded) position of the first stop byte: NUL, A or B (AppendRun), or
  // whitespace, a control byte, A, B or C (AppendNameRun). A run never
  // crosses a CR, and a pending CR fold makes it empty: the LFs after a CR
  // are skipped by the per-byte path.
  template <unsigned char A, unsigned char B>
  std::size_t AppendRun(std::size_t pos, HtmlString& out) {
    const std::size_t limit = RunLimit();
    if (pos >= limit) return pos;
    return AppendTo(pos, zelvarpack::html::FindNulOr<A, B>(input_ + pos, input_ + limit), out);
  }
  template <unsigned char A, unsigned char B, unsigned char C>
  std::size_t AppendNameRun(std::size_t pos, HtmlString& out) {
    const std::size_t limit = RunLimit();
    if (pos >= limit) return pos;
    return AppendTo(pos, zelvarpack::html::FindSpaceOr<A, B, C>(input_ + pos, input_ + limit), out);
  }
  std::size_t AppendTo(std::size_t pos, const unsigned char* end, HtmlString& out) {
    const std::size_t count = static_cast<std::size_t>(end - (input_ + pos));
    if (count == 0) return pos;
    zelvarpack::html::AppendBytes(out, input_ + pos, count);
    return Fold(pos + count);
  }
  // Emits the run of text bytes from `pos` up to the first NUL, A or B as
  // one OnCharacters event, and returns the (folded) position of that stop
  // byte; `pos` itself when the run is empty, a CR fold is pending or the
  // receiver takes no runs.
  template <unsigned char A, unsigned char B>
  std::size_t EmitTextRun(std::size_t pos) {
    const std::size_t limit = RunLimit();
    if (pos >= limit || !character_runs_) return pos;
    const unsigned char* end = zelvarpack::html::FindNulOr<A, B>(input_ + pos, input_ + limit);
    const std::size_t count = static_cast<std::size_t>(end - (input_ + pos));
    if (count == 0) return pos;
    if (events != nullptr) events->OnCharacters(&character_, input_ + pos, count);
    return Fold(pos + count);
  }
  bool Lookahead(std::size_t pos, const char* literal, std::size_t n) const;
  bool LookaheadIgnoringCase(std::size_t pos, const char* literal, std::size_t n) const;

  void EmitCharacter(unsigned char c);
  // NUL in the text states other than data: the standard's replacement
  // character becomes a token with an empty text.
  void EmitReplacementCharacter();
  void EmitTextByte(unsigned char c) {
    if (c == 0) {
      EmitReplacementCharacter();
    } else {
      EmitCharacter(c);
    }
  }
  void EmitTag();
  void EmitComment();
  void EmitDoctype();
  void EmitCdata();
  void StartTag(HtmlTagToken::Kind kind, unsigned char first);
  void StartComment();
  HtmlAttribute* CurrentAttribute();
  bool IsAppropriateEndTag() const;
  bool CdataSectionAllowed() const;

  // Shared bodies of the RCDATA, RAWTEXT, script-data and script-data-escaped
  // variants of the same state.
  std::size_t TextLessThanSign(std::size_t pos, std::uint32_t text_state,
                               std::uint32_t end_tag_open_state);
  std::size_t TextEndTagOpen(std::size_t pos, std::uint32_t text_state,
                             std::uint32_t end_tag_name_state);
  std::size_t TextEndTagName(std::size_t pos, std::uint32_t text_state);
  template <unsigned char kQuote>
  std::size_t AttributeValueQuoted(std::size_t pos);
  std::size_t DoctypeIdentifierQuoted(std::size_t pos, HtmlString& identifier, unsigned char quote,
                                      std::uint32_t after_state);
  std::size_t BeforeDoctypeIdentifier(std::size_t pos, HtmlString& identifier,
                                      std::uint32_t double_quoted_state,
                                      std::uint32_t single_quoted_state, bool skip_space,
                                      std::uint32_t space_state);

  std::size_t DataState(std::size_t pos);
  std::size_t CharacterReferenceInDataState(std::size_t pos);
  std::size_t RcdataState(std::size_t pos);
  std::size_t CharacterReferenceInRcdataState(std::size_t pos);
  std::size_t RawtextState(std::size_t pos);
  std::size_t ScriptDataState(std::size_t pos);
  std::size_t PlaintextState(std::size_t pos);
  std::size_t TagOpenState(std::size_t pos);
  std::size_t EndTagOpenState(std::size_t pos);
  std::size_t TagNameState(std::size_t pos);
  std::size_t RcdataLessThanSignState(std::size_t pos);
  std::size_t RcdataEndTagOpenState(std::size_t pos);
  std::size_t RcdataEndTagNameState(std::size_t pos);
  std::size_t RawtextLessThanSignState(std::size_t pos);
  std::size_t RawtextEndTagOpenState(std::size_t pos);
  std::size_t RawtextEndTagNameState(std::size_t pos);
  std::size_t ScriptDataLessThanSignState(std::size_t pos);
  std::size_t ScriptDataEndTagOpenState(std::size_t pos);
  std::size_t ScriptDataEndTagNameState(std::size_t pos);
  std::size_t ScriptDataEscapeStartState(std::size_t pos);
  std::size_t ScriptDataEscapeStartDashState(std::size_t pos);
  std::size_t ScriptDataEscapedState(std::size_t pos);
  std::size_t ScriptDataEscapedDashState(std::size_t pos);
  std::size_t ScriptDataEscapedDashDashState(std::size_t pos);
  std::size_t ScriptDataEscapedLessThanSignState(std::size_t pos);
  std::size_t ScriptDataEscapedEndTagOpenState(std::size_t pos);
  std::size_t ScriptDataEscapedEndTagNameState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapeStartState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapedState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapedDashState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapedDashDashState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapedLessThanSignState(std::size_t pos);
  std::size_t ScriptDataDoubleEscapeEndState(std::size_t pos);
  std::size_t BeforeAttributeNameState(std::size_t pos);
  std::size_t AttributeNameState(std::size_t pos);
  std::size_t AfterAttributeNameState(std::size_t pos);
  std::size_t BeforeAttributeValueState(std::size_t pos);
  std::size_t AttributeValueDoubleQuotedState(std::size_t pos);
  std::size_t AttributeValueSingleQuotedState(std::size_t pos);
  std::size_t AttributeValueUnquotedState(std::size_t pos);
  std::size_t CharacterReferenceInAttributeValueState(std::size_t pos);
  std::size_t AfterAttributeValueQuotedState(std::size_t pos);
  std::size_t SelfClosingStartTagState(std::size_t pos);
  std::size_t BogusCommentState(std::size_t pos);
  std::size_t MarkupDeclarationOpenState(std::size_t pos);
  std::size_t CommentStartState(std::size_t pos);
  std::size_t CommentStartDashState(std::size_t pos);
  std::size_t CommentState(std::size_t pos);
  std::size_t CommentEndDashState(std::size_t pos);
  std::size_t CommentEndState(std::size_t pos);
  std::size_t CommentEndBangState(std::size_t pos);
  std::size_t DoctypeState(std::size_t pos);
  std::size_t BeforeDoctypeNameState(std::size_t pos);
  std::size_t DoctypeNameState(std::size_t pos);
  std::size_t AfterDoctypeNameState(std::size_t pos);
  std::size_t AfterDoctypePublicKeywordState(std::size_t pos);
  std::size_t BeforeDoctypePublicIdentifierState(std::size_t pos);
  std::size_t DoctypePublicIdentifierDoubleQuotedState(std::size_t pos);
  std::size_t DoctypePublicIdentifierSingleQuotedState(std::size_t pos);
  std::size_t AfterDoctypePublicIdentifierState(std::size_t pos);
  std::size_t BetweenDoctypePublicAndSystemIdentifiersState(std::size_t pos);
  std::size_t AfterDoctypeSystemKeywordState(std::size_t pos);
  std::size_t BeforeDoctypeSystemIdentifierState(std::size_t pos);
  std::size_t DoctypeSystemIdentifierDoubleQuotedState(std::size_t pos);
  std::size_t DoctypeSystemIdentifierSingleQuotedState(std::size_t pos);
  std::size_t AfterDoctypeSystemIdentifierState(std::size_t pos);
  std::size_t BogusDoctypeState(std::size_t pos);
  std::size_t CdataSectionState(std::size_t pos);

  // The input of the running Tokenize call.
  unsigned char* input_ = nullptr;
  std::size_t length_ = 0;
  // The receiver takes runs of character data (asked when Tokenize starts).
  bool character_runs_ = false;
  // The byte just reached was a CR (now an LF); the LFs after it are skipped.
  bool last_was_cr_ = false;
  // Positions below this hold no CR and follow no CR: Fold has nothing to do
  // there. 0 while a CR's LFs are being skipped.
  std::size_t fold_at_ = 0;
  // The attribute-value state an ampersand in a value returns to.
  std::uint32_t return_state_ = kAttributeValueDoubleQuotedState;
  // A tag has been started; tag_.name is then the most recent tag's name.
  bool tag_seen_ = false;

  // Token records, reused from token to token.
  HtmlTextToken character_;        // one byte of character data
  HtmlTextToken empty_character_;  // a dropped NUL in the text states
  HtmlTextToken cdata_;            // a whole CDATA section
  HtmlTextToken comment_;
  HtmlTagToken tag_;
  HtmlDoctypeToken doctype_;
  HtmlString temporary_buffer_;
  // Name of the last start tag emitted that was not self-closing, for the
  // appropriate-end-tag test.
  HtmlString last_start_tag_;
};

#endif  // ZELVARPACK_HTML_HTML_TOKENIZER_H_
