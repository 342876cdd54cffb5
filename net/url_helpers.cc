#include "net/url_helpers.h"

#include <cstring>
#include <utility>

#include "core/identifiers.h"
#include "zelvarpack/zelvar_utils.h"

namespace zelvarpack::net {

namespace {

// One entity pass. Matching at the end of the output after each byte finds
// the leftmost match first, and a replacement can only start a new match at
// its own position (no pattern holds its first byte again), so this equals
// "replace the first match and search again from the start" in one sweep.
std::string ReplaceRepeatedly(std::string_view text, std::string_view pattern, char replacement) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    out.push_back(c);
    if (c == pattern.back() && out.size() >= pattern.size() &&
        std::string_view(out).substr(out.size() - pattern.size()) == pattern) {
      out.resize(out.size() - pattern.size());
      out.push_back(replacement);
    }
  }
  return out;
}

char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  }
  return true;
}

bool IsHostByte(unsigned char c) {
  return c > 0x20 && c < 0x7F && std::strchr("<>\"\\^`{|}/?#@%", c) == nullptr;
}

bool NeedsEscapeInPath(unsigned char c) {
  return c <= 0x20 || c >= 0x7F || std::strchr("<>\"\\^`{|}", c) != nullptr;
}

bool ParsePort(std::string_view digits) {
  if (digits.size() > 5) return false;
  unsigned value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  return value <= 65535;
}

}  // namespace

std::string DecodeUrlEntities(std::string_view url) {
  std::string text = ReplaceRepeatedly(url, "&amp;", '&');
  text = ReplaceRepeatedly(text, "&gt;", '>');
  text = ReplaceRepeatedly(text, "&lt;", '<');
  return ReplaceRepeatedly(text, "&quot;", '"');
}

std::optional<CrackedUrl> CrackUrl(std::string_view url) {
  const std::size_t separator = url.find("://");
  if (separator == std::string_view::npos) return std::nullopt;
  CrackedUrl cracked;
  cracked.scheme = std::string(url.substr(0, separator));
  if (!EqualsIgnoringCase(cracked.scheme, "http") && !EqualsIgnoringCase(cracked.scheme, "https")) {
    return std::nullopt;
  }
  std::string_view rest = url.substr(separator + 3);
  rest = rest.substr(0, rest.find('#'));
  const std::size_t authorityEnd = rest.find_first_of("/?");
  std::string_view authority = rest.substr(0, authorityEnd);
  const std::string_view pathAndQuery =
      authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);

  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host = authority;
  std::string_view port;
  if (!authority.empty() && authority.front() == '[') {
    const std::size_t close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(0, close + 1);
    const std::string_view after = authority.substr(close + 1);
    if (!after.empty() && after.front() != ':') return std::nullopt;
    if (!after.empty()) port = after.substr(1);
    if (host.size() < 3 ||
        host.substr(1, host.size() - 2).find_first_not_of("0123456789abcdefABCDEF:.") !=
            std::string_view::npos) {
      return std::nullopt;
    }
  } else if (const std::size_t colon = authority.find(':'); colon != std::string_view::npos) {
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
  }
  if (host.empty() || !ParsePort(port)) return std::nullopt;
  for (const char c : host) {
    if (!IsHostByte(static_cast<unsigned char>(c))) return std::nullopt;
  }
  cracked.host = std::string(host);

  static constexpr char kHex[] = "0123456789ABCDEF";
  if (pathAndQuery.empty() || pathAndQuery.front() != '/') cracked.path.push_back('/');
  for (const char c : pathAndQuery) {
    const auto byte = static_cast<unsigned char>(c);
    if (NeedsEscapeInPath(byte)) {
      cracked.path += '%';
      cracked.path += kHex[byte >> 4];
      cracked.path += kHex[byte & 0xF];
    } else {
      cracked.path += c;
    }
  }
  return cracked;
}

}  // namespace zelvarpack::net

namespace {

std::string_view View(const char* text, std::int32_t length) {
  if (text == nullptr || length <= 0) return {};
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

std::vector<std::string> CZelvarUtils::SplitUrl(const char* text, std::int32_t length) {
  const std::string_view url = View(text, length);
  std::vector<std::string> parts;
  std::string_view rest = url;
  const std::size_t separator = url.find("://");
  if (separator != std::string_view::npos) {
    parts.emplace_back(url.substr(0, separator));
    rest = url.substr(separator + 3);
  } else {
    parts.emplace_back();
  }
  while (true) {
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) {
      // The piece after a trailing slash is empty and is dropped; a host is
      // always kept, even an empty one.
      if (!rest.empty() || parts.size() == 1) parts.emplace_back(rest);
      break;
    }
    parts.emplace_back(rest.substr(0, slash));
    rest.remove_prefix(slash + 1);
  }
  return parts;
}

CZelvarBuffer* CZelvarUtils::ResolveUrl(const char* hostOverride, std::int32_t hostOverrideLength,
                                        const char* baseUrl, std::int32_t baseUrlLength,
                                        const char* reference, std::int32_t referenceLength,
                                        bool useOverride) {
  const std::vector<std::string> base = SplitUrl(baseUrl, baseUrlLength);
  const std::string_view ref = View(reference, referenceLength);
  std::string url = "http://";
  if (useOverride && hostOverride != nullptr) {
    url += View(hostOverride, hostOverrideLength);
  } else {
    url += base[1];
  }
  if (!ref.empty() && ref.front() == '/') {
    url += ref;
  } else {
    // Path segments are base[2..]; the last one is taken for a file name.
    for (std::size_t i = 2; i + 1 < base.size(); ++i) {
      url += '/';
      url += base[i];
    }
    url += '/';
    url += ref;
  }
  auto* result = new CZelvarBuffer();
  result->AddValue(url.data(), static_cast<std::int32_t>(url.size()));
  return result;
}

bool CZelvarUtils::IsCapableBrowser(const char* userAgent, bool excludeVersion9) {
  if (userAgent == nullptr) return false;
  const std::string_view agent(userAgent);
  if (agent.find("MSIE ") == std::string_view::npos) return true;
  if (!excludeVersion9 && agent.find("MSIE 9.") != std::string_view::npos) return true;
  return agent.find("MSIE 10.") != std::string_view::npos ||
         agent.find("MSIE 11.") != std::string_view::npos;
}

std::int32_t CZelvarUtils::UrlHash(const unsigned char* bytes, std::int32_t length) {
  return CollateHash(bytes, length > 0 ? static_cast<std::size_t>(length) : 0);
}

std::string CZelvarUtils::MakeCacheName(std::int32_t urlHash) { return IdFromNumber(urlHash); }
