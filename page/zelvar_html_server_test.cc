// The page optimiser end to end against servers on loopback: a real nginx
// serving the sample site for the golden page, and a scripted server for
// slow, silent and counted resources.
#include "zelvarpack/zelvar_html_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "page/page_state.h"
#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"

namespace {

namespace fs = std::filesystem;

struct Settings {
  std::string pageUrl;
  std::string cache;
  std::int32_t timeout = 20;
  std::string handlerPath;
  std::string serverAddress;
  std::string clientAddress;
  bool keepComments = false;
  bool fetchForeign = false;
  const char* userAgent = "Mozilla/5.0 (X11; Linux x86_64) Chrome/156.0";
};

struct Optimised {
  std::string page;
  std::int32_t requestsBefore = 0;
  std::int32_t requestsAfter = 0;
  std::int32_t bytesBefore = 0;
  std::int32_t bytesAfter = 0;
  std::string linkedStylesId;
  std::string inlineStylesId;
  std::string fetchedScriptsId;
  std::string inlineScriptsId;
  std::array<std::string, 4> sheetIds;
  bool sendStats = false;
};

template <typename Server = CZelvarHtmlServer>
std::unique_ptr<Server> MakeServer(Settings& s) {
  return std::make_unique<Server>(
      s.cache.data(), 1, s.fetchForeign, s.keepComments, s.serverAddress.empty(), s.timeout,
      s.handlerPath.data(), nullptr,
      s.clientAddress.empty() ? nullptr : reinterpret_cast<unsigned char*>(s.clientAddress.data()),
      static_cast<std::int32_t>(s.clientAddress.size()),
      s.serverAddress.empty() ? nullptr : reinterpret_cast<unsigned char*>(s.serverAddress.data()),
      static_cast<std::int32_t>(s.serverAddress.size()),
      reinterpret_cast<unsigned char*>(s.pageUrl.data()),
      static_cast<std::int32_t>(s.pageUrl.size()), "utf-8", "en", nullptr, nullptr, s.userAgent);
}

template <typename Server = CZelvarHtmlServer>
Optimised Optimise(std::string page, Settings s) {
  auto server = MakeServer<Server>(s);
  server->AddWork(reinterpret_cast<unsigned char*>(page.data()),
                  static_cast<std::int32_t>(page.size()));
  server->DoWork();
  Optimised o;
  bool gzip = false;
  CZelvarBuffer* out = server->GetRawZelvarBuffer(gzip);
  o.page.assign(reinterpret_cast<const char*>(out->GetValue()),
                static_cast<std::size_t>(out->GetValueLength()));
  o.requestsBefore = server->GetRequestsBefore();
  o.requestsAfter = server->GetRequestsAfter();
  o.bytesBefore = server->GetBytesBefore(false);
  o.bytesAfter = server->GetBytesAfter(out->GetValueLength(), false);
  const zelvarpack::page::PageState& state = zelvarpack::page::StateOf(*server);
  o.linkedStylesId = state.linkedStylesId;
  o.inlineStylesId = state.inlineStylesId;
  o.fetchedScriptsId = state.fetchedScriptsId;
  o.inlineScriptsId = state.inlineScriptsId;
  o.sheetIds = state.sheetIds;
  o.sendStats = server->GetSendStats();
  return o;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

std::string Ok(const std::string& type, const std::string& body) {
  return ResponseHead("HTTP/1.1 200 OK",
                      {"Content-Type: " + type, "Content-Length: " + std::to_string(body.size())}) +
         body;
}

const std::string kSourceDir = std::string(ZP_SOURCE_DIR) + "/testdata/page";

// --- the sample site on a real server -----------------------------------

class SampleSite : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    nginx_ = new LoopbackNginx(LoopbackAddress(0));
    startError_ = new std::string(nginx_->Start());
    for (const auto& entry : fs::recursive_directory_iterator(kSourceDir + "/site")) {
      if (!entry.is_regular_file()) continue;
      const std::string relative = fs::relative(entry.path(), kSourceDir + "/site").string();
      nginx_->Serve("/" + relative, ReadWholeFile(entry.path().string()));
    }
  }
  static void TearDownTestSuite() {
    delete nginx_;
    delete startError_;
    nginx_ = nullptr;
  }
  void SetUp() override { ASSERT_EQ(*startError_, ""); }

  Settings SampleSettings() {
    Settings s;
    s.pageUrl = nginx_->Url("/sample.html");
    s.cache = cache_.path().string();
    return s;
  }
  static std::string SamplePage() { return ReadWholeFile(kSourceDir + "/sample.html"); }

