#include "page/page_address.h"

#include <gtest/gtest.h>

namespace {

using namespace zelvarpack::page;

std::string Resolved(const char* base, const char* reference) {
  const std::optional<PageAddress> page = ParsePageAddress(base);
  if (!page) return "<bad base>";
  const std::optional<PageAddress> address = Resolve(*page, reference);
  return address ? ToString(*address) : "<none>";
}

TEST(PageAddress, ResolvesAsBrowsersDo) {
  const char* base = "https://Example.test:8443/a/b/page.html?x=1#top";
  EXPECT_EQ(Resolved(base, "c.css"), "https://Example.test:8443/a/b/c.css");
  EXPECT_EQ(Resolved(base, "../c.css"), "https://Example.test:8443/a/c.css");
  EXPECT_EQ(Resolved(base, "../../../c.css"), "https://Example.test:8443/c.css");
  EXPECT_EQ(Resolved(base, "./d/./e.js"), "https://Example.test:8443/a/b/d/e.js");
  EXPECT_EQ(Resolved(base, "/root.css?v=2#frag"), "https://Example.test:8443/root.css?v=2");
  EXPECT_EQ(Resolved(base, "//cdn.test/lib.js"), "https://cdn.test/lib.js");
  EXPECT_EQ(Resolved(base, "?v=3"), "https://Example.test:8443/a/b/page.html?v=3");
  EXPECT_EQ(Resolved(base, "HTTP://other.test/x.png"), "http://other.test/x.png");
  EXPECT_EQ(Resolved(base, "  \tc.css\n "), "https://Example.test:8443/a/b/c.css");
  EXPECT_EQ(Resolved(base, "c.css?a=1&amp;b=2"), "https://Example.test:8443/a/b/c.css?a=1&b=2");
  EXPECT_EQ(Resolved(base, "data:image/gif;base64,AAAA"), "<none>");
  EXPECT_EQ(Resolved(base, "javascript:void(0)"), "<none>");
  EXPECT_EQ(Resolved("http://h.test", "x.js"), "http://h.test/x.js");
}

TEST(PageAddress, RefusesWhatIsNotHttp) {
  EXPECT_FALSE(ParsePageAddress("ftp://h.test/x"));
  EXPECT_FALSE(ParsePageAddress("http:///x"));
  EXPECT_FALSE(ParsePageAddress("page.html"));
  EXPECT_TRUE(IsHttpAddress("HTTPS://h.test/"));
  EXPECT_FALSE(IsHttpAddress("httpx://h.test/"));
}

TEST(PageAddress, ComparesHostsAndPortsNotCase) {
  const PageAddress a = *ParsePageAddress("http://Host.test/a");
  EXPECT_TRUE(SameOrigin(a, *ParsePageAddress("http://host.TEST:80/b")));
  EXPECT_FALSE(SameOrigin(a, *ParsePageAddress("http://host.test:8080/b")));
  EXPECT_FALSE(SameOrigin(a, *ParsePageAddress("http://other.test/b")));
  EXPECT_TRUE(
      SameOrigin(*ParsePageAddress("http://[::1]:81/"), *ParsePageAddress("http://[::1]:81/x")));
}

TEST(PageAddress, MovesAnAddressOntoTheServer) {
  const PageAddress a = *ParsePageAddress("https://www.test/css/a.css?v=1");
  EXPECT_EQ(OnServer(a, "127.0.0.5"), "http://127.0.0.5/css/a.css?v=1");
  EXPECT_EQ(OnServer(a, "https://upstream.test/"), "https://upstream.test/css/a.css?v=1");
}

}  // namespace
