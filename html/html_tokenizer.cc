#include "html/html_tokenizer.h"

#include <cstring>
#include <iterator>

#include "html/ascii.h"

using zelvarpack::html::EqualsIgnoringAsciiCase;
using zelvarpack::html::IsAsciiAlpha;
using zelvarpack::html::IsHtmlSpace;

CHtmlTokenizerEvents::~CHtmlTokenizerEvents() = default;

// Indexed by state value; entry 0 and the public states keep their values.
// Each entry is a plain function that calls one state step: an indirect call
// through it costs less than one through a pointer to member.
const HtmlTokenizer::StateStep HtmlTokenizer::kStateSteps[kStateCount] = {
    &HtmlTokenizer::Step<&HtmlTokenizer::NoState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DataState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CharacterReferenceInDataState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RcdataState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CharacterReferenceInRcdataState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RcdataLessThanSignState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RawtextState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RawtextLessThanSignState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataLessThanSignState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::PlaintextState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::TagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::EndTagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::TagNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RcdataEndTagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RcdataEndTagNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RawtextEndTagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::RawtextEndTagNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEndTagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEndTagNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapeStartState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapeStartDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedDashDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedLessThanSignState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedEndTagOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataEscapedEndTagNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapeStartState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapedDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapedDashDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapedLessThanSignState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::ScriptDataDoubleEscapeEndState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BeforeAttributeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AttributeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterAttributeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BeforeAttributeValueState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AttributeValueSingleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AttributeValueUnquotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AttributeValueDoubleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CharacterReferenceInAttributeValueState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterAttributeValueQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::SelfClosingStartTagState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BogusCommentState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::MarkupDeclarationOpenState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentStartState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentStartDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentEndDashState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentEndState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CommentEndBangState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypeState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BeforeDoctypeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterDoctypeNameState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterDoctypePublicKeywordState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BeforeDoctypePublicIdentifierState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypePublicIdentifierDoubleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypePublicIdentifierSingleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterDoctypePublicIdentifierState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BetweenDoctypePublicAndSystemIdentifiersState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterDoctypeSystemKeywordState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BeforeDoctypeSystemIdentifierState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypeSystemIdentifierDoubleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::DoctypeSystemIdentifierSingleQuotedState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::AfterDoctypeSystemIdentifierState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::BogusDoctypeState>,
    &HtmlTokenizer::Step<&HtmlTokenizer::CdataSectionState>,
};
HtmlTokenizer::HtmlTokenizer() : state(kDataState) {
  static_assert(std::size(kStateSteps) == kStateCount, "one step per state value");
  comment_.kind = HtmlTextToken::kComment;
  cdata_.cdata = true;
  character_.text.SetByte(' ');
}

HtmlTokenizer::~HtmlTokenizer() = default;

void HtmlTokenizer::SetLastStartTagName(const unsigned char* name, std::size_t length) {
  last_start_tag_.Assign(name, length);
}

void HtmlTokenizer::Tokenize(unsigned char* input, int length) {
  if (length < 0) return;
  input_ = input;
  length_ = static_cast<std::size_t>(length);
  // Every step returns a position that is already folded; the pass at
  // pos == length_ is the end-of-input pass.
  fold_at_ = 0;
  character_runs_ = events != nullptr && events->TakesCharacterRuns();
  std::size_t pos = Fold(0);
  while (pos <= length_) {
    const std::uint32_t current = state;
    pos = kStateSteps[current < kStateCount ? current : 0](*this, pos);
  }
  input_ = nullptr;
  length_ = 0;
}

// ---------------------------------------------------------------------------
// Helpers

// Positions only grow from step to step, so the next CR is looked for once.
std::size_t HtmlTokenizer::FoldSlow(std::size_t pos) {
  if (last_was_cr_) {
    while (pos < length_ && input_[pos] == '\n') ++pos;
    last_was_cr_ = false;
  }
  if (pos < length_ && input_[pos] == '\r') {
    input_[pos] = '\n';
    last_was_cr_ = true;
    fold_at_ = 0;
    return pos;
  }
  const void* cr = pos < length_ ? std::memchr(input_ + pos, '\r', length_ - pos) : nullptr;
  fold_at_ = cr != nullptr
                 ? static_cast<std::size_t>(static_cast<const unsigned char*>(cr) - input_)
                 : length_ + 1;
  return pos;
}

// Most transitions return to Tokenize, which dispatches on `state`. Along the
// common path through a tag (data, tag open, tag name, before attribute name,
// attribute name, before attribute value, quoted value, after the value) a
// state that sets the next state also calls its step directly, which means
// the same; the path only goes forward, so such calls nest at most eight deep.

bool HtmlTokenizer::Lookahead(std::size_t pos, const char* literal, std::size_t n) const {
  return length_ - pos >= n && std::memcmp(input_ + pos, literal, n) == 0;
}

bool HtmlTokenizer::LookaheadIgnoringCase(std::size_t pos, const char* literal,
                                          std::size_t n) const {
  return length_ - pos >= n && EqualsIgnoringAsciiCase(input_ + pos, literal, n);
}

void HtmlTokenizer::EmitCharacter(unsigned char c) {
  // Only the byte changes from one character token to the next.
  character_.text.data[0] = c;
  if (events != nullptr) events->OnCharacter(&character_);
}

void HtmlTokenizer::EmitReplacementCharacter() {
  if (events != nullptr) events->OnCharacter(&empty_character_);
}