  static LoopbackNginx* nginx_;
  static std::string* startError_;
  TempDir cache_;
};
LoopbackNginx* SampleSite::nginx_ = nullptr;
std::string* SampleSite::startError_ = nullptr;

// The sample page gives the expected page byte for byte. The linked
// stylesheets' id depends on the server's address (their url() references
// are made absolute), so it is compared by name. ZP_REGENERATE_GOLDEN=1
// writes the expected files instead (scripts/regenerate-page-golden.sh).
TEST_F(SampleSite, SamplePageMatchesTheGoldenPage) {
  const Optimised o = Optimise(SamplePage(), SampleSettings());
  const std::string page = ReplaceAll(o.page, o.linkedStylesId, "{LINKED-STYLES-ID}");
  const std::string counters = "requestsBefore " + std::to_string(o.requestsBefore) +
                               "\nrequestsAfter " + std::to_string(o.requestsAfter) +
                               "\nbytesBefore " + std::to_string(o.bytesBefore) + "\n";
  const std::string goldenPage = kSourceDir + "/sample.optimised.html";
  const std::string goldenCounters = kSourceDir + "/sample.counters";
  if (std::getenv("ZP_REGENERATE_GOLDEN") != nullptr) {
    WriteWholeFile(goldenPage, page);
    WriteWholeFile(goldenCounters, counters);
  }
  EXPECT_EQ(page, ReadWholeFile(goldenPage));
  EXPECT_EQ(counters, ReadWholeFile(goldenCounters));
}

TEST_F(SampleSite, CombinesWhatMayBeCombinedAndLeavesTheRest) {
  const Optimised o = Optimise(SamplePage(), SampleSettings());
  // Two linked sheets and one inline block; the print sheet stays.
  EXPECT_FALSE(o.linkedStylesId.empty());
  EXPECT_FALSE(o.inlineStylesId.empty());
  EXPECT_EQ(Count(o.page, "CS.zp?"), 2u);
  EXPECT_NE(o.page.find("href=\"css/print.css\" media=\"print\""), std::string::npos);
  // app.js and widgets.js are combined; the strict one, the async one and
  // the JSON block stay as they were.
  EXPECT_EQ(Count(o.page, "eval(zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_"), 3u);
  EXPECT_NE(o.page.find("<script src=\"js/strict.js\"></script>"), std::string::npos);
  EXPECT_NE(o.page.find("<script src=\"js/later.js\" async></script>"), std::string::npos);
  EXPECT_NE(o.page.find("{\"items\": [1, 2, 3]}"), std::string::npos);
  // The inline script with a top-level let stays in place.
  EXPECT_NE(o.page.find("let counted = widgetCount;"), std::string::npos);
  // Icons become placeholders; the data: image and the image inside the
  // zp_image_off region stay.
  EXPECT_EQ(Count(o.page, "zp_2F50498C_8605_468F_991E_AEABAA95E643=\""), 6u);
  EXPECT_NE(o.page.find("<img src=\"img/photo.jpg\" alt=\"photo\">"), std::string::npos);
  EXPECT_NE(o.page.find("src=\"data:image/gif;base64,R0lGODlhAQABAAAAACw=\""), std::string::npos);
  // Attributes keep their own quoting; a bare attribute stays bare.
  EXPECT_NE(o.page.find("<input type=checkbox disabled checked>"), std::string::npos);
  EXPECT_NE(o.page.find("alt='text'"), std::string::npos);
  // Marker comments go; other comments go unless kept.
  EXPECT_EQ(o.page.find("zp_image_off"), std::string::npos);
  EXPECT_EQ(o.page.find("navigation ends"), std::string::npos);
  EXPECT_LT(o.requestsAfter, o.requestsBefore);
}

TEST_F(SampleSite, AWarmPageComesOutTheSame) {
  const Optimised cold = Optimise(SamplePage(), SampleSettings());
  const Optimised warm = Optimise(SamplePage(), SampleSettings());
  EXPECT_EQ(warm.page, cold.page);
  EXPECT_EQ(warm.requestsAfter, cold.requestsAfter);
}

TEST_F(SampleSite, KeepsCommentsWhenAskedButNeverMarkers) {
  Settings s = SampleSettings();
  s.keepComments = true;
  const Optimised o = Optimise(SamplePage(), s);
  EXPECT_NE(o.page.find("<!-- navigation ends -->"), std::string::npos);
  EXPECT_EQ(o.page.find("zp_image_o"), std::string::npos);
}

