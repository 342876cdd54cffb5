#include "page/proxy_rewriter.h"

#include <new>
#include <string>

#include "html/ascii.h"
#include "html/html_constructor.h"
#include "html/markup_writer.h"
#include "html/tag_record.h"
#include "page/page_copy.h"
#include "zelvarpack/proxy.h"
#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::page {

namespace {

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool HasScheme(std::string_view value) {
  // Per RFC 3986: ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ) ":".
  if (value.empty() || !IsAsciiLetter(value[0])) return false;
  for (std::size_t i = 1; i < value.size(); ++i) {
    const char c = value[i];
    if (c == ':') return true;
    if (!IsAsciiLetter(c) && !IsAsciiDigit(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return false;
}

ProxyBase::ProxyBase(std::string_view pageUrl) {
  std::string_view rest = pageUrl;
  const std::size_t mark = pageUrl.find("://");
  if (mark != std::string_view::npos) {
    scheme_ = std::string(pageUrl.substr(0, mark));
    rest = pageUrl.substr(mark + 3);
  }
  const std::size_t hostEnd = rest.find_first_of("/?#");
  const std::string_view host = rest.substr(0, hostEnd);
  origin_ = scheme_.empty() ? "//" + std::string(host) : scheme_ + "://" + std::string(host);
  std::string_view path =
      hostEnd == std::string_view::npos ? std::string_view() : rest.substr(hostEnd);
  path = path.substr(0, path.find_first_of("?#"));
  if (path.empty()) path = "/";
  page_ = origin_ + std::string(path);
  base_ = origin_ + std::string(path.substr(0, path.rfind('/') + 1));
}

std::string ProxyBase::Absolute(std::string_view value) const {
  const std::string_view v = html::TrimHtmlSpace(value);
  if (v.empty() || HasScheme(v)) return std::string(value);
  if (v.substr(0, 2) == "//")
    return scheme_.empty() ? std::string(v) : scheme_ + ":" + std::string(v);
  if (v[0] == '/') return origin_ + std::string(v);
  if (v[0] == '?' || v[0] == '#') return page_ + std::string(v);
  return base_ + std::string(v);
}

}  // namespace zelvarpack::page

struct CProxy::State {
  explicit State(CProxy* owner) : constructor(owner), base("") {}

  std::string directory;
  std::string pageUrl;
  std::string serverUrl;
  CHtmlConstructor constructor;
  zelvarpack::page::ProxyBase base;
  CZelvarBuffer input;
  std::string output;
  bool worked = false;
};

CProxy::CProxy() : state_(std::make_unique<State>(this)) {}

CProxy::~CProxy() = default;

void* CProxy::Create(unsigned char* directory, std::int32_t directoryLength, unsigned char* pageUrl,
                     std::int32_t pageUrlLength, unsigned char* serverUrl,
                     std::int32_t serverUrlLength) {
  auto* proxy = new (std::nothrow) CProxy;
  if (proxy == nullptr) return nullptr;
  State& state = *proxy->state_;
  state.directory = zelvarpack::page::CopyOfText(directory, directoryLength);
  state.pageUrl = zelvarpack::page::CopyOfText(pageUrl, pageUrlLength);
  state.base = zelvarpack::page::ProxyBase(state.pageUrl);
  state.serverUrl = zelvarpack::page::CopyOfText(serverUrl, serverUrlLength);
  state.output =
      "<!--zp_no_cache--><!--zp_send_stats--><!--zp_server_url " + state.serverUrl + "-->";
  return proxy;
}

void CProxy::AddWork(void* handle, unsigned char* data, std::int32_t length) {
  if (handle == nullptr || data == nullptr || length <= 0) return;
  static_cast<CProxy*>(handle)->state_->input.AddValue(data, length);
}

void CProxy::DoWork(void* handle) {
  if (handle == nullptr) return;
  State& state = *static_cast<CProxy*>(handle)->state_;
  if (state.worked) return;
  state.worked = true;
  state.constructor.Tokenizer()->Tokenize(state.input.GetValue(), state.input.GetValueLength());
  zelvarpack::page::WriteIndexPage(state.directory, state.output);
}

void CProxy::Destroy(void* handle) { delete static_cast<CProxy*>(handle); }

void CProxy::OnTag(HtmlTagToken* tag) {
  const char* attribute = nullptr;
  if (tag->kind == HtmlTagToken::kStartTag) {
    if (tag->name.EqualsIgnoringCase("img") || tag->name.EqualsIgnoringCase("script")) {
      attribute = "src";
    } else if (tag->name.EqualsIgnoringCase("link")) {
      attribute = "href";
    }
  }
  if (attribute == nullptr || tag->FindAttribute(attribute) == nullptr) {
    zelvarpack::html::AppendTag(state_->output, *tag);
    return;
  }
  zelvarpack::html::TagRecord record = zelvarpack::html::TagRecord::CopyOf(*tag);
  for (zelvarpack::html::AttributeRecord& each : record.attributes) {
    if (!zelvarpack::html::NameIsOneOf(each.name, {attribute})) continue;
    std::string absolute = state_->base.Absolute(each.value);
    if (absolute == each.value) continue;
    each.value = std::move(absolute);
    // A rewritten value is always quoted: the page's base may hold blanks
    // or quotes that an unquoted value could not.
    if (each.value.find('"') == std::string::npos) {
      each.quoting = HtmlAttribute::kDoubleQuoted;
    } else if (each.value.find('\'') == std::string::npos) {
      each.quoting = HtmlAttribute::kSingleQuoted;
    } else {
      // Both kinds of quote: the double quotes become their reference.
      std::string escaped;
      for (char c : each.value) escaped += c == '"' ? std::string("&quot;") : std::string(1, c);
      each.value = std::move(escaped);
      each.quoting = HtmlAttribute::kDoubleQuoted;
    }
  }
  zelvarpack::html::AppendTag(state_->output, record);
}

void CProxy::OnDoctype(HtmlDoctypeToken* doctype) {
  zelvarpack::html::AppendDoctype(state_->output, *doctype);
}

void CProxy::OnText(HtmlTextToken* text) { zelvarpack::page::AppendText(state_->output, *text); }