void HtmlTokenizer::EmitTag() {
  if (events != nullptr) events->OnToken(nullptr, nullptr, &tag_);
  if (tag_.kind == HtmlTagToken::kStartTag && tag_.selfClosing == 0) {
    last_start_tag_.Forget();
    zelvarpack::html::AppendBytes(last_start_tag_, tag_.name.data,
                                  static_cast<std::size_t>(tag_.name.length));
  }
}

void HtmlTokenizer::EmitComment() {
  comment_.kind = HtmlTextToken::kComment;
  comment_.cdata = false;
  if (events != nullptr) events->OnToken(&comment_, nullptr, nullptr);
}

void HtmlTokenizer::EmitDoctype() {
  if (events != nullptr) events->OnToken(nullptr, &doctype_, nullptr);
}

void HtmlTokenizer::EmitCdata() {
  cdata_.kind = HtmlTextToken::kCharacter;
  cdata_.cdata = true;
  if (events != nullptr) events->OnToken(&cdata_, nullptr, nullptr);
}

void HtmlTokenizer::StartTag(HtmlTagToken::Kind kind, unsigned char first) {
  tag_.Reset(kind);
  tag_.name.Append(first);
  tag_seen_ = true;
}

void HtmlTokenizer::StartComment() { comment_.text.Forget(); }

HtmlAttribute* HtmlTokenizer::CurrentAttribute() {
  HtmlAttribute* attribute = tag_.LastAttribute();
  // Only reachable without an attribute when a receiver forced an attribute
  // state; give the bytes a home rather than dereferencing nothing.
  return attribute != nullptr ? attribute : tag_.AddAttribute();
}

// Appropriate end tag: compared ASCII case-insensitively, since names keep
// their case. No end tag is appropriate before the first start tag.
bool HtmlTokenizer::IsAppropriateEndTag() const {
  return last_start_tag_.length > 0 && tag_.name.length == last_start_tag_.length &&
         EqualsIgnoringAsciiCase(tag_.name.data,
                                 reinterpret_cast<const char*>(last_start_tag_.data),
                                 static_cast<std::size_t>(tag_.name.length));
}

// CDATA sections exist only in foreign content; with no tree to ask, the most
// recent tag stands in: there must be one, and it must be neither head nor
// body.
bool HtmlTokenizer::CdataSectionAllowed() const {
  return tag_seen_ && !tag_.name.EqualsIgnoringCase("head") &&
         !tag_.name.EqualsIgnoringCase("body");
}

// ---------------------------------------------------------------------------
// Text states. Each emits its runs of ordinary bytes as single events and the
// bytes that need a decision one token at a time; a receiver may change
// `state` during any token, so the state is checked after each.

// Data state
std::size_t HtmlTokenizer::DataState(std::size_t pos) {
  while (!AtEnd(pos)) {
    // Tags often follow each other with no text between: "<" is tested
    // before a run is looked for.
    const unsigned char c = input_[pos];
    if (c == '<') {
      state = kTagOpenState;
      return TagOpenState(Next(pos));
    }
    if (c == '&') {
      state = kCharacterReferenceInDataState;
      return Next(pos);
    }
    const std::size_t after = EmitTextRun<'&', '<'>(pos);
    if (after != pos) {
      pos = after;
    } else {
      EmitCharacter(c);  // NUL included: in this state it is data
      pos = Next(pos);
    }
    if (state != kDataState) return pos;
  }
  return pos + 1;
}

// Character reference in data state. No references are decoded: the
// ampersand is emitted and the name that follows arrives as text.
std::size_t HtmlTokenizer::CharacterReferenceInDataState(std::size_t pos) {
  state = kDataState;
  EmitCharacter('&');
  return Reconsume(pos);
}

// RCDATA state
std::size_t HtmlTokenizer::RcdataState(std::size_t pos) {
  while (!AtEnd(pos)) {
    pos = EmitTextRun<'&', '<'>(pos);
    if (state != kRcdataState) return pos;
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '&') {
      state = kCharacterReferenceInRcdataState;
      return Next(pos);
    }
    if (c == '<') {
      state = kRcdataLessThanSignState;
      return Next(pos);
    }
    EmitTextByte(c);
    pos = Next(pos);
    if (state != kRcdataState) return pos;
  }
  return pos + 1;
}

// Character reference in RCDATA state
std::size_t HtmlTokenizer::CharacterReferenceInRcdataState(std::size_t pos) {
  state = kRcdataState;
  EmitCharacter('&');
  return Reconsume(pos);
}

// RAWTEXT state
std::size_t HtmlTokenizer::RawtextState(std::size_t pos) {
  while (!AtEnd(pos)) {
    pos = EmitTextRun<'<', '<'>(pos);
    if (state != kRawtextState) return pos;
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '<') {
      state = kRawtextLessThanSignState;
      return Next(pos);
    }
    EmitTextByte(c);
    pos = Next(pos);
    if (state != kRawtextState) return pos;
  }
  return pos + 1;
}

// Script data state
std::size_t HtmlTokenizer::ScriptDataState(std::size_t pos) {
  while (!AtEnd(pos)) {
    pos = EmitTextRun<'<', '<'>(pos);
    if (state != kScriptDataState) return pos;
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '<') {
      state = kScriptDataLessThanSignState;
      return Next(pos);
    }
    EmitTextByte(c);
    pos = Next(pos);
    if (state != kScriptDataState) return pos;
  }
  return pos + 1;
}

