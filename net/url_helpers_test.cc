#include "net/url_helpers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "net/http_date.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

using zelvarpack::net::CrackUrl;
using zelvarpack::net::DecodeUrlEntities;

// The rule as stated: replace the first match, search again from the start.
std::string NaiveDecode(std::string text) {
  const std::pair<std::string, std::string> passes[] = {
      {"&amp;", "&"}, {"&gt;", ">"}, {"&lt;", "<"}, {"&quot;", "\""}};
  for (const auto& [from, to] : passes) {
    for (std::size_t at; (at = text.find(from)) != std::string::npos;)
      text.replace(at, from.size(), to);
  }
  return text;
}

TEST(DecodeUrlEntities, CollapsesNestedEncodingsPassByPass) {
  const std::pair<const char*, const char*> cases[] = {
      {"a.css?x=1&amp;amp;y=2", "a.css?x=1&y=2"},
      {"&amp;lt;b&amp;gt;", "<b>"},
      {"&amp;quot;&quot;", "\"\""},
      {"&AMP;&amp&lt&gt;;", "&AMP;&amp&lt>;"},
      {"&lt;amp;", "<amp;"},  // the &amp; pass runs before &lt;
      {"&&amp;amp;amp;;", "&&;"},
  };
  for (const auto& [in, out] : cases) {
    SCOPED_TRACE(in);
    EXPECT_EQ(DecodeUrlEntities(in), out);
  }
}

TEST(DecodeUrlEntities, AgreesWithReplaceFirstAndRestart) {
  std::mt19937 random(7);
  const char pieces[][6] = {"&", "amp;", "a", "m", "p", ";", "lt;", "gt;", "quot;", "&amp;", "x"};
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    const int count = static_cast<int>(random() % 12);
    for (int i = 0; i < count; ++i) text += pieces[random() % std::size(pieces)];
    SCOPED_TRACE(text);
    ASSERT_EQ(DecodeUrlEntities(text), NaiveDecode(text));
  }
}