TEST_F(SampleSite, HandlerPrefixTakesItsFourForms) {
  Settings s = SampleSettings();
  std::string page = SamplePage();
  EXPECT_NE(Optimise(page, s).page.find("href=\"./CS.zp?"), std::string::npos);
  s.handlerPath = "/opt";
  const Optimised withPath = Optimise(page, s);
  EXPECT_NE(withPath.page.find("<link href=\"/opt/CS.zp?" + withPath.linkedStylesId +
                               "\" type=\"text/css\" rel=\"stylesheet\"/>"),
            std::string::npos);
  EXPECT_NE(withPath.page.find("src=\"/opt/IS.zp?{2F50498C-8605-468F-991E-AEABAA95E643}\""),
            std::string::npos);
  page = ReplaceAll(page, "<body>", "<body><!--zp_server_url http://static.test-->");
  const Optimised both = Optimise(page, s);
  EXPECT_NE(both.page.find("src=\"http://static.test/opt/JS.zp?"), std::string::npos);
  s.handlerPath.clear();
  const Optimised serverOnly = Optimise(page, s);
  EXPECT_NE(serverOnly.page.find("src=\"http://static.test./IS.zp?{2F50498C"), std::string::npos);
}

TEST_F(SampleSite, OldInternetExplorerGetsNoSprites) {
  Settings s = SampleSettings();
  s.userAgent = "Mozilla/4.0 (compatible; MSIE 8.0; Windows NT 6.1)";
  const Optimised o = Optimise(SamplePage(), s);
  EXPECT_EQ(o.page.find("zp_2F50498C_8605_468F_991E_AEABAA95E643"), std::string::npos);
  EXPECT_FALSE(o.linkedStylesId.empty());
}

TEST_F(SampleSite, FetchesRelativeResourcesFromTheServerAddress) {
  Settings s = SampleSettings();
  s.pageUrl = "http://www.example.test/sample.html";
  s.serverAddress = nginx_->address();
  const Optimised o = Optimise(SamplePage(), s);
  EXPECT_FALSE(o.linkedStylesId.empty());
  // The sheet's references are resolved against the public address.
  const std::string sheet = ReadWholeFile(s.cache + "/css/" + o.linkedStylesId);
  EXPECT_NE(sheet.find("url(http://www.example.test/css/../img/folder.gif)"), std::string::npos);
}

TEST_F(SampleSite, HttpsPageKeepsItsSchemeInResolvedAddresses) {
  Settings s = SampleSettings();
  s.pageUrl = "https://www.example.test/sample.html";
  s.serverAddress = nginx_->address();
  const Optimised o = Optimise(SamplePage(), s);
  const std::string sheet = ReadWholeFile(s.cache + "/css/" + o.linkedStylesId);
  EXPECT_NE(sheet.find("url(https://www.example.test/css/../img/folder.gif)"), std::string::npos);
}

// --- exact pages against a scripted server ----------------------------------

class ScriptedPage : public ::testing::Test {
 protected:
  Settings PageSettings() {
    Settings s;
    s.pageUrl = server_.Url("/dir/page.html");
    s.cache = cache_.path().string();
    return s;
  }
  ScriptedServer server_{LoopbackAddress(1)};
  TempDir cache_;
};

TEST_F(ScriptedPage, PageWithoutHeadComesBackByteForByte) {
  server_.Reply("/a.css", Ok("text/css", "p{color:red}"));
  const std::string page = "<html>\r\n<link rel=stylesheet href=/a.css>\r\n\r\n<p>x</p></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_EQ(o.page, page);
  EXPECT_EQ(o.requestsBefore, 1);
  EXPECT_EQ(o.requestsAfter, 0);
}

