#include "html/html_tokenizer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "html/html_constructor.h"
#include "html/html_test_support.h"
#include "tests/token_cases.h"

namespace {

using zelvarpack::html::testing::Escaped;
using zelvarpack::html::testing::RawTokens;
using zelvarpack::html::testing::Tokens;

using zelvarpack::testing::B;

void ExpectTokens(const std::vector<zelvarpack::testing::TokenCase>& cases) {
  zelvarpack::testing::ExpectTokenCases(
      cases, [](const std::string& input) { return Tokens(input); },
      [](const std::string& input) { return Escaped(input); });
}

TEST(HtmlTokenizer, CharacterDataAndAmpersands) {
  ExpectTokens({
      {"", ""},
      {"abc", R"("abc")"},
      {"&lt;", R"("&lt;")"},
      {"a&", R"("a&")"},
      {"&&<b>", R"("&&" <b>)"},
      {"a&<b>", R"("a&" <b>)"},
      {B("a\0b"), R"("a\0b")"},  // NUL in the data state is a one-byte token
      {"\xC3\xA9", R"("\xC3\xA9")"},
  });
}

TEST(HtmlTokenizer, EveryTextByteIsItsOwnToken) {
  struct Counter : CHtmlConstructorEvents {
    void OnText(HtmlTextToken* text) override {
      ++tokens;
      if (text->text.length != 1) ++not_one_byte;
    }
    int tokens = 0;
    int not_one_byte = 0;
  } counter;
  CHtmlConstructor constructor(&counter);
  std::string page = "&lt;<title>ab</title>";
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                                    static_cast<int>(page.size()));
  EXPECT_EQ(counter.tokens, 6);
  EXPECT_EQ(counter.not_one_byte, 0);
}

TEST(HtmlTokenizer, CarriageReturnsFoldIntoOneLineFeed) {
  ExpectTokens({
      {"a\r\n\n\nb", R"("a\nb")"},
      {"a\rb", R"("a\nb")"},
      {"a\r\rb", R"("a\n\nb")"},
      {"a\n\rb", R"("a\n\nb")"},
      {"a\r", R"("a\n")"},
      {"\r\n\r\n", R"("\n\n")"},
      {"<title>a\r\n\nb</title>", R"(<title> "a\nb" </title>)"},
      {"<script>\r\n\n</script>", R"(<script> "\n" </script>)"},
      {"<!--a\r\n\nb-->", R"(C"a\nb")"},
      {"<a b='1\r\n\n2'>", R"(<a b="1\n2">)"},
      {"<a\r\n\nb>", R"(<a b="">)"},
      {"<!DOCTYPE\r\nhtml>", R"(DOCTYPE("html",-,-))"},
      {"<p><![CDATA[a\r\n\nb]]>", R"(<p> CDATA"a\nb")"},
  });
}

// A byte handled again in a new state is folded again: when it is the LF
// that a CR became, it counts among the LFs that follow the CR and is
// skipped.
TEST(HtmlTokenizer, ReconsumedLineFeedFromCarriageReturnIsSkipped) {
  ExpectTokens({
      {"a<\r\nb", R"("a<b")"},
      {"&\rb", R"("&b")"},
      {"a<\nb", R"("a<\nb")"},  // a plain LF stays
      {"<title><\r\n</title>", R"(<title> "<" </title>)"},
  });
}

TEST(HtmlTokenizer, CarriageReturnsBecomeLineFeedsInTheCallersBuffer) {
  std::string page = "a\r\n\n\nb\rc";
  ASSERT_EQ(Tokens(page), R"("a\nb\nc")");
  CHtmlConstructorEvents ignore;
  CHtmlConstructor constructor(&ignore);
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                                    static_cast<int>(page.size()));
  EXPECT_EQ(page, "a\n\n\n\nb\nc");
}

TEST(HtmlTokenizer, NegativeLengthReadsNothing) {
  zelvarpack::html::testing::TokenizerRecorder recorder;
  HtmlTokenizer tokenizer;
  tokenizer.events = &recorder;
  unsigned char page[] = "\rabc";
  tokenizer.Tokenize(page, -1);
  EXPECT_EQ(recorder.log.Take(), "");
  EXPECT_EQ(page[0], '\r');
}