TEST(CrackUrl, TakesSchemeHostAndPathButNeverThePort) {
  struct Case {
    const char* url;
    const char* host;
    const char* path;
    bool secure;
  };
  const Case cases[] = {
      {"http://h.example:8080/a/b.css?x=1#frag", "h.example", "/a/b.css?x=1", false},
      {"https://h.example:8443/", "h.example", "/", true},
      {"HTTPS://h.example/x", "h.example", "/x", false},  // only "https" exactly is secure
      {"http://user:pw@h.example", "h.example", "/", false},
      {"http://h.example?q=1", "h.example", "/?q=1", false},
      {"http://[::1]:81/a b\"\xe9", "[::1]", "/a%20b%22%E9", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    const auto cracked = CrackUrl(c.url);
    ASSERT_TRUE(cracked.has_value());
    EXPECT_EQ(cracked->host, c.host);
    EXPECT_EQ(cracked->path, c.path);
    EXPECT_EQ(cracked->Secure(), c.secure);
  }
  for (const char* bad : {"ftp://h/x", "h.example/x", "http://", "http://:80/", "http://h:x/",
                          "http://h:65536/", "http://[::1/", "http://a b/", "http://h\\x/"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(CrackUrl(bad).has_value());
  }
}

std::vector<std::string> Split(const std::string& text) {
  return CZelvarUtils::SplitUrl(text.data(), static_cast<std::int32_t>(text.size()));
}

TEST(SplitUrl, SchemeHostThenSegments) {
  using V = std::vector<std::string>;
  EXPECT_EQ(Split("http://h/a/b.css"), (V{"http", "h", "a", "b.css"}));
  EXPECT_EQ(Split("http://h/a/"), (V{"http", "h", "a"}));
  EXPECT_EQ(Split("http://h//a"), (V{"http", "h", "", "a"}));
  EXPECT_EQ(Split("http://h"), (V{"http", "h"}));
  EXPECT_EQ(Split("http://"), (V{"http", ""}));
  EXPECT_EQ(Split("h/a"), (V{"", "h", "a"}));
  EXPECT_EQ(Split(""), (V{"", ""}));
}

std::string Resolve(const char* base, const char* reference, const char* host = nullptr,
                    bool useOverride = false) {
  std::unique_ptr<CZelvarBuffer> url(CZelvarUtils::ResolveUrl(
      host, host != nullptr ? static_cast<std::int32_t>(std::strlen(host)) : 0, base,
      static_cast<std::int32_t>(std::strlen(base)), reference,
      static_cast<std::int32_t>(std::strlen(reference)), useOverride));
  return std::string(reinterpret_cast<char*>(url->GetValue()),
                     static_cast<std::size_t>(url->GetValueLength()));
}

TEST(ResolveUrl, KeepsItsRequiredQuirks) {
  EXPECT_EQ(Resolve("https://h/a/b/page.html", "x.css"), "http://h/a/b/x.css");
  EXPECT_EQ(Resolve("http://h/a/b/page.html", "/x.css"), "http://h/x.css");
  EXPECT_EQ(Resolve("http://h/a/", "x.css"), "http://h/x.css");  // the last segment always goes
  EXPECT_EQ(Resolve("http://h", "x.css"), "http://h/x.css");
  EXPECT_EQ(Resolve("http://h/a/p?q=1/2", "../x.css"), "http://h/a/p?q=1/../x.css");
  EXPECT_EQ(Resolve("http://h/a/p", "x.css", "other:81", true), "http://other:81/a/x.css");
  EXPECT_EQ(Resolve("http://h/a/p", "x.css", "other", false), "http://h/a/x.css");
  EXPECT_EQ(Resolve("http://h/a/p", "x.css", nullptr, true), "http://h/a/x.css");
}

TEST(IsCapableBrowser, RejectsOldInternetExplorerOnly) {
  EXPECT_FALSE(CZelvarUtils::IsCapableBrowser(nullptr, false));
  EXPECT_TRUE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (X11; Linux) Firefox/120.0", true));
  EXPECT_FALSE(CZelvarUtils::IsCapableBrowser("Mozilla/4.0 (compatible; MSIE 8.0)", false));
  EXPECT_TRUE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (compatible; MSIE 9.0)", false));
  EXPECT_FALSE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (compatible; MSIE 9.0)", true));
  EXPECT_TRUE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (compatible; MSIE 10.0)", true));
  EXPECT_TRUE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (compatible; MSIE 11.0)", true));
  EXPECT_FALSE(CZelvarUtils::IsCapableBrowser("Mozilla/5.0 (compatible; MSIE 12.0)", false));
}

// Cache names must never change: entries written by one build are read by
// the next. Values from an independent implementation of the rule.
TEST(MakeCacheName, IsFixedForAUrl) {
  const std::string url = "http://www.example.com/styles/site.css?v=2&x=\xe9";
  const std::int32_t h0 = CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(url.data()),
                                                static_cast<std::int32_t>(url.size()));
  EXPECT_EQ(static_cast<std::uint32_t>(h0), 0x11B5B7EBu);
  EXPECT_EQ(CZelvarUtils::MakeCacheName(h0), "{11B5B7EB-6895-99A2-A59B-A6A19EA29FA2}");
  EXPECT_EQ(CZelvarUtils::MakeCacheName(0), "{00000000-0030-3438-69A2-A5A7A6A39DA2}");
}

TEST(ParseHttpDate, ReadsTheThreeFormsAndRejectsTheRest) {
  using zelvarpack::net::ParseHttpDate;
  constexpr std::int64_t kNov6 = 784111777;
  EXPECT_EQ(ParseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"), kNov6);
  EXPECT_EQ(ParseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT"), kNov6);
  EXPECT_EQ(ParseHttpDate("Sun Nov  6 08:49:37 1994"), kNov6);
  EXPECT_EQ(ParseHttpDate("Thu, 01 Jan 1970 00:00:00 GMT"), 0);
  EXPECT_EQ(ParseHttpDate("Tue, 29 Feb 2028 23:59:59 GMT"), 1835481599);
  for (const char* bad : {"0", "-1", "", "Sun, 06 Nov 1994", "Sun, 31 Feb 2020 00:00:00 GMT",
                          "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Foo 1994 08:49:37 GMT",
                          "Sun, 06 Nov 1994 08:49:37 CET"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(ParseHttpDate(bad).has_value());
  }
}

}  // namespace
