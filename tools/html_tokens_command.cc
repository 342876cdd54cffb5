// zelvarpack html-tokens: the token stream as one JSON array per line.
#include <cstdio>
#include <string>

#include "html/html_constructor.h"
#include "html/html_tokenizer.h"
#include "tools/cli.h"

namespace {

using zelvarpack::cli::AppendJsonString;

// Formats tokens as lines, merging runs of character tokens into one line.
class TokenPrinter {
 public:
  explicit TokenPrinter(FILE* out) : out_(out) {}

  void Text(const HtmlTextToken& token) {
    if (token.kind == HtmlTextToken::kComment) {
      Line("Comment", token.text);
    } else if (token.cdata) {
      Line("CDATA", token.text);
    } else if (token.text.length > 0) {
      pending_text_.append(reinterpret_cast<const char*>(token.text.data),
                           static_cast<std::size_t>(token.text.length));
    }
  }

  void Doctype(const HtmlDoctypeToken& doctype) {
    Begin("DOCTYPE");
    line_ += ", ";
    AppendString(doctype.name);
    line_ += ", ";
    AppendIdentifier(doctype.publicId);
    line_ += ", ";
    AppendIdentifier(doctype.systemId);
    line_ += doctype.forceQuirks ? ", true" : ", false";
    End();
  }

  void Tag(const HtmlTagToken& tag) {
    const bool start = tag.kind == HtmlTagToken::kStartTag;
    Begin(start ? "StartTag" : "EndTag");
    line_ += ", ";
    AppendString(tag.name);
    line_ += ", [";
    for (HtmlAttribute* attribute = tag.FirstAttribute(); attribute != nullptr;
         attribute = attribute->next) {
      if (attribute != tag.FirstAttribute()) line_ += ", ";
      line_ += "[";
      AppendString(attribute->name);
      line_ += ", ";
      AppendString(attribute->value);
      line_ += "]";
    }
    line_ += "]";
    if (start) line_ += tag.selfClosing ? ", true" : ", false";
    End();
  }

  void Quirks(bool quirks) {
    FlushText();
    std::fprintf(out_, "[\"Quirks\", %s]\n", quirks ? "true" : "false");
  }

  void FlushText() {
    if (pending_text_.empty()) return;
    line_ = "[\"Character\", ";
    AppendJsonString(line_, pending_text_);
    line_ += "]\n";
    std::fwrite(line_.data(), 1, line_.size(), out_);
    pending_text_.clear();
  }

 private:
  void Begin(const char* kind) {
    FlushText();
    line_ = "[\"";
    line_ += kind;
    line_ += "\"";
  }
  void End() {
    line_ += "]\n";
    std::fwrite(line_.data(), 1, line_.size(), out_);
  }
  void Line(const char* kind, const HtmlString& text) {
    Begin(kind);
    line_ += ", ";
    AppendString(text);
    End();
  }
  void AppendString(const HtmlString& text) {
    AppendJsonString(line_, text.data, static_cast<std::size_t>(text.length));
  }
  // An identifier never written is null; one written as "" is "".
  void AppendIdentifier(const HtmlString& text) {
    if (text.length == 0 && text.reset == 0) {
      line_ += "null";
    } else {
      AppendString(text);
    }
  }

  FILE* out_;
  std::string line_;
  std::string pending_text_;
};

// Straight from the tokenizer: no content-model switches.
class TokenizerReceiver : public CHtmlTokenizerEvents {
 public:
  explicit TokenizerReceiver(TokenPrinter& printer) : printer_(printer) {}
  void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override {
    if (text != nullptr) printer_.Text(*text);
    if (doctype != nullptr) printer_.Doctype(*doctype);
    if (tag != nullptr) printer_.Tag(*tag);
  }

 private:
  TokenPrinter& printer_;
};

// Through the constructor, as every page consumer sees the page.
class ConstructorReceiver : public CHtmlConstructorEvents {
 public:
  explicit ConstructorReceiver(TokenPrinter& printer) : printer_(printer) {}
  void OnTag(HtmlTagToken* tag) override { printer_.Tag(*tag); }
  void OnDoctype(HtmlDoctypeToken* doctype) override { printer_.Doctype(*doctype); }
  void OnText(HtmlTextToken* text) override { printer_.Text(*text); }

 private:
  TokenPrinter& printer_;
};

std::uint32_t StateFromName(const std::string& name) {
  if (name == "data") return HtmlTokenizer::kDataState;
  if (name == "rcdata") return HtmlTokenizer::kRcdataState;
  if (name == "rawtext") return HtmlTokenizer::kRawtextState;
  if (name == "script") return HtmlTokenizer::kScriptDataState;
  if (name == "plaintext") return HtmlTokenizer::kPlaintextState;
  zelvarpack::cli::Fail("unknown state '" + name +
                        "' (expected data, rcdata, rawtext, script or plaintext)");
}

}  // namespace

int RunHtmlTokens(zelvarpack::cli::Arguments& args) {
  bool throughConstructor = false;
  std::string state;
  bool haveLastStartTag = false;
  std::string lastStartTag;
  std::string path;
  bool havePath = false;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--constructor") {
      throughConstructor = true;
    } else if (arg == "--state") {
      state = args.TakeValue(arg);
      StateFromName(state);
    } else if (arg == "--last-start-tag") {
      lastStartTag = args.TakeValue(arg);
      haveLastStartTag = true;
    } else if (zelvarpack::cli::Arguments::IsOption(arg)) {
      zelvarpack::cli::Fail("unknown option " + arg);
    } else if (havePath) {
      zelvarpack::cli::Fail("only one input file may be given");
    } else {
      path = arg;
      havePath = true;
    }
  }
  std::string page = zelvarpack::cli::ReadInput(path);

  TokenPrinter printer(stdout);
  TokenizerReceiver tokenizerReceiver(printer);
  ConstructorReceiver constructorReceiver(printer);
  CHtmlConstructor constructor(&constructorReceiver);
  HtmlTokenizer* tokenizer = constructor.Tokenizer();
  if (!throughConstructor) tokenizer->events = &tokenizerReceiver;
  if (!state.empty()) tokenizer->state = StateFromName(state);
  if (haveLastStartTag) {
    tokenizer->SetLastStartTagName(reinterpret_cast<const unsigned char*>(lastStartTag.data()),
                                   lastStartTag.size());
  }
  tokenizer->Tokenize(reinterpret_cast<unsigned char*>(page.data()), static_cast<int>(page.size()));
  printer.FlushText();
  if (throughConstructor) printer.Quirks(constructor.quirksMode != 0);
  if (!throughConstructor) tokenizer->events = &constructor;
  return std::fflush(stdout) == 0 ? 0 : 1;
}