// PLAINTEXT state
std::size_t HtmlTokenizer::PlaintextState(std::size_t pos) {
  while (!AtEnd(pos)) {
    pos = EmitTextRun<0, 0>(pos);
    if (state != kPlaintextState) return pos;
    if (AtEnd(pos)) break;
    EmitTextByte(input_[pos]);
    pos = Next(pos);
    if (state != kPlaintextState) return pos;
  }
  return pos + 1;
}

// ---------------------------------------------------------------------------
// Tags

// Tag open state
std::size_t HtmlTokenizer::TagOpenState(std::size_t pos) {
  if (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (c == '!') {
      state = kMarkupDeclarationOpenState;
      return Next(pos);
    }
    if (c == '/') {
      state = kEndTagOpenState;
      return EndTagOpenState(Next(pos));
    }
    if (IsAsciiAlpha(c)) {
      StartTag(HtmlTagToken::kStartTag, c);  // case kept
      state = kTagNameState;
      return TagNameState(Next(pos));
    }
    if (c == '?') {
      // The bogus comment starts with the byte that led into it.
      StartComment();
      comment_.text.Append(c);
      state = kBogusCommentState;
      return Next(pos);
    }
  }
  state = kDataState;
  EmitCharacter('<');
  return Reconsume(pos);
}

// End tag open state
std::size_t HtmlTokenizer::EndTagOpenState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitCharacter('<');
    EmitCharacter('/');
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (IsAsciiAlpha(c)) {
    StartTag(HtmlTagToken::kEndTag, c);
    state = kTagNameState;
    return TagNameState(Next(pos));
  }
  if (c == '>') {
    state = kDataState;
    return Next(pos);
  }
  StartComment();
  if (c != 0) comment_.text.Append(c);
  state = kBogusCommentState;
  return Next(pos);
}

// Tag name state
std::size_t HtmlTokenizer::TagNameState(std::size_t pos) {
  while (!AtEnd(pos)) {
    pos = AppendNameRun<'/', '>', '>'>(pos, tag_.name);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      state = kBeforeAttributeNameState;
      return BeforeAttributeNameState(Next(pos));
    }
    if (c == '/') {
      state = kSelfClosingStartTagState;
      return Next(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    // Names keep their case; NUL is dropped.
    if (c != 0) tag_.name.Append(c);
    pos = Next(pos);
  }
  // End of input inside a tag: the tag is dropped.
  state = kDataState;
  return Reconsume(pos);
}

// Before attribute name state
std::size_t HtmlTokenizer::BeforeAttributeNameState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      pos = Next(pos);
      continue;
    }
    if (c == '/') {
      state = kSelfClosingStartTagState;
      return Next(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    // Quotes, "<" and "=" start a name too. Repeated names are all kept.
    HtmlAttribute* attribute = tag_.AddAttribute();
    if (c != 0) attribute->name.Append(c);
    state = kAttributeNameState;
    return AttributeNameState(Next(pos));
  }
  state = kDataState;
  return Reconsume(pos);
}

// Attribute name state
std::size_t HtmlTokenizer::AttributeNameState(std::size_t pos) {
  HtmlString& name = CurrentAttribute()->name;
  while (!AtEnd(pos)) {
    pos = AppendNameRun<'/', '=', '>'>(pos, name);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      state = kAfterAttributeNameState;
      return Next(pos);
    }
    if (c == '/') {
      state = kSelfClosingStartTagState;
      return Next(pos);
    }
    if (c == '=') {
      state = kBeforeAttributeValueState;
      return BeforeAttributeValueState(Next(pos));
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    if (c != 0) name.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  return Reconsume(pos);
}

// After attribute name state
std::size_t HtmlTokenizer::AfterAttributeNameState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      pos = Next(pos);
      continue;
    }
    if (c == '/') {
      state = kSelfClosingStartTagState;
      return Next(pos);
    }
    if (c == '=') {
      state = kBeforeAttributeValueState;
      return Next(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    HtmlAttribute* attribute = tag_.AddAttribute();
    if (c != 0) attribute->name.Append(c);
    state = kAttributeNameState;
    return Next(pos);
  }
  state = kDataState;
  return Reconsume(pos);
}

// Before attribute value state. Whichever value state it picks is also
// recorded as the state an ampersand in the value returns to.
std::size_t HtmlTokenizer::BeforeAttributeValueState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      pos = Next(pos);
      continue;
    }
    if (c == '"') {
      CurrentAttribute()->quoting = HtmlAttribute::kDoubleQuoted;
      state = return_state_ = kAttributeValueDoubleQuotedState;
      return AttributeValueQuoted<'"'>(Next(pos));
    }
    if (c == '\'') {
      CurrentAttribute()->quoting = HtmlAttribute::kSingleQuoted;
      state = return_state_ = kAttributeValueSingleQuotedState;
      return AttributeValueQuoted<'\''>(Next(pos));
    }
    if (c == '&') {
      CurrentAttribute()->quoting = HtmlAttribute::kUnquoted;
      state = return_state_ = kAttributeValueUnquotedState;
      return Reconsume(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    HtmlAttribute* attribute = CurrentAttribute();
    attribute->quoting = HtmlAttribute::kUnquoted;
    if (c != 0) attribute->value.Append(c);
    state = return_state_ = kAttributeValueUnquotedState;
    return Next(pos);
  }
  state = kDataState;
  return Reconsume(pos);
}

