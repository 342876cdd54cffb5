#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/identifiers.h"
#include "css/css_test_support.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_css_server.h"

namespace {

using zelvarpack::css::testing::Escaped;

struct Sheet {
  std::string name;
  std::string bytes;
};

std::string Output(CZelvarCssServer& server) {
  CZelvarBuffer* output = server.GetOutput();
  return std::string(reinterpret_cast<const char*>(output->GetValue()),
                     static_cast<std::size_t>(output->GetValueLength()));
}

void Add(CZelvarCssServer& server, std::string name, std::string bytes) {
  server.AddWork(name.data(), reinterpret_cast<unsigned char*>(bytes.data()),
                 static_cast<std::int32_t>(bytes.size()));
}

std::string Minify(const std::vector<Sheet>& sheets) {
  char cache[] = "";
  CZelvarCssServer server(cache);
  for (const Sheet& sheet : sheets) Add(server, sheet.name, sheet.bytes);
  server.DoWork();
  return Output(server);
}

std::string Minify(const std::string& css, const std::string& name = "sheet.css") {
  return Minify({{name, css}});
}

struct Case {
  std::string input;
  std::string expected;
};

void ExpectMinified(const std::vector<Case>& cases, const std::string& name = "sheet.css") {
  for (const Case& c : cases) {
    SCOPED_TRACE("input: " + Escaped(c.input) + " named " + name);
    EXPECT_EQ(Minify(c.input, name), c.expected);
  }
}

TEST(CssMinifier, SpacesAroundPunctuationDisappear) {
  ExpectMinified({
      {"a { color : red ; }", "a{color:red;}"},
      {"@media screen and (max-width: 100px) { p { margin: 0 auto } }",
       "@media screen and (max-width:100px){p{margin:0 auto}}"},
      {"a\n\t  b", "a b"},
      {"  a", " a"},  // a sheet that starts with whitespace starts with one space
      {"a ", "a "},
      {"a{b : c}", "a{b:c}"},
      {"a ; b", "a;b"},
      {"a{b [ c ] d}", "a{b[c] d}"},
      {"a{b ( c ) d}", "a{b (c) d}"},  // a space before "(" is kept, after it not
      {"f( a )", "f( a)"},             // ... but after a function's "(" it is
      {"a { b } c", "a{b}c"},
      {"a <!-- b --> c", "a<!--b-->c"},
      {"<!-- a -->", "<!--a-->"},
      {"a{b:c;}", "a{b:c;}"},              // the last semicolon stays
      {"a , b > c ~ d + e", "a,b>c~d+e"},  // commas and selector combinators
      {"a{b:c , d ! important}", "a{b:c,d!important}"},
      {"a{b:x + y - z}", "a{b:x + y - z}"},  // other delims keep their spaces
      {"li:nth-child(2n + 1) > a{}", "li:nth-child(2n + 1)>a{}"},
      {":root{--f: a , b ;--g:c}", ":root{--f:a , b;--g:c}"},  // custom properties as written
      {"a{b:var(--a, f(1, 2)) , g(3, 4)}", "a{b:var(--a, f(1, 2)),g(3,4)}"},  // and var()
  });
}

// Whitespace a browser can tell from none stays: around "+" and "-" in math
// functions, after ")" or "]" before a value, and descendant combinators
// before ":", "[", "*", "." and "#" in selectors.
TEST(CssMinifier, WhitespaceThatChangesMeaningStays) {
  ExpectMinified({
      {"a{width:calc(var(--a) + 1px)}", "a{width:calc(var(--a) + 1px)}"},
      {"a{width:calc( (1px) - (2px) )}", "a{width:calc( (1px) - (2px))}"},
      {"a{width:min(1px , max(2px, 3px) * 2)}", "a{width:min(1px,max(2px,3px) * 2)}"},
      {"a{width:clamp(1px, calc(2px) + 1vw, 3px)}", "a{width:clamp(1px,calc(2px) + 1vw,3px)}"},
      {"a{background:url(x.png) no-repeat}", "a{background:url(x.png) no-repeat}"},
      {"a{color:rgb(0 0 0) ;margin:f(1) 2px}", "a{color:rgb(0 0 0);margin:f(1) 2px}"},
      {"a{b:f(x) #fff g(y) f(z) !important}", "a{b:f(x) #fff g(y) f(z)!important}"},
      {"a{b:f(x) , g(y)}", "a{b:f(x),g(y)}"},
      {".a :hover{}", ".a :hover{}"},
      {".a:hover{}", ".a:hover{}"},
      {"div [x]{}", "div [x]{}"},
      {"div[x]{}", "div[x]{}"},
      {":not(.a) .b{} :is(a) *{} [x] a{} [x] .c{} [x] :hover{}",
       ":not(.a) .b{}:is(a) *{}[x] a{}[x] .c{}[x] :hover{}"},
      {":not(.a) #b{}", ":not(.a) #b{}"},
      {"a :not( .b ) {}", "a :not( .b){}"},  // a function's "(" keeps its space
      {"@media (min-width : 1px) and (max-width: 2px) { .a :b { c : d } }",
       "@media (min-width:1px) and (max-width:2px){.a :b{c:d}}"},
      {"@supports (display : grid) { div [x] { c : d } }",
       "@supports (display:grid){div [x]{c:d}}"},
      {"@font-face { font-family : x ; src : url(a) }", "@font-face{font-family:x;src:url(a)}"},
      {"a { color : red ; &:hover { b : c } & :focus { d : e } }",
       "a{color:red;&:hover{b:c}& :focus{d:e}}"},
      {":root{ --x : 1px ; }", ":root{--x:1px;}"},
  });
}

// Escapes, exponents and unicode-ranges are written as the sheet had them.
TEST(CssMinifier, TokensKeepTheirSpelling) {
  ExpectMinified({
      {".sm\\:flex{display:flex}", ".sm\\:flex{display:flex}"},
      {".fa-a:before{content:\"\\f101\"}", ".fa-a:before{content:\"\\f101\"}"},
      {"#\\31 23{a:b}", "#\\31 23{a:b}"},
      {"a{b:\\31 0}", "a{b:\\31 0}"},
      {"a{b:url(a\\)b.png)}", "a{b:url(a\\)b.png)}"},
      {"a{z-index:1e3;width:1.5E-2px;opacity:2e-1}", "a{z-index:1e3;width:1.5E-2px;opacity:2e-1}"},
      {"@font-face{unicode-range:U+0-7F, U+4??, u+0025-00ff}",
       "@font-face{unicode-range:U+0-7F,U+4??,U+0025-00ff}"},
  });
}

TEST(CssMinifier, LicenceCommentsStayOnceWhereTheyStood) {
  ExpectMinified({
      {"/*! MIT */\na{b:c}/* plain */", "/*! MIT */ a{b:c}"},
      {"a{b:c}/*!x*/ /*!x*/d{e:f}", "a{b:c}/*!x*/ d{e:f}"},
  });
  EXPECT_EQ(Minify({{"1.css", "/*!L*/a{}"}, {"2.css", "/*!L*/b{}/*!M*/"}}), "/*!L*/a{}b{}/*!M*/");
}

TEST(CssMinifier, CommentsVanishAndLeaveTheirSpaces) {
  ExpectMinified({
      {"/* a */", ""},
      {"/* a */ /* b */", " "},
      {"a /**/ b", "a  b"},
      {"a /**/{", "a {"},
      {"a/**/b", "ab"},
      {"a: /**/ b", "a: b"},
  });
}

TEST(CssMinifier, TokensAreWrittenBackFromTheirTexts) {
  ExpectMinified({
      {"50 %", "50 %"},
      {"width: 50% ;", "width:50%;"},
      {"1.5em -2px +.5", "1.5em -2px +.5"},
      {"1e3 1.5E-2 1e+3px 2e2% 1e", "1e3 1.5E-2 1e+3px 2e2% 1e"},
      {"#fff @media", "#fff @media"},
      {"'a'  \"b\"", "'a' \"b\""},
      {"\"a\\\"b\"", "\"a\\\"b\""},  // escapes are kept as written
      {"x\\41 y", "x\\41 y"},
      {"U+00?? U+1", "U+00?? U+1"},
      {"u+0-7F", "U+0-7F"},
      {"a 'b\n c", "a  c"},      // a bad string vanishes
      {"a url(b c) d", "a  d"},  // so does a bad url
      {"\xC3\xA9 \x0C", "\xC3\xA9 \x0C"},
      {"@import 'a.css';", "@import 'a.css';"},
      {"@charset \"UTF-8\";", "@charset \"UTF-8\";"},
      {"calc( 1px + 2px )", "calc( 1px + 2px)"},
  });
}

TEST(CssMinifier, ImportAddressesResolveWithOrWithoutSpace) {
  ExpectMinified({{"@import'a.css';", "@import'a.css';"},
                  {"@import\"a.css\"", "@import\"a.css\""},
                  {"@import /**/'a.css'", "@import 'a.css'"}});
  ExpectMinified({{"@import'a.css';", "@import'http://h/c/a.css';"},
                  {"@import 'a.css';", "@import 'http://h/c/a.css';"},
                  {"@IMPORT /**/ \"/a.css\" screen;", "@IMPORT  \"http://h/a.css\" screen;"},
                  {"@import url(a.css);", "@import url(http://h/c/a.css);"},
                  {"@namespace 'a';@charset 'b';", "@namespace 'a';@charset 'b';"}},
                 "http://h/c/s.css");
}

TEST(CssMinifier, UrlsResolveAgainstAnAbsoluteSheetName) {
  const std::string name = "https://h.test:8080/a/b/site.css?v=/x/y";
  ExpectMinified(
      {
          {"url(http://x/y.png)", "url(http://x/y.png)"},
          {"url(https://x/y.png)", "url(https://x/y.png)"},
          {"url(//cdn/y.png)", "url(https://cdn/y.png)"},
          {"url(/root.png)", "url(https://h.test:8080/root.png)"},
          {"url(img/x.png)", "url(https://h.test:8080/a/b/img/x.png)"},
          {"url(../x.png)", "url(https://h.test:8080/a/b/../x.png)"},
          {"url(#f)", "url(#f)"},  // the document's own fragment
          {"url()", "url(https://h.test:8080/a/b/)"},
          {"url(data:image/png;base64,AA==)", "url(data:image/png;base64,AA==)"},
          {"url(HTTP://X/y)", "url(https://h.test:8080/a/b/HTTP://X/y)"},  // case-sensitive
          {"url(Data:x)", "url(https://h.test:8080/a/b/Data:x)"},
          {"url('a b.png')", "url('https://h.test:8080/a/b/a b.png')"},
          {"url( \"a.png\" )", "url(\"https://h.test:8080/a/b/a.png\")"},
          {"a url(x) b", "a url(https://h.test:8080/a/b/x) b"},
          {"a:url(x);", "a:url(https://h.test:8080/a/b/x);"},
      },
      name);
  ExpectMinified({{"url(x.png)", "url(http://h.test/x.png)"}, {"url(//c/x)", "url(http://c/x)"}},
                 "http://h.test");
  ExpectMinified(
      {{"url(//c/x) url(y) url(/z)", "url(HTTPS://c/x) url(HTTPS://H/d/y) url(HTTPS://H/z)"}},
      "HTTPS://H/d/s.css");
}

TEST(CssMinifier, UrlsStayAsWrittenInOtherSheets) {
  for (const char* name : {"css/site.css", "/css/site.css", "ftp://h/a/s.css", "http:s.css", "",
                           "7", "httpx://h/a.css"}) {
    ExpectMinified({{"url(img/x.png) url(//c/x) url(/r) url(http://h/x)",
                     "url(img/x.png) url(//c/x) url(/r) url(http://h/x)"}},
                   name);
  }
}

TEST(CssServer, SheetsCombineInOrderEachWithItsOwnBase) {
  EXPECT_EQ(Minify({{"http://a.test/1/s.css", "p { b: url(x) }"},
                    {"local.css", " q{b:url(x)}"},
                    {"https://b.test/s.css", "r{b:url(x)} "}}),
            "p{b:url(http://a.test/1/x)} q{b:url(x)}r{b:url(https://b.test/x)}");
  // Each sheet starts with fresh flags: no space is taken back across sheets.
  EXPECT_EQ(Minify({{"1", "a "}, {"2", "{b}"}}), "a {b}");
}

TEST(CssServer, SameNameIsAddedOnceAndInlineBlocksAreNumbered) {
  char cache[] = "";
  CZelvarCssServer server(cache);
  Add(server, "http://h/a.css", "a{}");
  Add(server, "http://h/a.css", "b{}");
  EXPECT_EQ(server.GetSheetCount(), 1);
  server.BeginInlineWork();
  std::string part1 = "c{", part2 = "}";
  server.AddInlineWork(reinterpret_cast<unsigned char*>(part1.data()), 2);
  server.AddInlineWork(reinterpret_cast<unsigned char*>(part2.data()), 1);
  server.EndInlineWork();  // named "1"
  server.BeginInlineWork();
  std::string part3 = "d{}";
  server.AddInlineWork(reinterpret_cast<unsigned char*>(part3.data()), 3);
  server.EndInlineWork();   // named "2"
  Add(server, "2", "e{}");  // taken already
  server.AddWork(nullptr, reinterpret_cast<unsigned char*>(part3.data()), -1);
  EXPECT_EQ(server.GetSheetCount(), 3);
  server.DoWork();
  EXPECT_EQ(Output(server), "a{}c{}d{}");
}

std::string WithLineFeeds(std::string text) {
  for (char& c : text) {
    if (c == '\r') c = '\n';
  }
  return text;
}

// Sheets and inline parts are copied with CR turned into LF; every CR counts
// as one LF, so CR LF is two line feeds wherever the pair is split: across
// the copy's 64 KB pieces, across inline parts, across sheets.
TEST(CssServer, CarriageReturnsAreLineFeedsInEveryPart) {
  // A line continuation over CR LF ends in a second line feed, which breaks
  // the string; a CR LF taken as one LF would continue it.
  const std::string continued = "a{content:'x\\\r\ny'}b{c:d}";
  EXPECT_EQ(Minify(continued), Minify(WithLineFeeds(continued)));
  EXPECT_NE(Minify(continued), Minify("a{content:'x\\\ny'}b{c:d}"));

  // A large sheet with CR, CR LF and broken strings on both sides of every
  // 64 KB boundary.
  std::string large;
  while (large.size() < 3 * 65536 + 100) {
    large +=
        ".r" + std::to_string(large.size()) + " {\r\n  margin : 0;\r  content: 'a\\\r\nb' }\r\n";
  }
  for (const std::size_t boundary : {std::size_t{65536}, std::size_t{2 * 65536}}) {
    large.replace(boundary - 3, 6, "\r\r\n\r\n\r");
  }
  std::string copy = large;
  EXPECT_EQ(Minify(large), Minify(WithLineFeeds(large)));
  EXPECT_EQ(large, copy) << "the caller's bytes stay as they were";

  // Sheets ending in CR before sheets starting with LF, and inline parts
  // split inside a CR LF pair.
  const std::vector<std::string> parts = {"a{b:'c\\\r", "\nd'}\r", "\r", "\n", "e\\\r", "\nf"};
  const auto combined = [&parts](bool lineFeeds) {
    char cache[] = "";
    CZelvarCssServer server(cache);
    Add(server, "1.css", lineFeeds ? "p{q:'r\\\n" : "p{q:'r\\\r");
    Add(server, "2.css", "\ns'}");
    server.BeginInlineWork();
    for (std::string part : parts) {
      if (lineFeeds) part = WithLineFeeds(part);
      server.AddInlineWork(reinterpret_cast<unsigned char*>(part.data()),
                           static_cast<std::int32_t>(part.size()));
    }
    server.EndInlineWork();
    server.DoWork();
    return Output(server);
  };
  const std::string output = combined(false);
  EXPECT_EQ(output, combined(true));
  EXPECT_EQ(output.find('\r'), std::string::npos);
}

// The output is handed over in the block it was written in; it must still
// behave like any buffer built by appending: capacity by the growth rule,
// terminated, growable, freed by its owner. Small and huge-page outputs.
TEST(CssServer, OutputIsAnOrdinaryBuffer) {
  std::string large;
  while (large.size() < (5u << 20)) large += ".x" + std::to_string(large.size()) + " { a : b }\n";
  for (const std::string& source :
       {std::string("a { b : c }"), std::string(200, ' ') + "x", std::string(), large}) {
    SCOPED_TRACE(source.size());
    char cache[] = "";
    CZelvarCssServer server(cache);
    Add(server, "s.css", source);
    server.DoWork();
    const std::string first = Output(server);
    CZelvarBuffer expected;
    expected.AddValue(first.data(), static_cast<std::int32_t>(first.size()));
    CZelvarBuffer* output = server.GetOutput();
    EXPECT_EQ(output->GetCapacity(), expected.GetCapacity());
    EXPECT_EQ(output->GetValue()[output->GetValueLength()], 0);

    const std::string tail(100000, 't');
    output->AddValue("!", 1);
    output->AddValue(tail.data(), static_cast<std::int32_t>(tail.size()));
    expected.AddValue("!", 1);
    expected.AddValue(tail.data(), static_cast<std::int32_t>(tail.size()));
    EXPECT_EQ(output->GetCapacity(), expected.GetCapacity());
    EXPECT_EQ(Output(server), first + "!" + tail);

    // A second DoWork replaces (frees) it and gives the same text again.
    server.DoWork();
    EXPECT_EQ(Output(server), first);
  }
}

// A large, compressible stylesheet and a tiny one whose gzip form is larger.
std::string LargeSheet() {
  std::string css;
  for (int i = 0; i < 200; ++i) css += ".rule" + std::to_string(i) + " { margin : 0 auto ; }\n";
  return css;
}

std::string Inflate(const std::string& gzip) {
  z_stream stream{};
  EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
  std::string out(1 << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
  stream.avail_in = static_cast<uInt>(gzip.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  inflateEnd(&stream);
  return out;
}

class CssStoreTest : public ::testing::Test {
 protected:
  std::string Store(const std::string& css, std::string* output = nullptr) {
    std::string cache = dir_.path().string();
    CZelvarCssServer server(cache.data());
    Add(server, "s.css", css);
    server.DoWork();
    if (output != nullptr) *output = Output(server);
    return server.GetMinifiedId();
  }
  std::string Path(const std::string& id) { return dir_.File("css/" + id); }
  // GetMinifiedId(id, gzip) on a fresh server: the bytes (or "<null>") and
  // the gzip flags afterwards.
  std::string Get(const std::string& id, bool& gzip, bool* wasGzip = nullptr) {
    std::string cache = dir_.path().string();
    CZelvarCssServer server(cache.data());
    std::unique_ptr<CZelvarBuffer> bytes(server.GetMinifiedId(id, gzip));
    if (wasGzip != nullptr) *wasGzip = server.GetWasGzip();
    if (!bytes) return "<null>";
    return std::string(reinterpret_cast<const char*>(bytes->GetValue()),
                       static_cast<std::size_t>(bytes->GetValueLength()));
  }
  TempDir dir_;
};

TEST_F(CssStoreTest, StoresTheOutputAndItsGzipTwinOnce) {
  std::string output;
  const std::string id = Store(LargeSheet(), &output);
  EXPECT_EQ(id, ContentId(reinterpret_cast<const unsigned char*>(output.data()), output.size()));
  EXPECT_EQ(ReadWholeFile(Path(id)), output);
  EXPECT_EQ(Inflate(ReadWholeFile(Path(id) + ".g")), output);
  // Only the two files: no temporary file is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.File("css")),
                          std::filesystem::directory_iterator()),
            2);

  // Identical output, identical id; the plain file is not written again,
  // and a twin lost in a crash between the two files comes back.
  std::filesystem::remove(Path(id) + ".g");
  EXPECT_EQ(Store(LargeSheet() + "/* other source, same output */"), id);
  EXPECT_EQ(Inflate(ReadWholeFile(Path(id) + ".g")), output);
  // Empty output has the id of hash 0.
  EXPECT_EQ(Store("/* nothing */"), IdFromNumber(0));
  EXPECT_EQ(ReadWholeFile(Path(IdFromNumber(0))), "");
}

TEST_F(CssStoreTest, GzipFormOnlyWhenAcceptedAndSmaller) {
  std::string large;
  const std::string largeId = Store(LargeSheet(), &large);
  const std::string gzipped = ReadWholeFile(Path(largeId) + ".g");

  bool gzip = true, wasGzip = false;
  EXPECT_EQ(Get(largeId, gzip, &wasGzip), gzipped);
  EXPECT_TRUE(gzip);
  EXPECT_TRUE(wasGzip);

  gzip = false;
  EXPECT_EQ(Get(largeId, gzip, &wasGzip), large);  // not accepted: never the gzip form
  EXPECT_FALSE(gzip);
  EXPECT_FALSE(wasGzip);

  std::string tiny;
  const std::string tinyId = Store("a{}", &tiny);
  gzip = true;
  EXPECT_EQ(Get(tinyId, gzip, &wasGzip), tiny);  // the gzip form is larger
  EXPECT_FALSE(gzip);
  EXPECT_FALSE(wasGzip);

  // An empty twin is not used; a missing one leaves `gzip` as it came.
  WriteWholeFile(Path(largeId) + ".g", "");
  gzip = true;
  EXPECT_EQ(Get(largeId, gzip, &wasGzip), large);
  EXPECT_FALSE(gzip);
  std::filesystem::remove(Path(largeId) + ".g");
  gzip = true;
  EXPECT_EQ(Get(largeId, gzip, &wasGzip), large);
  EXPECT_TRUE(gzip);
  EXPECT_FALSE(wasGzip);

  // No plain file: null, and a twin on its own is dropped.
  std::filesystem::remove(Path(tinyId));
  gzip = true;
  EXPECT_EQ(Get(tinyId, gzip), "<null>");
  EXPECT_FALSE(gzip);
  gzip = true;
  EXPECT_EQ(Get(IdFromNumber(12345), gzip), "<null>");
  EXPECT_TRUE(gzip);
}

TEST_F(CssStoreTest, WasGzipStaysSetOnceAGzipFormWasReturned) {
  const std::string id = Store(LargeSheet());
  std::string cache = dir_.path().string();
  CZelvarCssServer server(cache.data());
  bool gzip = true;
  delete server.GetMinifiedId(id, gzip);
  gzip = false;
  delete server.GetMinifiedId(id, gzip);
  EXPECT_TRUE(server.GetWasGzip());
}

TEST_F(CssStoreTest, IdentifiersThatAreNotGuidsNeverReachTheDisk) {
  const std::string id = Store(LargeSheet());
  // A file that a path-walking identifier would reach.
  WriteWholeFile(dir_.File("secret"), "x");
  for (const std::string& bad :
       {std::string("../secret"), std::string("/etc/passwd"), std::string(""), id.substr(1),
        id + ".g", std::string(id).replace(1, 1, "a"), "../css/" + id}) {
    bool gzip = false;
    EXPECT_EQ(Get(bad, gzip), "<null>") << bad;
  }
  bool gzip = false;
  EXPECT_NE(Get(id, gzip), "<null>");
}

TEST_F(CssStoreTest, FilterModeServesFromMemoryAndWritesNothing) {
  std::string cache = dir_.path().string();
  CZelvarCssServer server(cache.data());
  char serverUrl[] = "http://127.0.0.1/x";
  server.SetIsFilter(0, serverUrl);
  Add(server, "s.css", LargeSheet());
  server.DoWork();
  const std::string output = Output(server);
  const std::string id = server.GetMinifiedId();
  EXPECT_TRUE(IsGuidShaped(id));
  EXPECT_FALSE(std::filesystem::exists(dir_.File("css")));
  bool gzip = true;
  std::unique_ptr<CZelvarBuffer> bytes(server.GetMinifiedId("anything", gzip));
  ASSERT_TRUE(bytes);
  EXPECT_TRUE(gzip);
  EXPECT_TRUE(server.GetWasGzip());
  EXPECT_EQ(Inflate(std::string(reinterpret_cast<const char*>(bytes->GetValue()),
                                static_cast<std::size_t>(bytes->GetValueLength()))),
            output);
  gzip = false;
  bytes.reset(server.GetMinifiedId("anything", gzip));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes->GetValue()),
                        static_cast<std::size_t>(bytes->GetValueLength())),
            output);
}

// An identifier is only ever handed out for a sheet that is stored: a page
// must not link to a handler URL that nothing answers.
TEST_F(CssStoreTest, UnwritableCacheGivesNoIdentifier) {
  std::string cache = dir_.File("missing/deeper");
  CZelvarCssServer server(cache.data());
  Add(server, "s.css", "a{}");
  server.DoWork();
  EXPECT_EQ(server.GetMinifiedId(), "");
}

// The golden sheet: regenerate with
//   scripts/regenerate-css-golden.sh
TEST(CssServer, MinifiesTheSampleSheetByteForByte) {
  const std::string source = ReadWholeFile(std::string(ZP_SOURCE_DIR) + "/testdata/css/sample.css");
  ASSERT_FALSE(source.empty());
  EXPECT_EQ(Minify(source, "https://example.test/css/sample.css"),
            ReadWholeFile(std::string(ZP_SOURCE_DIR) + "/testdata/css/sample.min.css"));
}

}  // namespace
