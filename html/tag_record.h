// TagRecord is an owned copy of a tag token: the token records of the
// tokenizer are reused from token to token, so a consumer that keeps a tag
// past its event (the page optimiser's segments) copies it into one of these.
// A plain value type; not shared between threads while being changed.
#ifndef ZELVARPACK_HTML_TAG_RECORD_H_
#define ZELVARPACK_HTML_TAG_RECORD_H_

#include <string>
#include <string_view>
#include <vector>

#include "zelvarpack/html_events.h"

namespace zelvarpack::html {

struct AttributeRecord {
  std::string name;
  std::string value;
  HtmlAttribute::Quoting quoting = HtmlAttribute::kNoValue;
};

struct TagRecord {
  HtmlTagToken::Kind kind = HtmlTagToken::kStartTag;
  std::string name;
  bool selfClosing = false;
  std::vector<AttributeRecord> attributes;  // in source order, repeats kept

  static TagRecord CopyOf(const HtmlTagToken& tag);

  // The first / last attribute named `name` (ASCII case-insensitively), or
  // null. Where browsers honour the first of repeated attributes, Find is the
  // one to use; FindLast serves rules written for the last.
  const AttributeRecord* Find(std::string_view name) const;
  const AttributeRecord* FindLast(std::string_view name) const;
};

std::string_view View(const HtmlString& text);

}  // namespace zelvarpack::html

#endif  // ZELVARPACK_HTML_TAG_RECORD_H_
