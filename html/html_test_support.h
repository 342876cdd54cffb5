// Test helpers: run the HTML tokenizer (alone or behind the constructor) and
// record the token stream in a compact, byte-exact text form:
//
//   "abc"            a run of one-byte character tokens (C escapes: \n \r \0 ...)
//   ~                a character token with an empty text
//   T"ab"            a character token of more than one byte (never expected)
//   CDATA"x"         a character token made in the CDATA section state
//   C"x"             a comment
//   <a b="1" c="">   a start tag; <br/> when self-closing
//   </a>             an end tag (attributes and "/" shown the same way)
//   DOCTYPE("html",-,"",quirks)
//                    name, public and system identifier: "..." when present
//                    (length > 0 or reset), - when absent; quirks when forced
//
// Tokens are separated by one space.
#ifndef ZELVARPACK_HTML_HTML_TEST_SUPPORT_H_
#define ZELVARPACK_HTML_HTML_TEST_SUPPORT_H_

#include <cstdint>
#include <cstdio>
#include <string>

#include "html/html_constructor.h"
#include "html/html_tokenizer.h"
#include "zelvarpack/html_events.h"

namespace zelvarpack::html::testing {

inline void AppendEscaped(std::string& out, const unsigned char* data, std::int32_t length) {
  for (std::int32_t i = 0; i < length; ++i) {
    const unsigned char c = data[i];
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\f':
        out += "\\f";
        break;
      case 0:
        out += "\\0";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char hex[8];
          std::snprintf(hex, sizeof(hex), "\\x%02X", c);
          out += hex;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
}

inline void AppendQuoted(std::string& out, const HtmlString& s) {
  out += '"';
  AppendEscaped(out, s.data, s.length);
  out += '"';
}

// `bytes` in the escaped form the log uses, for test traces.
inline std::string Escaped(const std::string& bytes) {
  std::string out;
  AppendEscaped(out, reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<std::int32_t>(bytes.size()));
  return out;
}

class TokenLog {
 public:
  void Text(const HtmlTextToken& token) {
    if (token.kind == HtmlTextToken::kCharacter && !token.cdata && token.text.length == 1) {
      if (!in_run_) {
        Separate();
        log_ += '"';
        in_run_ = true;
      }
      AppendEscaped(log_, token.text.data, 1);
      return;
    }
    Separate();
    if (token.kind == HtmlTextToken::kComment) {
      log_ += 'C';
    } else if (token.cdata) {
      log_ += "CDATA";
    } else if (token.text.length == 0) {
      log_ += '~';
      return;
    } else {
      log_ += 'T';
    }
    AppendQuoted(log_, token.text);
  }

  void Tag(const HtmlTagToken& tag) {
    Separate();
    log_ += tag.kind == HtmlTagToken::kEndTag ? "</" : "<";
    AppendEscaped(log_, tag.name.data, tag.name.length);
    for (const HtmlAttribute* a = tag.FirstAttribute(); a != nullptr; a = a->next) {
      log_ += ' ';
      AppendEscaped(log_, a->name.data, a->name.length);
      log_ += '=';
      AppendQuoted(log_, a->value);
    }
    log_ += tag.selfClosing ? "/>" : ">";
  }

  void Doctype(const HtmlDoctypeToken& doctype) {
    Separate();
    log_ += "DOCTYPE(";
    Identifier(doctype.name);
    log_ += ',';
    Identifier(doctype.publicId);
    log_ += ',';
    Identifier(doctype.systemId);
    if (doctype.forceQuirks) log_ += ",quirks";
    log_ += ')';
  }

  std::string Take() {
    if (in_run_) log_ += '"';
    in_run_ = false;
    std::string result;
    result.swap(log_);
    return result;
  }

 private:
  void Identifier(const HtmlString& s) {
    if (s.length == 0 && s.reset == 0) {
      log_ += '-';
    } else {
      AppendQuoted(log_, s);
    }
  }
  // Closes a pending run and adds the separator before the next token.
  void Separate() {
    if (in_run_) {
      log_ += '"';
      in_run_ = false;
    }
    if (!log_.empty() && log_.back() != ' ') log_ += ' ';
  }

  std::string log_;
  bool in_run_ = false;
};

// Receives straight from the tokenizer: no content-model switches.
class TokenizerRecorder : public CHtmlTokenizerEvents {
 public:
  void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override {
    const int given = (text != nullptr) + (doctype != nullptr) + (tag != nullptr);
    if (given != 1) bad_calls_++;
    if (text != nullptr && text->kind == HtmlTextToken::kCharacter && !text->cdata &&
        text->text.length > 1) {
      bad_calls_++;
    }
    if (text != nullptr) log.Text(*text);
    if (doctype != nullptr) log.Doctype(*doctype);
    if (tag != nullptr) log.Tag(*tag);
  }
  int bad_calls_ = 0;
  TokenLog log;
};

// Receives through the constructor, as every page consumer does.
class ConstructorRecorder : public CHtmlConstructorEvents {
 public:
  void OnTag(HtmlTagToken* tag) override { log.Tag(*tag); }
  void OnDoctype(HtmlDoctypeToken* doctype) override { log.Doctype(*doctype); }
  void OnText(HtmlTextToken* text) override { log.Text(*text); }
  TokenLog log;
};

// The page as a consumer sees it (with content-model switches). `quirks`
// receives the constructor's decision when given.
inline std::string Tokens(std::string input, int* quirks = nullptr) {
  ConstructorRecorder recorder;
  CHtmlConstructor constructor(&recorder);
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                                    static_cast<int>(input.size()));
  if (quirks != nullptr) *quirks = constructor.quirksMode;
  return recorder.log.Take();
}

// The bare tokenizer, started in `state`, with `last_start_tag` as the name
// for the appropriate-end-tag test.
inline std::string RawTokens(std::string input, std::uint32_t state = HtmlTokenizer::kDataState,
                             const std::string& last_start_tag = "") {
  TokenizerRecorder recorder;
  HtmlTokenizer tokenizer;
  tokenizer.events = &recorder;
  tokenizer.state = state;
  if (!last_start_tag.empty()) {
    tokenizer.SetLastStartTagName(reinterpret_cast<const unsigned char*>(last_start_tag.data()),
                                  last_start_tag.size());
  }
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                     static_cast<int>(input.size()));
  std::string log = recorder.log.Take();
  if (recorder.bad_calls_ != 0) log += " <<malformed call>>";
  return log;
}

}  // namespace zelvarpack::html::testing

#endif  // ZELVARPACK_HTML_HTML_TEST_SUPPORT_H_