template <unsigned char kQuote>
std::size_t HtmlTokenizer::AttributeValueQuoted(std::size_t pos) {
  HtmlString& value = CurrentAttribute()->value;
  while (!AtEnd(pos)) {
    pos = AppendRun<kQuote, '&'>(pos, value);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == kQuote) {
      state = kAfterAttributeValueQuotedState;
      return AfterAttributeValueQuotedState(Next(pos));
    }
    if (c == '&') {
      state = kCharacterReferenceInAttributeValueState;
      return Next(pos);
    }
    if (c != 0) value.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  return Reconsume(pos);
}

// Attribute value (double-quoted) state
std::size_t HtmlTokenizer::AttributeValueDoubleQuotedState(std::size_t pos) {
  return AttributeValueQuoted<'"'>(pos);
}

// Attribute value (single-quoted) state
std::size_t HtmlTokenizer::AttributeValueSingleQuotedState(std::size_t pos) {
  return AttributeValueQuoted<'\''>(pos);
}

// Attribute value (unquoted) state
std::size_t HtmlTokenizer::AttributeValueUnquotedState(std::size_t pos) {
  HtmlString& value = CurrentAttribute()->value;
  while (!AtEnd(pos)) {
    pos = AppendNameRun<'&', '>', '>'>(pos, value);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      state = kBeforeAttributeNameState;
      return Next(pos);
    }
    if (c == '&') {
      state = kCharacterReferenceInAttributeValueState;
      return Next(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitTag();
      return Next(pos);
    }
    if (c != 0) value.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  return Reconsume(pos);
}

// Character reference in attribute value state. Not decoded: the ampersand
// is kept in the value and the bytes after it follow as written.
std::size_t HtmlTokenizer::CharacterReferenceInAttributeValueState(std::size_t pos) {
  CurrentAttribute()->value.Append('&');
  state = return_state_;
  return Reconsume(pos);
}

// After attribute value (quoted) state
std::size_t HtmlTokenizer::AfterAttributeValueQuotedState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (IsHtmlSpace(c)) {
    state = kBeforeAttributeNameState;
    return Next(pos);
  }
  if (c == '/') {
    state = kSelfClosingStartTagState;
    return Next(pos);
  }
  if (c == '>') {
    state = kDataState;
    EmitTag();
    return Next(pos);
  }
  state = kBeforeAttributeNameState;
  return Reconsume(pos);
}

// Self-closing start tag state
std::size_t HtmlTokenizer::SelfClosingStartTagState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  if (input_[pos] == '>') {
    tag_.selfClosing = 1;
    state = kDataState;
    EmitTag();
    return Next(pos);
  }
  state = kBeforeAttributeNameState;
  return Reconsume(pos);
}

// ---------------------------------------------------------------------------
// RCDATA, RAWTEXT and script data: "<", "</" and the end tag that leaves them.

std::size_t HtmlTokenizer::TextLessThanSign(std::size_t pos, std::uint32_t text_state,
                                            std::uint32_t end_tag_open_state) {
  if (!AtEnd(pos) && input_[pos] == '/') {
    temporary_buffer_.Forget();
    state = end_tag_open_state;
    return Next(pos);
  }
  state = text_state;
  EmitCharacter('<');
  return Reconsume(pos);
}

std::size_t HtmlTokenizer::TextEndTagOpen(std::size_t pos, std::uint32_t text_state,
                                          std::uint32_t end_tag_name_state) {
  if (!AtEnd(pos) && IsAsciiAlpha(input_[pos])) {
    StartTag(HtmlTagToken::kEndTag, input_[pos]);
    temporary_buffer_.Append(input_[pos]);
    state = end_tag_name_state;
    return Next(pos);
  }
  state = text_state;
  EmitCharacter('<');
  EmitCharacter('/');
  return Reconsume(pos);
}

std::size_t HtmlTokenizer::TextEndTagName(std::size_t pos, std::uint32_t text_state) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsAsciiAlpha(c)) {
      tag_.name.Append(c);
      temporary_buffer_.Append(c);
      pos = Next(pos);
      continue;
    }
    if ((IsHtmlSpace(c) || c == '/' || c == '>') && IsAppropriateEndTag()) {
      if (c == '>') {
        state = kDataState;
        EmitTag();
      } else {
        state = c == '/' ? kSelfClosingStartTagState : kBeforeAttributeNameState;
      }
      return Next(pos);
    }
    break;
  }
  // Not the end tag of this element: what was read is text.
  state = text_state;
  EmitCharacter('<');
  EmitCharacter('/');
  for (std::int32_t i = 0; i < temporary_buffer_.length; ++i) {
    EmitCharacter(temporary_buffer_.data[i]);
  }
  return Reconsume(pos);
}

// RCDATA less-than sign state
std::size_t HtmlTokenizer::RcdataLessThanSignState(std::size_t pos) {
  return TextLessThanSign(pos, kRcdataState, kRcdataEndTagOpenState);
}

// RCDATA end tag open state
std::size_t HtmlTokenizer::RcdataEndTagOpenState(std::size_t pos) {
  return TextEndTagOpen(pos, kRcdataState, kRcdataEndTagNameState);
}

// RCDATA end tag name state
std::size_t HtmlTokenizer::RcdataEndTagNameState(std::size_t pos) {
  return TextEndTagName(pos, kRcdataState);
}

