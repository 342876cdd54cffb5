#include "page/page_copy.h"

#include "core/cache_files.h"
#include "html/markup_writer.h"
#include "html/tag_record.h"

namespace zelvarpack::page {

std::string CopyOfText(const unsigned char* bytes, std::int32_t length) {
  if (bytes == nullptr || length <= 0) return {};
  return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

void AppendText(std::string& out, const HtmlTextToken& text) {
  if (text.kind == HtmlTextToken::kComment) {
    html::AppendComment(out, html::View(text.text));
  } else {
    out.append(html::View(text.text));
  }
}

std::string InFolder(const std::string& directory, std::string_view name) {
  if (directory.empty()) return std::string(name);
  std::string path = directory;
  if (path.back() != '/') path += '/';
  path += name;
  return path;
}

bool WriteIndexPage(const std::string& directory, std::string_view page) {
  return PublishFile(InFolder(directory, "index.html"), {page}, Publish::kReplace);
}

}  // namespace zelvarpack::page
