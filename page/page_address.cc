#include "page/page_address.h"

#include <vector>

#include "html/ascii.h"
#include "net/url_helpers.h"

namespace zelvarpack::page {

namespace {

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(html::ToAsciiLower(static_cast<unsigned char>(c)));
  return out;
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && Lower(text.substr(0, prefix.size())) == prefix;
}

// RFC 3986 section 5.2.4.
std::string RemoveDotSegments(std::string_view path) {
  std::vector<std::string_view> kept;
  std::size_t start = 0;
  const bool absolute = !path.empty() && path.front() == '/';
  if (absolute) start = 1;
  bool trailingSlash = false;
  while (start <= path.size()) {
    const std::size_t slash = path.find('/', start);
    const std::size_t end = slash == std::string_view::npos ? path.size() : slash;
    const std::string_view segment = path.substr(start, end - start);
    const bool last = slash == std::string_view::npos;
    if (segment == ".") {
      trailingSlash = last;
    } else if (segment == "..") {
      if (!kept.empty()) kept.pop_back();
      trailingSlash = last;
    } else {
      kept.push_back(segment);
      trailingSlash = false;
    }
    if (last) break;
    start = slash + 1;
  }
  std::string out = absolute ? "/" : "";
  for (std::size_t i = 0; i < kept.size(); ++i) {
    if (i > 0) out += '/';
    out += kept[i];
  }
  if (trailingSlash && !out.empty() && out.back() != '/') out += '/';
  return out;
}

std::string_view DropFragment(std::string_view text) {
  const std::size_t hash = text.find('#');
  return hash == std::string_view::npos ? text : text.substr(0, hash);
}

// Splits "path?query" into the two.
void SplitQuery(std::string_view text, std::string& path, std::string& query) {
  const std::size_t mark = text.find('?');
  if (mark == std::string_view::npos) {
    path = text;
    query.clear();
  } else {
    path = text.substr(0, mark);
    query = text.substr(mark);
  }
}

std::string_view DefaultPort(std::string_view scheme) { return scheme == "https" ? "443" : "80"; }

void SplitAuthority(std::string_view authority, std::string_view scheme, std::string& host,
                    std::string& port) {
  std::size_t colon = std::string_view::npos;
  if (!authority.empty() && authority.front() == '[') {
    const std::size_t close = authority.find(']');
    if (close != std::string_view::npos && close + 1 < authority.size() &&
        authority[close + 1] == ':') {
      colon = close + 1;
    }
  } else {
    colon = authority.rfind(':');
  }
  if (colon == std::string_view::npos) {
    host = Lower(authority);
    port = DefaultPort(scheme);
  } else {
    host = Lower(authority.substr(0, colon));
    port = authority.substr(colon + 1);
    if (port.empty()) port = DefaultPort(scheme);
  }
}

}  // namespace

bool IsHttpAddress(std::string_view text) {
  return StartsWithIgnoringCase(text, "http://") || StartsWithIgnoringCase(text, "https://");
}

std::optional<PageAddress> ParsePageAddress(std::string_view text) {
  text = DropFragment(text);
  const std::size_t colon = text.find("://");
  if (colon == std::string_view::npos) return std::nullopt;
  PageAddress address;
  address.scheme = Lower(text.substr(0, colon));
  if (address.scheme != "http" && address.scheme != "https") return std::nullopt;
  std::string_view rest = text.substr(colon + 3);
  const std::size_t authorityEnd = rest.find_first_of("/?");
  std::string_view authority = rest.substr(0, authorityEnd);
  const std::size_t at = authority.rfind('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (authority.empty()) return std::nullopt;
  address.authority = authority;
  rest = authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
  SplitQuery(rest, address.path, address.query);
  address.path = RemoveDotSegments(address.path);
  if (address.path.empty()) address.path.assign(1, '/');
  return address;
}

std::string CleanReference(std::string_view reference) {
  reference = html::TrimHtmlSpace(reference);
  std::string kept;
  kept.reserve(reference.size());
  for (char c : reference) {
    if (c != '\t' && c != '\n' && c != '\r') kept += c;
  }
  return net::DecodeUrlEntities(kept);
}

std::optional<PageAddress> Resolve(const PageAddress& base, std::string_view reference) {
  const std::string cleaned = CleanReference(reference);
  const std::string_view ref = DropFragment(cleaned);
  // A scheme: letters, digits, "+", "-", "." before the first ":".
  std::size_t i = 0;
  while (i < ref.size() && (html::IsAsciiAlpha(static_cast<unsigned char>(ref[i])) ||
                            (i > 0 && ((ref[i] >= '0' && ref[i] <= '9') || ref[i] == '+' ||
                                       ref[i] == '-' || ref[i] == '.')))) {
    ++i;
  }
  if (i > 0 && i < ref.size() && ref[i] == ':') {
    const std::string scheme = Lower(ref.substr(0, i));
    if (scheme != "http" && scheme != "https") return std::nullopt;
    // "http:x" without slashes: browsers read it as relative when the
    // scheme is the base's own; anything else is taken as absolute.
    if (ref.compare(i, 3, "://") == 0) return ParsePageAddress(ref);
    if (scheme != base.scheme) return std::nullopt;
    return Resolve(base, ref.substr(i + 1));
  }
  if (ref.substr(0, 2) == "//") return ParsePageAddress(base.scheme + ":" + std::string(ref));
  PageAddress out;
  out.scheme = base.scheme;
  out.authority = base.authority;
  if (ref.empty()) {
    out.path = base.path;
    out.query = base.query;
    return out;
  }
  std::string path;
  std::string query;
  SplitQuery(ref, path, query);
  if (path.empty()) {
    out.path = base.path;
  } else if (path.front() == '/') {
    out.path = RemoveDotSegments(path);
  } else {
    const std::size_t lastSlash = base.path.rfind('/');
    out.path = RemoveDotSegments(base.path.substr(0, lastSlash + 1) + path);
  }
  out.query = query;
  if (out.path.empty()) out.path.assign(1, '/');
  return out;
}

std::string ToString(const PageAddress& address) {
  return address.scheme + "://" + address.authority + address.path + address.query;
}

bool SameOrigin(const PageAddress& a, const PageAddress& b) {
  std::string hostA, portA, hostB, portB;
  SplitAuthority(a.authority, a.scheme, hostA, portA);
  SplitAuthority(b.authority, b.scheme, hostB, portB);
  return hostA == hostB && portA == portB;
}

std::string OnServer(const PageAddress& address, std::string_view server) {
  std::string scheme = "http";
  if (StartsWithIgnoringCase(server, "https://")) {
    scheme = "https";
    server.remove_prefix(8);
  } else if (StartsWithIgnoringCase(server, "http://")) {
    server.remove_prefix(7);
  }
  while (!server.empty() && server.back() == '/') server.remove_suffix(1);
  return scheme + "://" + std::string(server) + address.path + address.query;
}

}  // namespace zelvarpack::page