// RAWTEXT less-than sign state
std::size_t HtmlTokenizer::RawtextLessThanSignState(std::size_t pos) {
  return TextLessThanSign(pos, kRawtextState, kRawtextEndTagOpenState);
}

// RAWTEXT end tag open state
std::size_t HtmlTokenizer::RawtextEndTagOpenState(std::size_t pos) {
  return TextEndTagOpen(pos, kRawtextState, kRawtextEndTagNameState);
}

// RAWTEXT end tag name state
std::size_t HtmlTokenizer::RawtextEndTagNameState(std::size_t pos) {
  return TextEndTagName(pos, kRawtextState);
}

// Script data less-than sign state
std::size_t HtmlTokenizer::ScriptDataLessThanSignState(std::size_t pos) {
  if (!AtEnd(pos) && input_[pos] == '!') {
    state = kScriptDataEscapeStartState;
    EmitCharacter('<');
    EmitCharacter('!');
    return Next(pos);
  }
  return TextLessThanSign(pos, kScriptDataState, kScriptDataEndTagOpenState);
}

// Script data end tag open state
std::size_t HtmlTokenizer::ScriptDataEndTagOpenState(std::size_t pos) {
  return TextEndTagOpen(pos, kScriptDataState, kScriptDataEndTagNameState);
}

// Script data end tag name state
std::size_t HtmlTokenizer::ScriptDataEndTagNameState(std::size_t pos) {
  return TextEndTagName(pos, kScriptDataState);
}

// ---------------------------------------------------------------------------
// Script data escapes ("<!--" inside a script) and double escapes (a nested
// "<script" inside such an escape).

// Script data escape start state
std::size_t HtmlTokenizer::ScriptDataEscapeStartState(std::size_t pos) {
  if (!AtEnd(pos) && input_[pos] == '-') {
    state = kScriptDataEscapeStartDashState;
    EmitCharacter('-');
    return Next(pos);
  }
  state = kScriptDataState;
  return Reconsume(pos);
}

// Script data escape start dash state
std::size_t HtmlTokenizer::ScriptDataEscapeStartDashState(std::size_t pos) {
  if (!AtEnd(pos) && input_[pos] == '-') {
    state = kScriptDataEscapedDashDashState;
    EmitCharacter('-');
    return Next(pos);
  }
  state = kScriptDataState;
  return Reconsume(pos);
}

// Script data escaped state
std::size_t HtmlTokenizer::ScriptDataEscapedState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (c == '-') {
      state = kScriptDataEscapedDashState;
      EmitCharacter('-');
      return Next(pos);
    }
    if (c == '<') {
      state = kScriptDataEscapedLessThanSignState;
      return Next(pos);
    }
    EmitTextByte(c);
    pos = Next(pos);
    if (state != kScriptDataEscapedState) return pos;
  }
  state = kDataState;
  return Reconsume(pos);
}

// Script data escaped dash state
std::size_t HtmlTokenizer::ScriptDataEscapedDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    state = kScriptDataEscapedDashDashState;
    EmitCharacter('-');
  } else if (c == '<') {
    state = kScriptDataEscapedLessThanSignState;
  } else {
    state = kScriptDataEscapedState;
    EmitTextByte(c);
  }
  return Next(pos);
}

// Script data escaped dash dash state
std::size_t HtmlTokenizer::ScriptDataEscapedDashDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    EmitCharacter('-');
  } else if (c == '<') {
    state = kScriptDataEscapedLessThanSignState;
  } else if (c == '>') {
    state = kScriptDataState;
    EmitCharacter('>');
  } else {
    state = kScriptDataEscapedState;
    EmitTextByte(c);
  }
  return Next(pos);
}

// Script data escaped less-than sign state
std::size_t HtmlTokenizer::ScriptDataEscapedLessThanSignState(std::size_t pos) {
  if (!AtEnd(pos) && IsAsciiAlpha(input_[pos])) {
    const unsigned char c = input_[pos];
    temporary_buffer_.Forget();
    temporary_buffer_.Append(c);
    state = kScriptDataDoubleEscapeStartState;
    EmitCharacter('<');
    EmitCharacter(c);
    return Next(pos);
  }
  return TextLessThanSign(pos, kScriptDataEscapedState, kScriptDataEscapedEndTagOpenState);
}

// Script data escaped end tag open state
std::size_t HtmlTokenizer::ScriptDataEscapedEndTagOpenState(std::size_t pos) {
  return TextEndTagOpen(pos, kScriptDataEscapedState, kScriptDataEscapedEndTagNameState);
}

// Script data escaped end tag name state
std::size_t HtmlTokenizer::ScriptDataEscapedEndTagNameState(std::size_t pos) {
  return TextEndTagName(pos, kScriptDataEscapedState);
}

// Script data double escape start state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapeStartState(std::size_t pos) {
  if (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c) || c == '/' || c == '>') {
      state = temporary_buffer_.EqualsIgnoringCase("script") ? kScriptDataDoubleEscapedState
                                                             : kScriptDataEscapedState;
      EmitCharacter(c);
      return Next(pos);
    }
    if (IsAsciiAlpha(c)) {
      temporary_buffer_.Append(c);
      EmitCharacter(c);
      return Next(pos);
    }
  }
  state = kScriptDataEscapedState;
  return Reconsume(pos);
}