TEST_F(ScriptedPage, ScriptsGetNumbersInOrderAndEscapedText) {
  server_.Reply("/dir/a.js", Ok("text/javascript", "var a = 'x';\nvar t = `two\nlines`;"));
  server_.Reply("/dir/b.js", Ok("text/javascript", "var b = \"a\\\\b\";"));
  server_.Reply("/c.js", Ok("text/javascript", "var c = 1 / 2;"));
  const std::string page =
      "<html><head></head><body><script src=a.js></script><script src='b.js'></script>"
      "<script src=\"/c.js\" charset=utf-8></script></body></html>";
  const Optimised o = Optimise(page, PageSettings());
  for (int n = 1; n <= 3; ++n) {
    EXPECT_NE(
        o.page.find("eval(zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_" + std::to_string(n) + ");"),
        std::string::npos);
  }
  EXPECT_NE(o.page.find("<script charset=utf-8>eval("), std::string::npos);
  const std::string combined = ReadWholeFile(cache_.File("js/" + o.fetchedScriptsId));
  EXPECT_EQ(combined,
            "var zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_1 = 'var a = \\'x\\';\\nvar t = "
            "`two\\nlines`;';"
            "var zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_2 = 'var b = \"a\\\\\\\\b\";';"
            "var zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_3 = 'var c = 1 \\/ 2;';");
  EXPECT_EQ(o.requestsBefore, 4);
  EXPECT_EQ(o.requestsAfter, 2);
}

TEST_F(ScriptedPage, ScriptsRuledOutStayAsTheyWere) {
  server_.Reply("/dir/m.js", Ok("text/javascript", "export const x = 1;"));
  server_.Reply("/dir/o.js", Ok("text/javascript", "var o = 1;"));
  const std::string page =
      "<html><head></head><body><script src=m.js></script>"
      "<script src=o.js onload=\"go()\"></script><script src=o.js defer></script>"
      "<script type=module>var z = 1;</script><script zp_js_off>var y = 2;</script>"
      "</body></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_EQ(o.page.find("eval("), std::string::npos);
  EXPECT_NE(o.page.find("<script src=m.js></script>"), std::string::npos);
  EXPECT_NE(o.page.find("<script src=o.js onload=\"go()\"></script>"), std::string::npos);
  EXPECT_NE(o.page.find("<script src=o.js defer></script>"), std::string::npos);
  EXPECT_NE(o.page.find("<script type=module>var z = 1;</script>"), std::string::npos);
  EXPECT_NE(o.page.find("<script>var y = 2;</script>"), std::string::npos);
}

TEST_F(ScriptedPage, StylesheetWithImportStaysLinked) {
  server_.Reply("/dir/i.css", Ok("text/css", "@import url(base.css);p{color:red}"));
  server_.Reply("/dir/n.css", Ok("text/css", "p{margin:0}"));
  const std::string page =
      "<html><head><link rel=stylesheet href=i.css><link rel=stylesheet href=n.css></head>"
      "<body></body></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_NE(o.page.find("<link rel=stylesheet href=i.css>"), std::string::npos);
  EXPECT_EQ(o.page.find("href=n.css"), std::string::npos);
  EXPECT_EQ(Count(o.page, "CS.zp?"), 1u);
}

TEST_F(ScriptedPage, MarkersAndSwitchesDecideEachElement) {
  server_.Reply("/dir/a.css", Ok("text/css", "p{color:red}"));
  const std::string page =
      "<html><head><!--ZP_CSS_OFF--><link rel=stylesheet href=a.css>"
      "<link rel=stylesheet href=a.css zp_css_on><!--zp_css_on-->"
      "<link rel=stylesheet href=a.css id=main><link rel=stylesheet href=a.css zp_css_off>"
      "<!--zp_send_stats--></head><body></body></html>";
  Settings s = PageSettings();
  s.keepComments = true;
  const Optimised o = Optimise(page, s);
  EXPECT_EQ(o.page.find("ZP_CSS_OFF"), std::string::npos);
  EXPECT_NE(o.page.find("<head><link rel=stylesheet href=a.css>"), std::string::npos);
  EXPECT_NE(o.page.find("<link rel=stylesheet href=a.css id=main>"), std::string::npos);
  EXPECT_NE(o.page.find("<link rel=stylesheet href=a.css><!--zp_send_stats-->"), std::string::npos);
  EXPECT_EQ(o.page.find("zp_css_o"), std::string::npos);
  EXPECT_EQ(Count(o.page, "CS.zp?"), 1u);
  EXPECT_TRUE(o.sendStats);
}

TEST_F(ScriptedPage, WhitespaceCollapsesOutsidePreformattedText) {
  const std::string page =
      "<html><head></head><body>a \n\t b <img src=''> \n c<pre>\n  x \n</pre>"
      "<textarea>  y  </textarea></body></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_EQ(o.page,
            "<html><head></head><body>a b <img src=''> c<pre>\n  x \n</pre>"
            "<textarea>  y  </textarea></body></html>");
}

