// Writing markup back: one writer for tags, DOCTYPEs and comments, shared by
// every page consumer that copies a page (the page optimiser, the savings
// calculator, the proxy), so that a tag comes out the same way everywhere.
//
// A tag is written as "<" (or "</"), the name, then each attribute as a
// blank, the name and, when it had a value, "=" and the value in the quotes
// it was written with (none when it was unquoted); an attribute that had no
// value is written as its bare name, since `<input disabled type=x>` written
// as `disabled= type=x` would give `disabled` the value "type=x". Then "/>"
// for a self-closing tag (" />" after an unquoted value, which would
// otherwise take the slash), else ">". Bytes are copied as they stand: the
// tokenizer decodes nothing, so nothing needs encoding again.
#ifndef ZELVARPACK_HTML_MARKUP_WRITER_H_
#define ZELVARPACK_HTML_MARKUP_WRITER_H_

#include <initializer_list>
#include <string>
#include <string_view>

#include "html/tag_record.h"
#include "zelvarpack/html_events.h"

namespace zelvarpack::html {

void AppendAttribute(std::string& out, std::string_view name, std::string_view value,
                     HtmlAttribute::Quoting quoting);

// The whole tag.
void AppendTag(std::string& out, const HtmlTagToken& tag);
// The whole tag, leaving out the attributes whose names are in `omit`
// (compared ASCII case-insensitively).
void AppendTag(std::string& out, const TagRecord& tag,
               std::initializer_list<std::string_view> omit = {});
// "<" or "</" and the name, then the attributes not in `omit`; no ">".
// Returns whether the last attribute written has an unquoted value.
bool AppendTagOpening(std::string& out, const TagRecord& tag,
                      std::initializer_list<std::string_view> omit);

// "<!DOCTYPE" + " " + name, then " PUBLIC \"id\"" with a public identifier,
// then " \"id\"" with a system identifier, then ">".
void AppendDoctype(std::string& out, const HtmlDoctypeToken& doctype);

// "<!--" + body + "-->".
void AppendComment(std::string& out, std::string_view body);

// True when `name` equals one of `names`, ASCII case-insensitively.
bool NameIsOneOf(std::string_view name, std::initializer_list<std::string_view> names);

}  // namespace zelvarpack::html

#endif  // ZELVARPACK_HTML_MARKUP_WRITER_H_