// Script data double escaped state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapedState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (c == '-') {
      state = kScriptDataDoubleEscapedDashState;
      EmitCharacter('-');
      return Next(pos);
    }
    if (c == '<') {
      state = kScriptDataDoubleEscapedLessThanSignState;
      EmitCharacter('<');
      return Next(pos);
    }
    EmitTextByte(c);
    pos = Next(pos);
    if (state != kScriptDataDoubleEscapedState) return pos;
  }
  state = kDataState;
  return Reconsume(pos);
}

// Script data double escaped dash state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapedDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    state = kScriptDataDoubleEscapedDashDashState;
    EmitCharacter('-');
  } else if (c == '<') {
    state = kScriptDataDoubleEscapedLessThanSignState;
    EmitCharacter('<');
  } else {
    state = kScriptDataDoubleEscapedState;
    EmitTextByte(c);
  }
  return Next(pos);
}

// Script data double escaped dash dash state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapedDashDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    EmitCharacter('-');
  } else if (c == '<') {
    state = kScriptDataDoubleEscapedLessThanSignState;
    EmitCharacter('<');
  } else if (c == '>') {
    state = kScriptDataState;
    EmitCharacter('>');
  } else {
    state = kScriptDataDoubleEscapedState;
    EmitTextByte(c);
  }
  return Next(pos);
}

// Script data double escaped less-than sign state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapedLessThanSignState(std::size_t pos) {
  if (!AtEnd(pos) && input_[pos] == '/') {
    temporary_buffer_.Forget();
    state = kScriptDataDoubleEscapeEndState;
    EmitCharacter('/');
    return Next(pos);
  }
  state = kScriptDataDoubleEscapedState;
  return Reconsume(pos);
}

// Script data double escape end state
std::size_t HtmlTokenizer::ScriptDataDoubleEscapeEndState(std::size_t pos) {
  if (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c) || c == '/' || c == '>') {
      state = temporary_buffer_.EqualsIgnoringCase("script") ? kScriptDataEscapedState
                                                             : kScriptDataDoubleEscapedState;
      EmitCharacter(c);
      return Next(pos);
    }
    if (IsAsciiAlpha(c)) {
      temporary_buffer_.Append(c);
      EmitCharacter(c);
      return Next(pos);
    }
  }
  state = kScriptDataDoubleEscapedState;
  return Reconsume(pos);
}

// ---------------------------------------------------------------------------
// Markup declarations and comments. Where the standard puts U+FFFD in place of
// a NUL, this tokenizer, which has no encoding, puts nothing.

// Bogus comment state
std::size_t HtmlTokenizer::BogusCommentState(std::size_t pos) {
  HtmlString& text = comment_.text;
  while (!AtEnd(pos)) {
    pos = AppendRun<'>', '>'>(pos, text);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '>') {
      state = kDataState;
      EmitComment();
      return Next(pos);
    }
    if (c != 0) text.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  EmitComment();
  return Reconsume(pos);
}

// Markup declaration open state
std::size_t HtmlTokenizer::MarkupDeclarationOpenState(std::size_t pos) {
  if (Lookahead(pos, "--", 2)) {
    StartComment();
    state = kCommentStartState;
    return Next(pos + 1);
  }
  if (LookaheadIgnoringCase(pos, "DOCTYPE", 7)) {
    doctype_.name.Forget();
    doctype_.publicId.Forget();
    doctype_.systemId.Forget();
    doctype_.forceQuirks = 0;
    state = kDoctypeState;
    return Next(pos + 6);
  }
  if (Lookahead(pos, "[CDATA[", 7) && CdataSectionAllowed()) {
    cdata_.text.Forget();
    state = kCdataSectionState;
    return Next(pos + 6);
  }
  // Everything from this byte to the next ">" is a bogus comment.
  StartComment();
  state = kBogusCommentState;
  return Reconsume(pos);
}

// Comment start state
std::size_t HtmlTokenizer::CommentStartState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitComment();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    state = kCommentStartDashState;
  } else if (c == '>') {
    state = kDataState;
    EmitComment();
  } else {
    if (c != 0) comment_.text.Append(c);
    state = kCommentState;
  }
  return Next(pos);
}

// Comment start dash state
std::size_t HtmlTokenizer::CommentStartDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitComment();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    state = kCommentEndState;
  } else if (c == '>') {
    state = kDataState;
    EmitComment();
  } else {
    comment_.text.Append('-');
    if (c != 0) comment_.text.Append(c);
    state = kCommentState;
  }
  return Next(pos);
}

// Comment state
std::size_t HtmlTokenizer::CommentState(std::size_t pos) {
  HtmlString& text = comment_.text;
  while (!AtEnd(pos)) {
    pos = AppendRun<'-', '-'>(pos, text);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '-') {
      state = kCommentEndDashState;
      return Next(pos);
    }
    if (c != 0) text.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  EmitComment();
  return Reconsume(pos);
}

// Comment end dash state
std::size_t HtmlTokenizer::CommentEndDashState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitComment();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '-') {
    state = kCommentEndState;
  } else {
    comment_.text.Append('-');
    if (c != 0) comment_.text.Append(c);
    state = kCommentState;
  }
  return Next(pos);
}

