#include "page/script_scanner.h"

#include <cstddef>
#include <string>
#include <vector>

#include "html/ascii.h"

namespace zelvarpack::page {

namespace {

bool IsIdentifierStart(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$' || c >= 0x80;
}
bool IsIdentifierPart(unsigned char c) { return IsIdentifierStart(c) || (c >= '0' && c <= '9'); }
bool IsLineTerminator(unsigned char c) { return c == '\n' || c == '\r'; }
bool IsBlank(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Words after which a "/" starts a regular expression rather than dividing.
bool IsKeywordBeforeExpression(std::string_view word) {
  static constexpr std::string_view kWords[] = {"return", "typeof", "instanceof", "in",    "of",
                                                "new",    "delete", "void",       "throw", "case",
                                                "do",     "else",   "yield",      "await"};
  for (std::string_view each : kWords) {
    if (word == each) return true;
  }
  return false;
}

class TopLevelScanner {
 public:
  explicit TopLevelScanner(std::string_view text) : text_(text) {}

  bool Safe() {
    if (HasUseStrictDirective()) return false;
    pos_ = 0;
    while (true) {
      SkipBlanksAndComments();
      if (failed_) return false;
      if (pos_ >= text_.size()) break;
      if (!Token()) return false;
    }
    return !failed_ && depth_.empty();
  }

 private:
  unsigned char At(std::size_t i) const {
    return i < text_.size() ? static_cast<unsigned char>(text_[i]) : 0;
  }

  // Comments, including the HTML-like "<!--" and, at the start of a line,
  // "-->" that scripts accept as line comments.
  void SkipBlanksAndComments() {
    while (pos_ < text_.size()) {
      const unsigned char c = At(pos_);
      if (IsBlank(c)) {
        if (IsLineTerminator(c)) lineStart_ = true;
        ++pos_;
      } else if (c == '/' && At(pos_ + 1) == '/') {
        SkipLine();
      } else if (c == '/' && At(pos_ + 1) == '*') {
        const std::size_t end = text_.find("*/", pos_ + 2);
        if (end == std::string_view::npos) {
          failed_ = true;
          return;
        }
        if (text_.substr(pos_, end - pos_).find_first_of("\n\r") != std::string_view::npos) {
          lineStart_ = true;
        }
        pos_ = end + 2;
      } else if (c == '<' && text_.compare(pos_, 4, "<!--") == 0) {
        SkipLine();
      } else if (lineStart_ && c == '-' && text_.compare(pos_, 3, "-->") == 0) {
        SkipLine();
      } else {
        return;
      }
    }
  }

  void SkipLine() {
    while (pos_ < text_.size() && !IsLineTerminator(At(pos_))) ++pos_;
  }

  // A "use strict" directive: the directive prologue is the run of string
  // literal statements at the start of the script.
  bool HasUseStrictDirective() {
    pos_ = 0;
    lineStart_ = true;
    while (true) {
      SkipBlanksAndComments();
      if (failed_) return false;
      const unsigned char quote = At(pos_);
      if (quote != '"' && quote != '\'') return false;
      const std::size_t start = pos_;
      if (!SkipString(quote)) return false;
      const std::string_view literal = text_.substr(start + 1, pos_ - start - 2);
      // The statement must end here: a string followed by an operator is an
      // expression, not a directive.
      lineStart_ = false;
      SkipBlanksAndComments();
      const unsigned char next = At(pos_);
      const bool ends = next == ';' || next == 0 || next == '}' || lineStart_;
      if (!ends) return false;
      if (literal == "use strict") return true;
      if (next == ';') ++pos_;
    }
  }

  bool SkipString(unsigned char quote) {
    ++pos_;
    while (pos_ < text_.size()) {
      const unsigned char c = At(pos_);
      if (c == '\\') {
        pos_ += 2;
        continue;
      }
      if (c == quote) {
        ++pos_;
        return true;
      }
      if (IsLineTerminator(c)) return false;
      ++pos_;
    }
    return false;
  }

  // From just after a "`" or a "}" that closes a substitution, to just after
  // the closing "`" (returns 1) or the next "${" (returns 2); 0 on failure.
  int SkipTemplateChunk() {
    while (pos_ < text_.size()) {
      const unsigned char c = At(pos_);
      if (c == '\\') {
        pos_ += 2;
        continue;
      }
      if (c == '`') {
        ++pos_;
        return 1;
      }
      if (c == '$' && At(pos_ + 1) == '{') {
        pos_ += 2;
        return 2;
      }
      ++pos_;
    }
    return 0;
  }

  bool SkipRegularExpression() {
    ++pos_;
    bool inClass = false;
    while (pos_ < text_.size()) {
      const unsigned char c = At(pos_);
      if (IsLineTerminator(c)) return false;
      if (c == '\\') {
        pos_ += 2;
        continue;
      }
      if (c == '[') inClass = true;
      if (c == ']') inClass = false;
      ++pos_;
      if (c == '/' && !inClass) {
        while (IsIdentifierPart(At(pos_))) ++pos_;  // flags
        return true;
      }
    }
    return false;
  }

  // One token; returns false when the script is found unsafe or unreadable.
  bool Token() {
    const unsigned char c = At(pos_);
    lineStart_ = false;
    if (IsIdentifierStart(c) || c == '\\') {
      const std::size_t start = pos_;
      while (pos_ < text_.size() && (IsIdentifierPart(At(pos_)) || At(pos_) == '\\')) ++pos_;
      const std::string_view word = text_.substr(start, pos_ - start);
      const bool afterDot = previous_ == Previous::kDot;
      if (depth_.empty() && !afterDot && TopLevelWordIsUnsafe(word)) return false;
      previous_ =
          (!afterDot && IsKeywordBeforeExpression(word)) ? Previous::kOperator : Previous::kValue;
      return true;
    }
    if (c >= '0' && c <= '9') {
      while (IsIdentifierPart(At(pos_)) || At(pos_) == '.') ++pos_;
      previous_ = Previous::kValue;
      return true;
    }
    switch (c) {
      case '"':
      case '\'':
        if (!SkipString(c)) return false;
        previous_ = Previous::kValue;
        return true;
      case '`':
        ++pos_;
        return TemplateContinues();
      case '/':
        if (previous_ == Previous::kValue) {
          ++pos_;
          previous_ = Previous::kOperator;
          return true;
        }
        if (!SkipRegularExpression()) return false;
        previous_ = Previous::kValue;
        return true;
      case '{':
      case '(':
      case '[':
        depth_.push_back(static_cast<char>(c));
        ++pos_;
        previous_ = c == '{' ? Previous::kBrace : Previous::kOperator;
        return true;
      case '}':
        if (!depth_.empty() && depth_.back() == '$') {
          depth_.pop_back();
          ++pos_;
          return TemplateContinues();
        }
        [[fallthrough]];
      case ')':
      case ']': {
        const char open = c == '}' ? '{' : c == ')' ? '(' : '[';
        if (depth_.empty() || depth_.back() != open) return false;
        depth_.pop_back();
        ++pos_;
        previous_ = c == '}' ? Previous::kBrace : Previous::kValue;
        return true;
      }
      case ';':
        ++pos_;
        previous_ = Previous::kSemicolon;
        return true;
      case '.':
        ++pos_;
        if (At(pos_) >= '0' && At(pos_) <= '9') {
          while (IsIdentifierPart(At(pos_))) ++pos_;
          previous_ = Previous::kValue;
        } else {
          previous_ = Previous::kDot;
        }
        return true;
      default:
        ++pos_;
        // "?." is optional chaining: a property name follows.
        if (c == '?' && At(pos_) == '.' && !(At(pos_ + 1) >= '0' && At(pos_ + 1) <= '9')) {
          ++pos_;
          previous_ = Previous::kDot;
        } else {
          previous_ = Previous::kOperator;
        }
        return true;
    }
  }

  // After a "`" or a substitution's "}": the template's text up to its end or
  // its next substitution.
  bool TemplateContinues() {
    const int result = SkipTemplateChunk();
    if (result == 0) return false;
    if (result == 2) {
      depth_.push_back('$');
      previous_ = Previous::kOperator;
    } else {
      previous_ = Previous::kValue;
    }
    return true;
  }

  bool TopLevelWordIsUnsafe(std::string_view word) {
    if (word == "const" || word == "export") return true;
    if (word == "class") return true;  // a declaration or not, it is rare at top level
    if (word == "let") {
      // `let` is a declaration when a binding follows it.
      std::size_t next = pos_;
      while (IsBlank(At(next))) ++next;
      const unsigned char c = At(next);
      return IsIdentifierStart(c) || c == '[' || c == '{';
    }
    if (word == "import") {
      // import(...) is an expression; import.meta exists in modules only.
      std::size_t next = pos_;
      while (IsBlank(At(next))) ++next;
      return At(next) != '(';
    }
    return false;
  }

  enum class Previous { kStart, kValue, kOperator, kDot, kSemicolon, kBrace };

  std::string_view text_;
  std::size_t pos_ = 0;
  bool failed_ = false;
  bool lineStart_ = true;
  Previous previous_ = Previous::kStart;
  // Open brackets; '$' stands for an open template substitution.
  std::vector<char> depth_;
};

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && IsBlank(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && IsBlank(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return text;
}

}  // namespace

bool IsSafeForEval(std::string_view script) { return TopLevelScanner(script).Safe(); }

bool IsJavaScriptType(std::string_view type) {
  static constexpr std::string_view kTypes[] = {"application/ecmascript",
                                                "application/javascript",
                                                "application/x-ecmascript",
                                                "application/x-javascript",
                                                "text/ecmascript",
                                                "text/javascript",
                                                "text/javascript1.0",
                                                "text/javascript1.1",
                                                "text/javascript1.2",
                                                "text/javascript1.3",
                                                "text/javascript1.4",
                                                "text/javascript1.5",
                                                "text/jscript",
                                                "text/livescript",
                                                "text/x-ecmascript",
                                                "text/x-javascript"};
  type = TrimBlanks(type);
  if (type.empty()) return true;
  for (std::string_view each : kTypes) {
    if (each.size() == type.size() &&
        html::EqualsIgnoringAsciiCase(reinterpret_cast<const unsigned char*>(type.data()),
                                      each.data(), each.size())) {
      return true;
    }
  }
  return false;
}

}  // namespace zelvarpack::page
