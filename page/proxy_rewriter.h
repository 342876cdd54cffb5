// How the proxy makes a resource address absolute against the page's own
// address, apart from the page consumer that uses it so that the rule can
// be checked on its own. Pure; any thread.
#ifndef ZELVARPACK_PAGE_PROXY_REWRITER_H_
#define ZELVARPACK_PAGE_PROXY_REWRITER_H_

#include <string>
#include <string_view>

namespace zelvarpack::page {

// The page's address taken apart the simple way: scheme before the first
// "://", host up to the next "/" (or "?" or "#"), base up to and including
// the last "/" of the path. Without "://" the whole address (up to "/", "?"
// or "#") is the host and the scheme is left to the browser.
class ProxyBase {
 public:
  explicit ProxyBase(std::string_view pageUrl);

  // `value` (an attribute value) made absolute:
  //   "//c/j.js"  -> scheme + ":" + value
  //   "/s.css"    -> scheme + "://" + host + value
  //   "img/p.gif" -> base + value
  // A value that names its own scheme ("http:", "https:", "data:", ...)
  // and an empty value stay as they are; "?q" and "#f" keep the page's path.
  // Blanks around the value are dropped, as browsers drop them.
  std::string Absolute(std::string_view value) const;

 private:
  std::string scheme_;
  std::string origin_;  // scheme + "://" + host, or "//" + host
  std::string base_;    // origin_ + the path up to and including its last "/"
  std::string page_;    // origin_ + the whole path, without query or fragment
};

// True when `value` begins with a URL scheme and ":" ("http:", "data:").
bool HasScheme(std::string_view value);

}  // namespace zelvarpack::page

#endif  // ZELVARPACK_PAGE_PROXY_REWRITER_H_