TEST(HtmlTokenizer, Tags) {
  ExpectTokens({
      {"<DIV Class=x>", R"(<DIV Class="x">)"},
      {"<p a=1 a=2>", R"(<p a="1" a="2">)"},
      {"<a b='1' B=\"2\" c d = e>", R"(<a b="1" B="2" c="" d="e">)"},
      {"<br/>", R"(<br/>)"},
      {"<br />", R"(<br/>)"},
      {"<a/b>", R"(<a b="">)"},
      {"<a b/>", R"(<a b=""/>)"},
      {"<a b='x'c>", R"(<a b="x" c="">)"},
      {"<a b='x'/>", R"(<a b="x"/>)"},
      {"<a b=x/>", R"(<a b="x/">)"},
      {"<a b=&amp;c>", R"(<a b="&amp;c">)"},
      {"<a b='&' c=\"x&y\" d=&>", R"(<a b="&" c="x&y" d="&">)"},
      {"<a \"b'<=c>", R"(<a \"b'<="c">)"},
      {"<a =b>", R"(<a =b="">)"},
      {"<a b=\"c'd\" e='f\"g' h=i\"j'k<l=m`>", R"(<a b="c'd" e="f\"g" h="i\"j'k<l=m`">)"},
      {"</p a=1>", R"(</p a="1">)"},
      {"</br/>", R"(</br/>)"},
      {"</>x", R"("x")"},
      {"</ x>y", R"(C" x" "y")"},
      {"</1>", R"(C"1")"},
      {"<?xml version?>", R"(C"?xml version?")"},
      {"< a", R"("< a")"},
      {"<3", R"("<3")"},
      {"a<>b", R"("a<>b")"},
      {B("<a\0b c\0d=e\0f>"), R"(<ab cd="ef">)"},
      {B("<a \0=1>"), R"(<a ="1">)"},
      {B("</\0x>"), R"(C"x")"},
  });
}

// Names, values, comments and CDATA are appended a run at a time; CR folding
// and NUL dropping must behave exactly as on the byte-by-byte path, also at
// the edges of a run.
TEST(HtmlTokenizer, RunsInsideTokensFoldAndDropLikeSingleBytes) {
  ExpectTokens({
      {"<a b=\"x\r\n\ny\rz\">", R"(<a b="x\ny\nz">)"},
      {"<a b='\r\n'>", R"(<a b="\n">)"},
      {B("<a b=\"\0x\0\" c=u\0v>"), R"(<a b="x" c="uv">)"},
      {"<ab\rc>", R"(<ab c="">)"},
      {"<a bc\rd=1>", R"(<a bc="" d="1">)"},
      {"<a b=c\rd=1>", R"(<a b="c" d="1">)"},
      {"<!--a\r\n\r\rb-->", R"(C"a\n\n\nb")"},
      {B("<!--a\0b-->"), R"(C"ab")"},
      {"<?a\r\nb>", R"(C"?a\nb")"},
      {B("<?a\0b>"), R"(C"?ab")"},
      {"<p><![CDATA[a\r\nb]]]>", R"(<p> CDATA"a\nb]")"},
      {B("<p><![CDATA[\0]>]]>"), R"(<p> CDATA"\0]>")"},
  });
}

TEST(HtmlTokenizer, EndOfInputInsideEveryConstruct) {
  ExpectTokens({
      {"<", R"("<")"},
      {"ab<", R"("ab<")"},
      {"</", R"("</")"},
      {"<!", R"(C"")"},
      {"<!-", R"(C"-")"},
      {"<!DOC", R"(C"DOC")"},
      {"<?x", R"(C"?x")"},
      {"</ x", R"(C" x")"},
      {"ab<div", R"("ab")"},
      {"<div ", ""},
      {"<div a", ""},
      {"<div a ", ""},
      {"<div a=", ""},
      {"<div a='x", ""},
      {"<div a=\"x&", ""},
      {"<div a=x", ""},
      {"<div a='x'", ""},
      {"<div/", ""},
      {"</div", ""},
      {"<!--", R"(C"")"},
      {"<!---", R"(C"")"},
      {"<!-- x", R"(C" x")"},
      {"<!--x-", R"(C"x")"},
      {"<!--x--", R"(C"x")"},
      {"<!--x--!", R"(C"x")"},
      {"<!DOCTYPE", R"(DOCTYPE(-,-,-,quirks))"},
      {"<!DOCTYPE ", R"(DOCTYPE(-,-,-,quirks))"},
      {"<!DOCTYPE html", R"(DOCTYPE("html",-,-,quirks))"},
      {"<!DOCTYPE html ", R"(DOCTYPE("html",-,-,quirks))"},
      {"<!DOCTYPE html PUBLIC", R"(DOCTYPE("html",-,-,quirks))"},
      {"<!DOCTYPE html PUBLIC \"a", R"(DOCTYPE("html","a",-,quirks))"},
      {"<!DOCTYPE html PUBLIC \"a\"", R"(DOCTYPE("html","a",-,quirks))"},
      {"<!DOCTYPE html PUBLIC \"a\" ", R"(DOCTYPE("html","a",-,quirks))"},
      {"<!DOCTYPE html SYSTEM 'b", R"(DOCTYPE("html",-,"b",quirks))"},
      {"<!DOCTYPE html SYSTEM 'b' ", R"(DOCTYPE("html",-,"b",quirks))"},
      {"<!DOCTYPE html x", R"(DOCTYPE("html",-,-,quirks))"},
      {"<p><![CDATA[ab", R"(<p> CDATA"ab")"},
      {"<p><![CDATA[", R"(<p> CDATA"")"},
      {"<title>a</ti", R"(<title> "a</ti")"},
      {"<title>a</", R"(<title> "a</")"},
      {"<title>a<", R"(<title> "a<")"},
      {"<title>a&", R"(<title> "a&")"},
      {"<script><!--", R"(<script> "<!--")"},
      {"<script><!--<script>", R"(<script> "<!--<script>")"},
      {"<script><!--<script></", R"(<script> "<!--<script></")"},
  });
}

TEST(HtmlTokenizer, Comments) {
  ExpectTokens({
      {"<!-- x -->", R"(C" x ")"},
      {"<!---->", R"(C"")"},
      {"<!-->a", R"(C"" "a")"},
      {"<!--->a", R"(C"" "a")"},
      {"<!---a-->", R"(C"-a")"},
      {"<!--a-b-->", R"(C"a-b")"},
      {"<!--a--b-->", R"(C"a--b")"},
      {"<!--a---->", R"(C"a--")"},
      {"<!--a--!>b", R"(C"a" "b")"},
      {"<!--a--!b-->", R"(C"a--!b")"},
      {"<!--a--!-->", R"(C"a--!")"},
      {"<!--<p>-->", R"(C"<p>")"},
      {B("<!--\0a-\0b--\0c--!\0-->"), R"(C"a-b--c--!")"},
      {"<!x>", R"(C"x")"},
      {"<!>", R"(C"")"},
      {"<!-x>", R"(C"-x")"},
      {"<!DOCTYP>", R"(C"DOCTYP")"},
      {"<!ELEMENT br EMPTY>", R"(C"ELEMENT br EMPTY")"},
  });
}

TEST(HtmlTokenizer, Doctypes) {
  ExpectTokens({
      {"<!DOCTYPE html>", R"(DOCTYPE("html",-,-))"},
      {"<!doctype HTML>", R"(DOCTYPE("HTML",-,-))"},
      {"<!DOCTYPEhtml>", R"(DOCTYPE("html",-,-))"},
      {"<!DOCTYPE>", R"(DOCTYPE(-,-,-,quirks))"},
      {B("<!DOCTYPE h\0tml>"), R"(DOCTYPE("html",-,-))"},
      {"<!DOCTYPE html PUBLIC \"\" \"\">", R"(DOCTYPE("html","",""))"},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01//EN\">",
       R"(DOCTYPE("html","-//W3C//DTD HTML 4.01//EN",-))"},
      {"<!DOCTYPE html public 'a' 'b'>", R"(DOCTYPE("html","a","b"))"},
      {"<!DOCTYPE html PUBLIC\"a\"\"b\">", R"(DOCTYPE("html","a","b"))"},
      {"<!DOCTYPE html SYSTEM \"about:legacy-compat\">",
       R"(DOCTYPE("html",-,"about:legacy-compat"))"},
      {"<!DOCTYPE html SYSTEM ''>", R"(DOCTYPE("html",-,""))"},
      {"<!DOCTYPE html PUBLIC>", R"(DOCTYPE("html",-,-,quirks))"},
      {"<!DOCTYPE html PUBLIC x>", R"(DOCTYPE("html",-,-,quirks))"},
      {"<!DOCTYPE html PUBLIC \"a>b", R"(DOCTYPE("html","a",-,quirks) "b")"},
      {"<!DOCTYPE html PUBLIC \"a\" x>", R"(DOCTYPE("html","a",-,quirks))"},
      {"<!DOCTYPE html SYSTEM \"b\" x>", R"(DOCTYPE("html",-,"b"))"},
      {"<!DOCTYPE html bogus>", R"(DOCTYPE("html",-,-,quirks))"},
      {B("<!DOCTYPE html PUBLIC 'a\0b'>"), R"(DOCTYPE("html","ab",-))"},
  });
}

TEST(HtmlTokenizer, CdataSectionsOnlyAfterATagOtherThanHeadOrBody) {
  ExpectTokens({
      {"<p><![CDATA[a]]>", R"(<p> CDATA"a")"},
      {"<svg><![CDATA[<b>&amp;]]>x", R"(<svg> CDATA"<b>&amp;" "x")"},
      {"<p><![CDATA[a]]]>", R"(<p> CDATA"a]")"},
      {"<p><![CDATA[]]>", R"(<p> CDATA"")"},
      {"<p><![CDATA[a]>]]>", R"(<p> CDATA"a]>")"},
      {"<body><![CDATA[a]]>", R"(<body> C"[CDATA[a]]")"},
      {"<HEAD><![CDATA[a]]>", R"(<HEAD> C"[CDATA[a]]")"},
      {"<svg></Body><![CDATA[a]]>", R"(<svg> </Body> C"[CDATA[a]]")"},
      {"<body></p><![CDATA[a]]>", R"(<body> </p> CDATA"a")"},
      {"<![CDATA[a]]>", R"(C"[CDATA[a]]")"},
      {"<p><![cdata[a]]>", R"(<p> C"[cdata[a]]")"},
  });
}

TEST(HtmlTokenizer, TextElementsEndOnlyAtTheirOwnEndTag) {
  ExpectTokens({
      {"<title>a</b></title>", R"(<title> "a</b>" </title>)"},
      {"<title>a</TITLE>b", R"(<title> "a" </TITLE> "b")"},
      {"<title>a</titlex></title >", R"(<title> "a</titlex>" </title>)"},
      {"<title>a</title x=1>", R"(<title> "a" </title x="1">)"},
      {"<title>a</title/>", R"(<title> "a" </title/>)"},
      {"<title>a</tit le>", R"(<title> "a</tit le>")"},
      {"<title>&amp;<b></title>", R"(<title> "&amp;<b>" </title>)"},
      {"<textarea><p>&lt;</textarea>", R"(<textarea> "<p>&lt;" </textarea>)"},
      {"<style>a</styl></style>", R"(<style> "a</styl>" </style>)"},
      {"<xmp><b></xmp>", R"(<xmp> "<b>" </xmp>)"},
      {"<iframe><b></iframe>", R"(<iframe> "<b>" </iframe>)"},
      {"<noembed><b></noembed>", R"(<noembed> "<b>" </noembed>)"},
      {"<noframes><b></noframes>", R"(<noframes> "<b>" </noframes>)"},
      {"<noscript><b></noscript>", R"(<noscript> "<b>" </noscript>)"},
      {"<script>if (a<b) x()</script>", R"x(<script> "if (a<b) x()" </script>)x"},
      {"<SCRIPT>a<b></Script>", R"(<SCRIPT> "a<b>" </Script>)"},
      {"<plaintext></plaintext><b>", R"(<plaintext> "</plaintext><b>")"},
      {"</title>a<b>", R"(</title> "a" <b>)"},
      // A self-closing start tag still switches, but is not the last start
      // tag: no end tag is appropriate until a real start tag was seen.
      {"<title/>a</title>", R"(<title/> "a</title>")"},
      {"<a><title/>x</a>", R"(<a> <title/> "x" </a>)"},
      {B("<title>\0</title>"), R"(<title> ~ </title>)"},
      {B("<style>\0</style>"), R"(<style> ~ </style>)"},
      {B("<script>\0</script>"), R"(<script> ~ </script>)"},
      {B("<plaintext>\0"), R"(<plaintext> ~)"},
  });
}

TEST(HtmlTokenizer, ScriptEscapesAndDoubleEscapes) {
  ExpectTokens({
      {"<script><!--<script></script>--></script>",
       R"(<script> "<!--<script></script>-->" </script>)"},
      {"<script><!--</script>-->", R"(<script> "<!--" </script> "-->")"},
      {"<script><!--<script></script></script>x",
       R"(<script> "<!--<script></script>" </script> "x")"},
      {"<script><!--<script>--></script>", R"(<script> "<!--<script>-->" </script>)"},
      {"<script><!--<SCRIPT></Script>--></script>",
       R"(<script> "<!--<SCRIPT></Script>-->" </script>)"},
      {"<script><!--<scripty></script>", R"(<script> "<!--<scripty>" </script>)"},
      // Only "-->" leaves the double escape; until then "</script>" just
      // ends the double escape.
      {"<script><!--<script>-<-></script>", R"(<script> "<!--<script>-<-></script>")"},
      {"<script><!--<script>--<b></script></script>",
       R"(<script> "<!--<script>--<b></script>" </script>)"},
      {"<script><!-x</script>", R"(<script> "<!-x" </script>)"},
      {"<script><!x</script>", R"(<script> "<!x" </script>)"},
      {"<script><!--a-b--c</script>", R"(<script> "<!--a-b--c" </script>)"},
      {"<script><!--</b>--></script>", R"(<script> "<!--</b>-->" </script>)"},
      {"<script><!--<1--></script>", R"(<script> "<!--<1-->" </script>)"},
      {B("<script><!--a\0-\0--\0</script>"), R"(<script> "<!--a" ~ "-" ~ "--" ~ </script>)"},
      {B("<script><!--<script>\0-\0--\0</script>"),
       R"(<script> "<!--<script>" ~ "-" ~ "--" ~ "</script>")"},
  });
}

TEST(HtmlTokenizer, AppropriateEndTagComparesCaseInsensitively) {
  using H = HtmlTokenizer;
  EXPECT_EQ(RawTokens("a</TextArea>b", H::kRcdataState, "textarea"), R"("a" </TextArea> "b")");
  EXPECT_EQ(RawTokens("a</textarea>", H::kRcdataState, ""), R"("a</textarea>")");
  EXPECT_EQ(RawTokens("a</style >", H::kRawtextState, "STYLE"), R"("a" </style>)");
  EXPECT_EQ(RawTokens("a</script\tx=1>", H::kScriptDataState, "script"), R"("a" </script x="1">)");
  EXPECT_EQ(RawTokens("</a>", H::kPlaintextState, "a"), R"("</a>")");
}

// The receiver may change the state during any token; the change holds from
// the next byte, also in the middle of a run of text.
TEST(HtmlTokenizer, ReceiverStateChangeTakesEffectFromTheNextByte) {
  struct Recorder : zelvarpack::html::testing::TokenizerRecorder {
    void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override {
      TokenizerRecorder::OnToken(text, doctype, tag);
      if (text != nullptr && text->text.length == 1 && text->text.data[0] == 'x') {
        tokenizer->state = HtmlTokenizer::kPlaintextState;
      }
    }
    HtmlTokenizer* tokenizer = nullptr;
  };
  for (std::uint32_t start : {HtmlTokenizer::kDataState, HtmlTokenizer::kRcdataState,
                              HtmlTokenizer::kRawtextState, HtmlTokenizer::kScriptDataState}) {
    SCOPED_TRACE(start);
    Recorder recorder;
    HtmlTokenizer tokenizer;
    recorder.tokenizer = &tokenizer;
    tokenizer.events = &recorder;
    tokenizer.state = start;
    std::string page = "ax<b>&c";
    tokenizer.Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                       static_cast<int>(page.size()));
    EXPECT_EQ(recorder.log.Take(), R"("ax<b>&c")");
  }
}

TEST(HtmlTokenizer, UnknownStateSkipsBytes) {
  EXPECT_EQ(RawTokens("abc", 0), "");
  EXPECT_EQ(RawTokens("abc", 1000), "");
}

TEST(HtmlTokenizer, StatePersistsAcrossCalls) {
  zelvarpack::html::testing::TokenizerRecorder recorder;
  HtmlTokenizer tokenizer;
  tokenizer.events = &recorder;
  std::string first = "<title>";
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(first.data()), 7);
  tokenizer.state = HtmlTokenizer::kRcdataState;
  std::string second = "<b></title>";
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(second.data()), 11);
  EXPECT_EQ(recorder.log.Take(), R"(<title> "<b>" </title>)");
}

// The literal main loop: fold, step, advance, with "&" and NUL handled as in
// the text states. It defines what the run-scanning states must produce.
std::string ReferenceText(std::string in, std::uint32_t state) {
  const bool ampersand = state == HtmlTokenizer::kDataState || state == HtmlTokenizer::kRcdataState;
  const bool nul_is_data = state == HtmlTokenizer::kDataState;
  std::string out;
  bool last_was_cr = false;
  bool in_reference = false;
  for (std::size_t pos = 0; pos <= in.size(); ++pos) {
    if (last_was_cr) {
      while (pos < in.size() && in[pos] == '\n') ++pos;
      last_was_cr = false;
    }
    if (pos < in.size() && in[pos] == '\r') {
      in[pos] = '\n';
      last_was_cr = true;
    }
    if (in_reference) {  // emit "&", reconsume
      out += "&";
      in_reference = false;
      --pos;
      continue;
    }
    if (pos == in.size()) break;
    const char c = in[pos];
    if (c == '&' && ampersand) {
      in_reference = true;
    } else if (c == 0) {
      out += nul_is_data ? std::string(1, '\0') : std::string("~");
    } else {
      out += c;
    }
  }
  return out;
}

// Flattens a text-only log ("abc" ~ "d") to the same form as ReferenceText.
std::string Flatten(std::uint32_t state, std::string input) {
  struct Flat : CHtmlTokenizerEvents {
    void OnToken(HtmlTextToken* text, HtmlDoctypeToken*, HtmlTagToken*) override {
      if (text == nullptr || text->kind != 0 || text->text.length > 1) {
        out += "<<unexpected token>>";
      } else if (text->text.length == 0) {
        out += "~";
      } else {
        out += static_cast<char>(text->text.data[0]);
      }
    }
    std::string out;
  } flat;
  HtmlTokenizer tokenizer;
  tokenizer.events = &flat;
  tokenizer.state = state;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                     static_cast<int>(input.size()));
  return flat.out;
}

TEST(HtmlTokenizer, TextRunsMatchTheByteByByteModel) {
  std::mt19937 random(20240611);
  const std::string alphabet = B("ab&\r\n\n\0-");
  for (std::uint32_t state :
       {HtmlTokenizer::kDataState, HtmlTokenizer::kRcdataState, HtmlTokenizer::kRawtextState,
        HtmlTokenizer::kScriptDataState, HtmlTokenizer::kPlaintextState}) {
    for (int round = 0; round < 400; ++round) {
      std::string input(random() % 40, ' ');
      for (char& c : input) c = alphabet[random() % alphabet.size()];
      SCOPED_TRACE(testing::Message() << "state " << state << " round " << round);
      ASSERT_EQ(Flatten(state, input), ReferenceText(input, state)) << Escaped(input);
    }
  }
}

// Random markup from a small alphabet: the stream is deterministic, every CR
// is folded, and each call carries exactly one token (of at most one byte
// when it is character data outside CDATA).
TEST(HtmlTokenizer, RandomMarkupIsHandledConsistently) {
  std::mt19937 random(7);
  const std::string alphabet = B("<>/!-a \r\n&'\"=[]CDATA?\0");
  for (int round = 0; round < 3000; ++round) {
    std::string input(random() % 60, ' ');
    for (char& c : input) c = alphabet[random() % alphabet.size()];
    SCOPED_TRACE(testing::Message() << "round " << round << ": " << Escaped(input));
    std::string copy = input;
    const std::string first = RawTokens(copy);
    ASSERT_EQ(first, RawTokens(input));
    ASSERT_EQ(first.find("<<malformed call>>"), std::string::npos);
    ASSERT_EQ(Tokens(input), Tokens(copy));
    CHtmlConstructorEvents ignore;
    CHtmlConstructor constructor(&ignore);
    constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(copy.data()),
                                      static_cast<int>(copy.size()));
    ASSERT_EQ(copy.find('\r'), std::string::npos);
  }
}

// Single huge constructs; quadratic behaviour would make these crawl.
TEST(HtmlTokenizer, HugeConstructsKeepEveryByte) {
  const std::size_t n = 5u << 20;
  const std::string body(n, 'x');
  struct Sizes : CHtmlConstructorEvents {
    void OnTag(HtmlTagToken* tag) override {
      std::size_t count = 0;
      for (HtmlAttribute* a = tag->FirstAttribute(); a != nullptr; a = a->next) {
        ++count;
        largest = std::max<std::size_t>(largest, a->value.length);
      }
      attributes = std::max(attributes, count);
    }
    void OnText(HtmlTextToken* text) override {
      if (text->kind == HtmlTextToken::kComment || text->cdata) {
        largest = std::max<std::size_t>(largest, text->text.length);
      } else {
        ++characters;
      }
    }
    std::size_t largest = 0, attributes = 0, characters = 0;
  };
  auto run = [](std::string page) {
    Sizes sizes;
    CHtmlConstructor constructor(&sizes);
    constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                                      static_cast<int>(page.size()));
    return sizes;
  };
  EXPECT_EQ(run("<p title=\"" + body + "\">").largest, n);
  EXPECT_EQ(run("<p title=" + body + ">").largest, n);
  EXPECT_EQ(run("<!--" + body + "-->").largest, n);
  EXPECT_EQ(run("<!--" + body).largest, n);
  EXPECT_EQ(run("<?" + body).largest, n + 1);
  EXPECT_EQ(run("<p><![CDATA[" + body).largest, n);
  EXPECT_EQ(run("<script>" + body + "</script>").characters, n);
  EXPECT_EQ(run("<script></" + body).characters, n + 2);
  std::string tag = "<a";
  for (std::size_t i = 0; i < 1000000; ++i) tag += " b";
  EXPECT_EQ(run(tag + ">").attributes, 1000000u);
}

TEST(HtmlString, KeepsTerminatorAndResetFlag) {
  HtmlString s;
  EXPECT_EQ(s.length, 0);
  EXPECT_EQ(s.reset, 0u);
  EXPECT_EQ(s.data[0], 0);
  s.Clear();
  EXPECT_EQ(s.reset, 1u);
  s.Append('a');
  EXPECT_EQ(s.reset, 0u);
  for (int i = 0; i < 1000; ++i) s.Append(static_cast<unsigned char>('0' + i % 10));
  EXPECT_EQ(s.length, 1001);
  EXPECT_EQ(s.data[1001], 0);
  EXPECT_EQ(s.data[1000], '9');
  const std::string tail(300, 'z');
  s.Append(reinterpret_cast<const unsigned char*>(tail.data()), tail.size());
  EXPECT_EQ(s.length, 1301);
  EXPECT_EQ(s.data[1301], 0);
  EXPECT_GT(s.capacity, s.length);
  s.Clear();
  EXPECT_EQ(s.length, 0);
  EXPECT_EQ(s.data[0], 0);
  EXPECT_GE(s.capacity, 1302);  // the block is kept
  s.Assign(reinterpret_cast<const unsigned char*>("Html"), 4);
  EXPECT_TRUE(s.EqualsIgnoringCase("hTML"));
  EXPECT_FALSE(s.Equals("html"));
  EXPECT_TRUE(s.Equals("Html"));
  EXPECT_FALSE(s.EqualsIgnoringCase("htm"));
}

TEST(HtmlTagToken, ResetReusesAttributesInOrder) {
  HtmlTagToken tag;
  for (const char* name : {"a", "B", "c"}) {
    tag.AddAttribute()->name.Assign(reinterpret_cast<const unsigned char*>(name), 1);
  }
  EXPECT_EQ(tag.FindAttribute("b"), tag.FirstAttribute()->next);
  EXPECT_EQ(tag.LastAttribute()->previous, tag.FirstAttribute()->next);
  tag.Reset(HtmlTagToken::kEndTag);
  EXPECT_EQ(tag.FirstAttribute(), nullptr);
  EXPECT_EQ(tag.kind, HtmlTagToken::kEndTag);
  HtmlAttribute* reused = tag.AddAttribute();
  EXPECT_TRUE(reused->name.Empty());
  EXPECT_EQ(reused->previous, nullptr);
  EXPECT_EQ(reused->next, nullptr);
  EXPECT_EQ(tag.FindAttribute("a"), nullptr);
}

}  // namespace
