// URL text helpers behind the download: entity decoding of URLs taken from
// pages, and the split of an absolute URL into the parts a request needs.
// Pure functions; safe from any thread.
#ifndef ZELVARPACK_NET_URL_HELPERS_H_
#define ZELVARPACK_NET_URL_HELPERS_H_

#include <optional>
#include <string>
#include <string_view>

namespace zelvarpack::net {

// Turns "&amp;", "&gt;", "&lt;" and "&quot;" into their characters, in four
// passes in that order. Within a pass a replacement may form a new match,
// which is replaced too, so "&amp;amp;" becomes "&" and "&amp;lt;" becomes
// "<". Case-sensitive; the semicolon is required. Linear time.
std::string DecodeUrlEntities(std::string_view url);

struct CrackedUrl {
  std::string scheme;  // as written, e.g. "http", "HTTPS"
  std::string host;    // an IPv6 literal keeps its brackets
  std::string path;    // path and query, never empty; the fragment is cut
  // Only the exact scheme "https" is fetched with TLS on port 443; every
  // other accepted spelling is plain HTTP on port 80. A port written in the
  // URL is parsed and ignored.
  bool Secure() const { return scheme == "https"; }
};

// Splits an absolute http or https URL (scheme compared case-insensitively).
// User information is dropped. Bytes of the path that may not appear in a
// request line (controls, space, non-ASCII, and "<>\"\\^`{|}") are
// percent-encoded. Returns nothing for any other scheme, an empty or
// malformed host, or a port that is not a number from 0 to 65535.
std::optional<CrackedUrl> CrackUrl(std::string_view url);

}  // namespace zelvarpack::net

#endif  // ZELVARPACK_NET_URL_HELPERS_H_