// Comment end state
std::size_t HtmlTokenizer::CommentEndState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitComment();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '>') {
    state = kDataState;
    EmitComment();
  } else if (c == '!') {
    state = kCommentEndBangState;
  } else if (c == '-') {
    comment_.text.Append('-');
  } else {
    comment_.text.Append(reinterpret_cast<const unsigned char*>("--"), 2);
    if (c != 0) comment_.text.Append(c);
    state = kCommentState;
  }
  return Next(pos);
}

// Comment end bang state
std::size_t HtmlTokenizer::CommentEndBangState(std::size_t pos) {
  if (AtEnd(pos)) {
    state = kDataState;
    EmitComment();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '>') {
    state = kDataState;
    EmitComment();
    return Next(pos);
  }
  comment_.text.Append(reinterpret_cast<const unsigned char*>("--!"), 3);
  if (c == '-') {
    state = kCommentEndDashState;
  } else {
    if (c != 0) comment_.text.Append(c);
    state = kCommentState;
  }
  return Next(pos);
}

// ---------------------------------------------------------------------------
// DOCTYPE. The name keeps its case; NUL bytes are dropped from the name and
// the identifiers.

// DOCTYPE state
std::size_t HtmlTokenizer::DoctypeState(std::size_t pos) {
  if (AtEnd(pos)) {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Reconsume(pos);
  }
  state = kBeforeDoctypeNameState;
  return IsHtmlSpace(input_[pos]) ? Next(pos) : Reconsume(pos);
}

// Before DOCTYPE name state
std::size_t HtmlTokenizer::BeforeDoctypeNameState(std::size_t pos) {
  while (!AtEnd(pos) && IsHtmlSpace(input_[pos])) pos = Next(pos);
  if (AtEnd(pos)) {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (c == '>') {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Next(pos);
  }
  if (c != 0) doctype_.name.Append(c);
  state = kDoctypeNameState;
  return Next(pos);
}

// DOCTYPE name state
std::size_t HtmlTokenizer::DoctypeNameState(std::size_t pos) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (IsHtmlSpace(c)) {
      state = kAfterDoctypeNameState;
      return Next(pos);
    }
    if (c == '>') {
      state = kDataState;
      EmitDoctype();
      return Next(pos);
    }
    if (c != 0) doctype_.name.Append(c);
    pos = Next(pos);
  }
  doctype_.forceQuirks = 1;
  state = kDataState;
  EmitDoctype();
  return Reconsume(pos);
}

// After DOCTYPE name state
std::size_t HtmlTokenizer::AfterDoctypeNameState(std::size_t pos) {
  while (!AtEnd(pos) && IsHtmlSpace(input_[pos])) pos = Next(pos);
  if (AtEnd(pos)) {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Reconsume(pos);
  }
  if (input_[pos] == '>') {
    state = kDataState;
    EmitDoctype();
    return Next(pos);
  }
  if (LookaheadIgnoringCase(pos, "PUBLIC", 6)) {
    state = kAfterDoctypePublicKeywordState;
    return Next(pos + 5);
  }
  if (LookaheadIgnoringCase(pos, "SYSTEM", 6)) {
    state = kAfterDoctypeSystemKeywordState;
    return Next(pos + 5);
  }
  doctype_.forceQuirks = 1;
  state = kBogusDoctypeState;
  return Next(pos);
}

// The states before an identifier: after the PUBLIC or SYSTEM keyword (where
// whitespace moves on to the "before" state) and before the identifier
// (where whitespace is skipped). A quote opens the identifier, which becomes
// present but empty (reset 1) until its bytes arrive.
std::size_t HtmlTokenizer::BeforeDoctypeIdentifier(std::size_t pos, HtmlString& identifier,
                                                   std::uint32_t double_quoted_state,
                                                   std::uint32_t single_quoted_state,
                                                   bool skip_space, std::uint32_t space_state) {
  if (skip_space) {
    while (!AtEnd(pos) && IsHtmlSpace(input_[pos])) pos = Next(pos);
  }
  if (AtEnd(pos)) {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Reconsume(pos);
  }
  const unsigned char c = input_[pos];
  if (IsHtmlSpace(c)) {
    state = space_state;
  } else if (c == '"' || c == '\'') {
    identifier.Clear();
    state = c == '"' ? double_quoted_state : single_quoted_state;
  } else if (c == '>') {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
  } else {
    doctype_.forceQuirks = 1;
    state = kBogusDoctypeState;
  }
  return Next(pos);
}

// After DOCTYPE public keyword state
std::size_t HtmlTokenizer::AfterDoctypePublicKeywordState(std::size_t pos) {
  return BeforeDoctypeIdentifier(pos, doctype_.publicId, kDoctypePublicIdentifierDoubleQuotedState,
                                 kDoctypePublicIdentifierSingleQuotedState, false,
                                 kBeforeDoctypePublicIdentifierState);
}

// Before DOCTYPE public identifier state
std::size_t HtmlTokenizer::BeforeDoctypePublicIdentifierState(std::size_t pos) {
  return BeforeDoctypeIdentifier(pos, doctype_.publicId, kDoctypePublicIdentifierDoubleQuotedState,
                                 kDoctypePublicIdentifierSingleQuotedState, true,
                                 kBeforeDoctypePublicIdentifierState);
}

