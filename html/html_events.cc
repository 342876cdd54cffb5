#include "zelvarpack/html_events.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "html/ascii.h"

HtmlString::HtmlString() : data(inline_), capacity(kInlineCapacity) {
  std::memset(inline_, 0, sizeof(inline_));
}

HtmlString::~HtmlString() {
  if (data != inline_) std::free(data);
}

void HtmlString::Grow(std::size_t extra) {
  constexpr std::size_t kMax = std::numeric_limits<std::int32_t>::max();
  const std::size_t needed = static_cast<std::size_t>(length) + extra + 1;  // + terminator
  if (extra > kMax || needed > kMax) throw std::bad_alloc();
  if (needed <= static_cast<std::size_t>(capacity)) return;
  // Doubling keeps appends amortised O(1); 64-bit arithmetic keeps the
  // doubled size from wrapping before it is capped.
  const std::size_t doubled = std::min<std::size_t>(2 * static_cast<std::size_t>(capacity), kMax);
  const std::size_t size = std::max(doubled, needed);
  auto* block = static_cast<unsigned char*>(std::malloc(size));
  if (block == nullptr) throw std::bad_alloc();
  std::memcpy(block, data, static_cast<std::size_t>(length) + 1);
  if (data != inline_) std::free(data);
  data = block;
  capacity = static_cast<std::int32_t>(size);
}

void HtmlString::Append(const unsigned char* bytes, std::size_t count) {
  if (count == 0) return;
  if (count >= static_cast<std::size_t>(capacity - length)) Grow(count);
  std::memcpy(data + length, bytes, count);
  length += static_cast<std::int32_t>(count);
  data[length] = 0;
  reset = 0;
}

bool HtmlString::Equals(const char* literal) const {
  const std::size_t n = std::strlen(literal);
  return static_cast<std::size_t>(length) == n && std::memcmp(data, literal, n) == 0;
}

bool HtmlString::EqualsIgnoringCase(const char* literal) const {
  const std::size_t n = std::strlen(literal);
  return static_cast<std::size_t>(length) == n &&
         zelvarpack::html::EqualsIgnoringAsciiCase(data, literal, n);
}

HtmlTagToken::~HtmlTagToken() {
  for (HtmlAttribute* list : {first_attribute_, free_attributes_}) {
    while (list != nullptr) {
      HtmlAttribute* next = list->next;
      delete list;
      list = next;
    }
  }
}

void HtmlTagToken::Reset(Kind new_kind) {
  kind = new_kind;
  name.Forget();
  selfClosing = 0;
  if (first_attribute_ != nullptr) {
    // Splice the whole list onto the free list in O(1).
    last_attribute_->next = free_attributes_;
    free_attributes_ = first_attribute_;
    first_attribute_ = nullptr;
    last_attribute_ = nullptr;
  }
}

HtmlAttribute* HtmlTagToken::AddAttribute() {
  HtmlAttribute* attribute = free_attributes_;
  if (attribute != nullptr) {
    free_attributes_ = attribute->next;
    attribute->name.Forget();
    attribute->value.Forget();
    attribute->flag = 0;
    attribute->quoting = HtmlAttribute::kNoValue;
  } else {
    attribute = new HtmlAttribute;
  }
  attribute->previous = last_attribute_;
  attribute->next = nullptr;
  if (last_attribute_ != nullptr) {
    last_attribute_->next = attribute;
  } else {
    first_attribute_ = attribute;
  }
  last_attribute_ = attribute;
  return attribute;
}

HtmlAttribute* HtmlTagToken::FindAttribute(const char* name) const {
  for (HtmlAttribute* attribute = first_attribute_; attribute != nullptr;
       attribute = attribute->next) {
    if (attribute->name.EqualsIgnoringCase(name)) return attribute;
  }
  return nullptr;
}

HtmlAttribute* HtmlTagToken::FindLastAttribute(const char* name) const {
  for (HtmlAttribute* attribute = last_attribute_; attribute != nullptr;
       attribute = attribute->previous) {
    if (attribute->name.EqualsIgnoringCase(name)) return attribute;
  }
  return nullptr;
}

CHtmlConstructorEvents::~CHtmlConstructorEvents() = default;
void CHtmlConstructorEvents::OnTag(HtmlTagToken*) {}
void CHtmlConstructorEvents::OnDoctype(HtmlDoctypeToken*) {}
void CHtmlConstructorEvents::OnText(HtmlTextToken*) {}
void CHtmlConstructorEvents::OnTextRun(HtmlTextToken* character, const unsigned char* bytes,
                                       std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    character->text.data[0] = bytes[i];
    OnText(character);
  }
}