// The page server as it was before runs of text: every byte of text through
// OnText, by the base operation of OnTextRun.
class ByteByByteServer : public CZelvarHtmlServer {
 public:
  using CZelvarHtmlServer::CZelvarHtmlServer;
  void OnTextRun(HtmlTextToken* character, const unsigned char* bytes, std::size_t count) override {
    CHtmlConstructorEvents::OnTextRun(character, bytes, count);
  }
};

TEST_F(ScriptedPage, TextRunsComeOutAsTheyDidByteByByte) {
  const std::string pages[] = {
      "<html><head><title> a \n b </title></head><body> \n\t x\f\x01y \n&amp; \n"
      "<p>  z  </p>\r\n \r\n<code> c  d </code> e  <pre> f \n g </pre>  h\t\ti </body></html>",
      std::string("<html><head></head><body>a\0 b  &  c\0\0 d</body></html>", 53),
      "<html><head><style> p { } </style><script> var a  =  1; </script></head>"
      "<body><textarea> t  u </textarea> v <!-- w  x --> y<![CDATA[ q ]]>  </body></html>",
  };
  for (const std::string& page : pages) {
    SCOPED_TRACE(page);
    EXPECT_EQ(Optimise(page, PageSettings()).page,
              Optimise<ByteByByteServer>(page, PageSettings()).page);
  }
}

// Long runs of text go through 16 bytes at a time where their blanks are
// single: every kind of blank and control byte, high bytes, and runs of
// blanks falling at every place within and across those pieces.
TEST_F(ScriptedPage, LongTextRunsCollapseAsByteByByte) {
  std::srand(12);
  const std::string pieces[] = {"lorem",
                                "ipsum",
                                " ",
                                " ",
                                " ",
                                "  ",
                                "   ",
                                "\t",
                                "\n",
                                " \n ",
                                "\f",
                                "\x01",
                                "\x7f",
                                "\xc3\xa9",
                                "\xff",
                                "x",
                                "dolor sit amet,"};
  for (int round = 0; round < 40; ++round) {
    std::string text;
    const int length = 10 + std::rand() % 400;
    while (static_cast<int>(text.size()) < length) {
      text += pieces[static_cast<std::size_t>(std::rand()) % std::size(pieces)];
    }
    // Text before the run that ends in a blank, or not.
    const std::string before = round % 2 == 0 ? "a " : "a";
    const std::string page = "<html><head></head><body><p>" + before + "<b>b</b>" + text +
                             "</p><p>" + text + text + "</p></body></html>";
    SCOPED_TRACE(page);
    EXPECT_EQ(Optimise(page, PageSettings()).page,
              Optimise<ByteByByteServer>(page, PageSettings()).page);
  }
}

// Large pages are written into blocks kept from one page to the next (the
// markup's and the output's): a later, smaller page must not show anything
// of the earlier one.
TEST_F(ScriptedPage, LargePagesInKeptBlocksComeOutWhole) {
  auto page = [](int paragraphs, const char* word) {
    std::string body;
    for (int i = 0; i < paragraphs; ++i) body += std::string("<p>") + word + "</p>\n";
    return "<html><head></head><body>" + body + "</body></html>";
  };
  auto expected = [&page](int paragraphs, const char* word) {
    std::string out = page(paragraphs, word);
    for (char& c : out) c = c == '\n' ? ' ' : c;
    return out;
  };
  for (const auto& [paragraphs, word] :
       {std::pair{90000, "first"}, std::pair{60000, "second"}, std::pair{90000, "third"}}) {
    SCOPED_TRACE(word);
    const std::string text = page(paragraphs, word);
    ASSERT_GE(text.size(), std::size_t{512} << 10);
    EXPECT_EQ(Optimise(text, PageSettings()).page, expected(paragraphs, word));
  }
}

TEST_F(ScriptedPage, ForwardsTheClientsAddressInBrackets) {
  server_.Reply("/dir/a.css", Ok("text/css", "p{color:red}"));
  Settings s = PageSettings();
  s.clientAddress = "::1";
  Optimise("<html><head><link rel=stylesheet href=a.css></head></html>", s);
  const std::vector<std::string> requests = server_.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_NE(requests[0].find("X-Forwarded-For: [::1]\r\n"), std::string::npos);
  EXPECT_NE(requests[0].find("Referer: " + s.pageUrl + "\r\n"), std::string::npos);
}