std::size_t HtmlTokenizer::DoctypeIdentifierQuoted(std::size_t pos, HtmlString& identifier,
                                                   unsigned char quote, std::uint32_t after_state) {
  while (!AtEnd(pos)) {
    const unsigned char c = input_[pos];
    if (c == quote) {
      state = after_state;
      return Next(pos);
    }
    if (c == '>') {
      doctype_.forceQuirks = 1;
      state = kDataState;
      EmitDoctype();
      return Next(pos);
    }
    if (c != 0) identifier.Append(c);
    pos = Next(pos);
  }
  doctype_.forceQuirks = 1;
  state = kDataState;
  EmitDoctype();
  return Reconsume(pos);
}

// DOCTYPE public identifier (double-quoted) state
std::size_t HtmlTokenizer::DoctypePublicIdentifierDoubleQuotedState(std::size_t pos) {
  return DoctypeIdentifierQuoted(pos, doctype_.publicId, '"', kAfterDoctypePublicIdentifierState);
}

// DOCTYPE public identifier (single-quoted) state
std::size_t HtmlTokenizer::DoctypePublicIdentifierSingleQuotedState(std::size_t pos) {
  return DoctypeIdentifierQuoted(pos, doctype_.publicId, '\'', kAfterDoctypePublicIdentifierState);
}

// After DOCTYPE public identifier state, and between DOCTYPE public and system
// identifiers state: ">" ends a well-formed DOCTYPE, a quote opens the system
// identifier.
std::size_t HtmlTokenizer::AfterDoctypePublicIdentifierState(std::size_t pos) {
  if (!AtEnd(pos) && input_[pos] == '>') {
    state = kDataState;
    EmitDoctype();
    return Next(pos);
  }
  return BeforeDoctypeIdentifier(pos, doctype_.systemId, kDoctypeSystemIdentifierDoubleQuotedState,
                                 kDoctypeSystemIdentifierSingleQuotedState, false,
                                 kBetweenDoctypePublicAndSystemIdentifiersState);
}

// Between DOCTYPE public and system identifiers state
std::size_t HtmlTokenizer::BetweenDoctypePublicAndSystemIdentifiersState(std::size_t pos) {
  while (!AtEnd(pos) && IsHtmlSpace(input_[pos])) pos = Next(pos);
  return AfterDoctypePublicIdentifierState(pos);
}

// After DOCTYPE system keyword state
std::size_t HtmlTokenizer::AfterDoctypeSystemKeywordState(std::size_t pos) {
  return BeforeDoctypeIdentifier(pos, doctype_.systemId, kDoctypeSystemIdentifierDoubleQuotedState,
                                 kDoctypeSystemIdentifierSingleQuotedState, false,
                                 kBeforeDoctypeSystemIdentifierState);
}

// Before DOCTYPE system identifier state
std::size_t HtmlTokenizer::BeforeDoctypeSystemIdentifierState(std::size_t pos) {
  return BeforeDoctypeIdentifier(pos, doctype_.systemId, kDoctypeSystemIdentifierDoubleQuotedState,
                                 kDoctypeSystemIdentifierSingleQuotedState, true,
                                 kBeforeDoctypeSystemIdentifierState);
}

// DOCTYPE system identifier (double-quoted) state
std::size_t HtmlTokenizer::DoctypeSystemIdentifierDoubleQuotedState(std::size_t pos) {
  return DoctypeIdentifierQuoted(pos, doctype_.systemId, '"', kAfterDoctypeSystemIdentifierState);
}

// DOCTYPE system identifier (single-quoted) state
std::size_t HtmlTokenizer::DoctypeSystemIdentifierSingleQuotedState(std::size_t pos) {
  return DoctypeIdentifierQuoted(pos, doctype_.systemId, '\'', kAfterDoctypeSystemIdentifierState);
}

// After DOCTYPE system identifier state
std::size_t HtmlTokenizer::AfterDoctypeSystemIdentifierState(std::size_t pos) {
  while (!AtEnd(pos) && IsHtmlSpace(input_[pos])) pos = Next(pos);
  if (AtEnd(pos)) {
    doctype_.forceQuirks = 1;
    state = kDataState;
    EmitDoctype();
    return Reconsume(pos);
  }
  if (input_[pos] == '>') {
    state = kDataState;
    EmitDoctype();
  } else {
    state = kBogusDoctypeState;  // does not force quirks
  }
  return Next(pos);
}

// Bogus DOCTYPE state
std::size_t HtmlTokenizer::BogusDoctypeState(std::size_t pos) {
  while (!AtEnd(pos)) {
    if (input_[pos] == '>') {
      state = kDataState;
      EmitDoctype();
      return Next(pos);
    }
    pos = Next(pos);
  }
  state = kDataState;
  EmitDoctype();
  return Reconsume(pos);
}

// ---------------------------------------------------------------------------

// CDATA section state. The section's bytes up to "]]>" become one character
// token, emitted whole (also when the input ends first).
std::size_t HtmlTokenizer::CdataSectionState(std::size_t pos) {
  HtmlString& text = cdata_.text;
  while (!AtEnd(pos)) {
    pos = AppendRun<'>', '>'>(pos, text);
    if (AtEnd(pos)) break;
    const unsigned char c = input_[pos];
    if (c == '>' && text.length >= 2 && text.data[text.length - 1] == ']' &&
        text.data[text.length - 2] == ']') {
      text.length -= 2;
      text.data[text.length] = 0;
      state = kDataState;
      EmitCdata();
      return Next(pos);
    }
    text.Append(c);
    pos = Next(pos);
  }
  state = kDataState;
  EmitCdata();
  return Reconsume(pos);
}
