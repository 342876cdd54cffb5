#include "html/tag_record.h"

#include "html/ascii.h"

namespace zelvarpack::html {

namespace {

bool SameName(const std::string& name, std::string_view wanted) {
  return name.size() == wanted.size() &&
         EqualsIgnoringAsciiCase(reinterpret_cast<const unsigned char*>(name.data()), wanted.data(),
                                 wanted.size());
}

}  // namespace

std::string_view View(const HtmlString& text) {
  return {reinterpret_cast<const char*>(text.data), static_cast<std::size_t>(text.length)};
}

TagRecord TagRecord::CopyOf(const HtmlTagToken& tag) {
  TagRecord record;
  record.kind = static_cast<HtmlTagToken::Kind>(tag.kind);
  record.name = View(tag.name);
  record.selfClosing = tag.selfClosing != 0;
  for (const HtmlAttribute* a = tag.FirstAttribute(); a != nullptr; a = a->next) {
    record.attributes.push_back(
        {std::string(View(a->name)), std::string(View(a->value)), a->quoting});
  }
  return record;
}

const AttributeRecord* TagRecord::Find(std::string_view wanted) const {
  for (const AttributeRecord& attribute : attributes) {
    if (SameName(attribute.name, wanted)) return &attribute;
  }
  return nullptr;
}

const AttributeRecord* TagRecord::FindLast(std::string_view wanted) const {
  for (auto it = attributes.rbegin(); it != attributes.rend(); ++it) {
    if (SameName(it->name, wanted)) return &*it;
  }
  return nullptr;
}

}  // namespace zelvarpack::html