TEST_F(ScriptedPage, ForeignHostsAreFetchedOnlyWhenAllowed) {
  server_.Reply("/x.css", Ok("text/css", "p{color:red}"));
  const std::string page = "<html><head><link rel=stylesheet href=http://" +
                           server_.Url("/x.css").substr(7) + "></head></html>";
  Settings s = PageSettings();
  s.pageUrl = "http://elsewhere.test/page.html";
  EXPECT_EQ(Optimise(page, s).page, page);
  EXPECT_TRUE(server_.Requests().empty());
  s.fetchForeign = true;
  EXPECT_EQ(Count(Optimise(page, s).page, "CS.zp?"), 1u);
}

// Without a time-out nothing is waited for: a resource that takes a moment
// is not used, and the page is written at once.
TEST_F(ScriptedPage, TimeoutZeroWaitsForNothing) {
  server_.Handle("/dir/a.css", [](ScriptedServer::Connection& c) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    c.Send(Ok("text/css", "p{color:red}"));
  });
  Settings s = PageSettings();
  s.timeout = 0;
  const std::string page = "<html><head><link rel=stylesheet href=a.css></head></html>";
  const Optimised o = Optimise(page, s);
  EXPECT_EQ(o.page, page);
  EXPECT_TRUE(o.linkedStylesId.empty());
  EXPECT_EQ(o.requestsBefore, 1);
}

// A resource that never answers holds neither DoWork nor the destructor past
// the time-out (twice at most); the download thread ends on its own later.
TEST_F(ScriptedPage, SilentResourceIsLeftBehindAfterTheTimeout) {
  server_.Handle("/dir/slow.css", [](ScriptedServer::Connection& c) { c.WaitUntilClosed(); });
  server_.Reply("/dir/fast.css", Ok("text/css", "p{color:red}"));
  Settings s = PageSettings();
  s.timeout = 1;
  const auto start = std::chrono::steady_clock::now();
  const Optimised o = Optimise(
      "<html><head><link rel=stylesheet href=slow.css><link rel=stylesheet href=fast.css>"
      "</head></html>",
      s);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_LT(elapsed, std::chrono::seconds(8));
  EXPECT_NE(o.page.find("<link rel=stylesheet href=slow.css>"), std::string::npos);
  EXPECT_EQ(Count(o.page, "CS.zp?"), 1u);
}

// Two hundred resources: all fetched, never more than sixteen at once.
TEST_F(ScriptedPage, ManyResourcesRunSixteenAtATime) {
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::string page = "<html><head>";
  for (int i = 0; i < 200; ++i) {
    const std::string name = "/dir/s" + std::to_string(i) + ".js";
    server_.Handle(name, [&running, &most, i](ScriptedServer::Connection& c) {
      const int now = ++running;
      int seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      --running;
      c.Send(Ok("text/javascript", "var s" + std::to_string(i) + " = 1;"));
    });
    page += "<script src=s" + std::to_string(i) + ".js></script>";
  }
  page += "</head></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_EQ(Count(o.page, "eval("), 200u);
  EXPECT_LE(most.load(), 16);
  EXPECT_GE(most.load(), 2);
  EXPECT_EQ(o.requestsBefore, 201);
}

// When the cache cannot take a group (here its folders are files), every
// element of that group is written back as it was: a page never links to a
// handler URL that nothing answers, nor evaluates a script nobody defined.
TEST_F(ScriptedPage, GroupsThatCannotBeStoredLeaveTheirElementsAsTheyWere) {
  server_.Reply("/dir/a.css", Ok("text/css", "p{color:red}"));
  server_.Reply("/dir/a.js", Ok("text/javascript", "var a = 1;"));
  WriteWholeFile(cache_.File("css"), "not a folder");
  WriteWholeFile(cache_.File("js"), "not a folder");
  const std::string page =
      "<html><head><link rel=stylesheet href=a.css><style>p{margin:0}</style>"
      "<script src=a.js></script><script>var b = 2;</script></head><body></body></html>";
  const Optimised o = Optimise(page, PageSettings());
  EXPECT_EQ(o.page, page);
}

TEST_F(ScriptedPage, GzipThatDoesNotShrinkGivesThePlainPage) {
  Settings s = PageSettings();
  auto server = MakeServer(s);
  std::string page = "<p>";
  server->AddWork(reinterpret_cast<unsigned char*>(page.data()), 3);
  server->DoWork();
  bool gzip = true;
  CZelvarBuffer* out = server->GetRawZelvarBuffer(gzip);
  EXPECT_FALSE(gzip);
  EXPECT_EQ(out->GetValueLength(), 3);
  EXPECT_FALSE(server->GetRawZelvarBufferWasGzip());
  EXPECT_EQ(server->GetBytesAfter(100, false), 100);
}

}  // namespace
