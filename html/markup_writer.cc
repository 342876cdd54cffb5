#include "html/markup_writer.h"

#include "html/ascii.h"

namespace zelvarpack::html {

namespace {

bool SameName(std::string_view name, std::string_view wanted) {
  return name.size() == wanted.size() &&
         EqualsIgnoringAsciiCase(reinterpret_cast<const unsigned char*>(name.data()), wanted.data(),
                                 wanted.size());
}

}  // namespace

bool NameIsOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  for (std::string_view each : names) {
    if (SameName(name, each)) return true;
  }
  return false;
}

void AppendAttribute(std::string& out, std::string_view name, std::string_view value,
                     HtmlAttribute::Quoting quoting) {
  out += ' ';
  out += name;
  switch (quoting) {
    case HtmlAttribute::kSingleQuoted:
      out += "='";
      out += value;
      out += '\'';
      return;
    case HtmlAttribute::kUnquoted:
      if (value.empty()) return;
      out += '=';
      out += value;
      return;
    case HtmlAttribute::kNoValue:
      // A value without a recorded quoting only comes from a receiver that
      // forced a value state; quote it so that it stays one attribute.
      if (value.empty()) return;
      [[fallthrough]];
    case HtmlAttribute::kDoubleQuoted:
      out += "=\"";
      out += value;
      out += '"';
      return;
  }
}

namespace {

// After an unquoted value a "/" would join the value: `<img src=a.png/>`
// gives src "a.png/". A blank keeps it apart.
void AppendEnd(std::string& out, bool selfClosing, bool lastWasUnquotedValue) {
  if (!selfClosing) {
    out += '>';
  } else {
    out += lastWasUnquotedValue ? " />" : "/>";
  }
}

bool IsUnquotedValue(HtmlAttribute::Quoting quoting, std::string_view value) {
  return quoting == HtmlAttribute::kUnquoted && !value.empty();
}

}  // namespace

void AppendTag(std::string& out, const HtmlTagToken& tag) {
  out += tag.kind == HtmlTagToken::kEndTag ? "</" : "<";
  out += View(tag.name);
  bool lastUnquoted = false;
  for (const HtmlAttribute* a = tag.FirstAttribute(); a != nullptr; a = a->next) {
    AppendAttribute(out, View(a->name), View(a->value), a->quoting);
    lastUnquoted = IsUnquotedValue(a->quoting, View(a->value));
  }
  AppendEnd(out, tag.selfClosing != 0, lastUnquoted);
}

bool AppendTagOpening(std::string& out, const TagRecord& tag,
                      std::initializer_list<std::string_view> omit) {
  out += tag.kind == HtmlTagToken::kEndTag ? "</" : "<";
  out += tag.name;
  bool lastUnquoted = false;
  for (const AttributeRecord& attribute : tag.attributes) {
    if (omit.size() != 0 && NameIsOneOf(attribute.name, omit)) continue;
    AppendAttribute(out, attribute.name, attribute.value, attribute.quoting);
    lastUnquoted = IsUnquotedValue(attribute.quoting, attribute.value);
  }
  return lastUnquoted;
}

void AppendTag(std::string& out, const TagRecord& tag,
               std::initializer_list<std::string_view> omit) {
  const bool lastUnquoted = AppendTagOpening(out, tag, omit);
  AppendEnd(out, tag.selfClosing, lastUnquoted);
}

void AppendDoctype(std::string& out, const HtmlDoctypeToken& doctype) {
  out += "<!DOCTYPE ";
  out += View(doctype.name);
  // An identifier counts as given when it has bytes or was written as "".
  if (doctype.publicId.length > 0 || doctype.publicId.reset != 0) {
    out += " PUBLIC \"";
    out += View(doctype.publicId);
    out += '"';
  }
  if (doctype.systemId.length > 0 || doctype.systemId.reset != 0) {
    out += " \"";
    out += View(doctype.systemId);
    out += '"';
  }
  out += '>';
}

void AppendComment(std::string& out, std::string_view body) {
  out += "<!--";
  out += body;
  out += "-->";
}

}  // namespace zelvarpack::html
