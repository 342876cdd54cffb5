// The proxy: the address rule on its own, then whole pages through the
// exported handle interface.
#include "page/proxy_rewriter.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/temp_dir.h"
#include "zelvarpack/proxy.h"

namespace {

using zelvarpack::page::ProxyBase;

TEST(ProxyAddress, MakesEveryKindOfReferenceAbsolute) {
  struct Case {
    const char* page;
    const char* value;
    const char* expected;
  };
  const Case cases[] = {
      {"http://h.test/x/y.html", "img/p.gif", "http://h.test/x/img/p.gif"},
      {"http://h.test/x/y.html", "/s.css", "http://h.test/s.css"},
      {"http://h.test/x/y.html", "//c.test/j.js", "http://c.test/j.js"},
      {"https://h.test:8443/x/y.html", "../up.css", "https://h.test:8443/x/../up.css"},
      {"https://h.test/x/y.html", "http://o.test/a.js", "http://o.test/a.js"},
      {"https://h.test/x/y.html", "HTTPS://o.test/a.js", "HTTPS://o.test/a.js"},
      {"https://h.test/x/y.html", "data:image/gif;base64,R0", "data:image/gif;base64,R0"},
      {"http://h.test/x/y.html", "  a.css\n", "http://h.test/x/a.css"},
      {"http://h.test/x/y.html", "", ""},
      // The page's own query and fragment are not part of its base.
      {"http://h.test/x/y.html?next=/a/b#top", "p.gif", "http://h.test/x/p.gif"},
      {"http://h.test/x/y.html?v=1", "?v=2", "http://h.test/x/y.html?v=2"},
      {"http://h.test", "p.gif", "http://h.test/p.gif"},
      {"http://h.test?q", "/p.gif", "http://h.test/p.gif"},
      // Without a scheme the whole address is the host, and the browser
      // supplies the scheme of the page it serves.
      {"h.test", "p.gif", "//h.test/p.gif"},
      {"h.test/x/", "/s.css", "//h.test/s.css"},
      {"h.test", "//c.test/j.js", "//c.test/j.js"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.page) + " + " + c.value);
    EXPECT_EQ(ProxyBase(c.page).Absolute(c.value), c.expected);
  }
}

TEST(ProxyAddress, TellsSchemesFromPaths) {
  EXPECT_TRUE(zelvarpack::page::HasScheme("javascript:void(0)"));
  EXPECT_TRUE(zelvarpack::page::HasScheme("a+b-c.d:x"));
  EXPECT_FALSE(zelvarpack::page::HasScheme("img/a:b.png"));
  EXPECT_FALSE(zelvarpack::page::HasScheme("1http://x"));
  EXPECT_FALSE(zelvarpack::page::HasScheme(":x"));
  EXPECT_FALSE(zelvarpack::page::HasScheme("noscheme"));
}

std::string Proxied(const std::string& dir, std::string pageUrl, std::string page) {
  std::string folder = dir;
  std::string server = "http://127.0.0.2/zp";
  void* handle = CProxy::Create(
      reinterpret_cast<unsigned char*>(folder.data()), static_cast<std::int32_t>(folder.size()),
      reinterpret_cast<unsigned char*>(pageUrl.data()), static_cast<std::int32_t>(pageUrl.size()),
      reinterpret_cast<unsigned char*>(server.data()), static_cast<std::int32_t>(server.size()));
  for (std::size_t at = 0; at < page.size(); at += 7) {
    CProxy::AddWork(handle, reinterpret_cast<unsigned char*>(page.data() + at),
                    static_cast<std::int32_t>(std::min<std::size_t>(7, page.size() - at)));
  }
  CProxy::DoWork(handle);
  CProxy::DoWork(handle);  // once is all it does
  CProxy::Destroy(handle);
  return ReadWholeFile(dir + "/index.html");
}

TEST(ProxyPage, RewritesResourceAddressesAndCopiesEverythingElse) {
  TempDir dir;
  const std::string page =
      "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Strict//EN\" \"x.dtd\">\n"
      "<html><head><link rel=\"icon\" href=\"fav.ico\"><link rel=stylesheet href=/s.css>"
      "<script src='//cdn.test/j.js' async></script><!--[if IE]>c<![endif]--></head>"
      "<body><a href=other.html>link</a><img src=img/p.gif width=2><img src=\"data:,x\">"
      "<img alt=none><iframe src=frame.html></iframe><script>var s = '<img src=a.gif>';"
      "</script><textarea><img src=t.gif></textarea></body></html>";
  EXPECT_EQ(Proxied(dir.path().string(), "https://h.test/x/y.html", page),
            "<!--zp_no_cache--><!--zp_send_stats--><!--zp_server_url http://127.0.0.2/zp-->"
            "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Strict//EN\" \"x.dtd\">\n"
            "<html><head><link rel=\"icon\" href=\"https://h.test/x/fav.ico\">"
            "<link rel=stylesheet href=\"https://h.test/s.css\">"
            "<script src=\"https://cdn.test/j.js\" async></script><!--[if IE]>c<![endif]--></head>"
            "<body><a href=other.html>link</a><img src=\"https://h.test/x/img/p.gif\" width=2>"
            "<img src=\"data:,x\"><img alt=none><iframe src=frame.html></iframe>"
            "<script>var s = '<img src=a.gif>';</script><textarea><img src=t.gif></textarea>"
            "</body></html>");
}

TEST(ProxyPage, QuotesInThePageAddressCannotBreakOutOfTheAttribute) {
  TempDir dir;
  const std::string out =
      Proxied(dir.path().string(), "http://h.test/a\"b'c/page.html", "<img src=p.gif>");
  EXPECT_NE(out.find("<img src=\"http://h.test/a&quot;b'c/p.gif\">"), std::string::npos) << out;
}

TEST(ProxyPage, NullHandleAndUnwritableFolderAreHarmless) {
  CProxy::AddWork(nullptr, nullptr, 3);
  CProxy::DoWork(nullptr);
  CProxy::Destroy(nullptr);
  TempDir dir;
  const std::string missing = dir.File("missing/deeper");
  EXPECT_EQ(Proxied(missing, "http://h.test/", "<p>x</p>"), "");
}

}  // namespace
