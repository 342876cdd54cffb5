#include "zelvarpack/meta_finder.h"

#include <new>
#include <string_view>

#include "html/html_constructor.h"
#include "zelvarpack/zelvar_buffer.h"

CMetaFinder::CMetaFinder() : constructor(new CHtmlConstructor(this)), page(new CZelvarBuffer) {}

CMetaFinder::~CMetaFinder() {
  delete constructor;
  delete page;
}

void* CMetaFinder::Create() {
  // Only a failure to allocate the finder itself gives a null handle.
  return new (std::nothrow) CMetaFinder;
}

void CMetaFinder::AddWork(void* handle, unsigned char* bytes, std::int32_t count) {
  if (handle == nullptr || bytes == nullptr || count <= 0) return;
  static_cast<CMetaFinder*>(handle)->page->AddValue(bytes, count);
}

void CMetaFinder::DoWork(void* handle) {
  if (handle == nullptr) return;
  auto* finder = static_cast<CMetaFinder*>(handle);
  finder->constructor->Tokenizer()->Tokenize(finder->page->GetValue(),
                                             finder->page->GetValueLength());
}

void CMetaFinder::Destroy(void* handle, std::int32_t& result) {
  auto* finder = static_cast<CMetaFinder*>(handle);
  result = (finder != nullptr && finder->found != 0) ? 1 : 0;
  delete finder;
}

// A meta element (start or end tag alike) declares HTML when it has
// http-equiv="content-type" (any case) and a content value containing
// "text/html" (exact case). The first such element decides.
void CMetaFinder::OnTag(HtmlTagToken* tag) {
  if (found != 0 || !tag->name.EqualsIgnoringCase("meta")) return;
  bool content_type_seen = false;
  bool html_content_seen = false;
  for (const HtmlAttribute* attribute = tag->FirstAttribute(); attribute != nullptr;
       attribute = attribute->next) {
    if (attribute->name.EqualsIgnoringCase("http-equiv") &&
        attribute->value.EqualsIgnoringCase("content-type")) {
      content_type_seen = true;
    } else if (attribute->name.EqualsIgnoringCase("content")) {
      const std::string_view value(reinterpret_cast<const char*>(attribute->value.data),
                                   static_cast<std::size_t>(attribute->value.length));
      if (value.find("text/html") != std::string_view::npos) html_content_seen = true;
    }
  }
  found = (content_type_seen && html_content_seen) ? 1 : 0;
}
