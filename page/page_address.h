// Addresses of a page's resources: the page's own address taken apart, a
// reference resolved against it the way browsers resolve it (RFC 3986,
// with "." and ".." segments removed and the page's scheme kept), and the
// address a resource is really fetched from when the host fetches through
// another server. Pure functions; any thread.
#ifndef ZELVARPACK_PAGE_PAGE_ADDRESS_H_
#define ZELVARPACK_PAGE_PAGE_ADDRESS_H_

#include <optional>
#include <string>
#include <string_view>

namespace zelvarpack::page {

struct PageAddress {
  std::string scheme;     // lower case: "http" or "https"
  std::string authority;  // host and port as written, user information dropped
  std::string path;       // starts with "/"
  std::string query;      // with its "?", or empty
};

// An absolute http or https address (scheme in any case); nothing for any
// other text. The fragment is dropped.
std::optional<PageAddress> ParsePageAddress(std::string_view text);

// True when `text` starts with "http://" or "https://", in any case.
bool IsHttpAddress(std::string_view text);

// The reference as browsers take it from an attribute: leading and trailing
// blanks removed, tabs and line feeds dropped, and the four entities that
// pages write in addresses ("&amp;", "&lt;", "&gt;", "&quot;") decoded.
std::string CleanReference(std::string_view reference);

// `reference` (cleaned) resolved against `base`; the fragment is dropped.
// Nothing when the result is not an http or https address (data:,
// javascript:, mailto: and the like).
std::optional<PageAddress> Resolve(const PageAddress& base, std::string_view reference);

std::string ToString(const PageAddress& address);

// Whether two authorities name the same host and port (ASCII
// case-insensitive; an absent port equals the scheme's default).
bool SameOrigin(const PageAddress& a, const PageAddress& b);

// `address` with its authority replaced by `server`. A server given as
// "http://host" or "https://host" sets the scheme too; a bare host keeps
// plain http, as a host's own upstream normally speaks it.
std::string OnServer(const PageAddress& address, std::string_view server);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PAGE_ADDRESS_H_
