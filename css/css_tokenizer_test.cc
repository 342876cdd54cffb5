#include "css/css_tokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "css/css_constructor.h"
#include "css/css_test_support.h"
#include "tests/token_cases.h"

namespace {

using zelvarpack::css::testing::Escaped;
using zelvarpack::css::testing::Text;
using zelvarpack::css::testing::Tokens;

using zelvarpack::testing::B;

void ExpectTokens(const std::vector<zelvarpack::testing::TokenCase>& cases) {
  zelvarpack::testing::ExpectTokenCases(
      cases, [](const std::string& input) { return Tokens(input); },
      [](const std::string& input) { return Escaped(input); });
}

TEST(CssTokenizer, PunctuationWhitespaceAndDelims) {
  ExpectTokens({
      {"", ""},
      {"a{color:red}", "I(a) { I(color) : I(red) }"},
      {"()[]{};:", "( ) [ ] { } ; :"},
      {"a \t\n b", "I(a) _ I(b)"},
      {"a\r\nb", "I(a) _ I(b)"},       // CR LF is two LFs, one whitespace token
      {"a\fb", "I(a) D(\\x0C) I(b)"},  // form feed is not whitespace
      {B("a\0b"), "I(a) D(\\x00) I(b)"},
      {"ab\xC3\xA9"
       "cd",
       "I(ab) D(\\xC3) D(\\xA9) I(cd)"},
      {"> ~ , * ! = | $ ^ & ?",
       "D(>) _ D(~) _ D(,) _ D(*) _ D(!) _ D(=) _ D(|) _ D($) _ D(^) _ "
       "D(&) _ D(?)"},
      {"+ . / < \\", "D(+) _ D(.) _ D(/) _ D(<) _ D(\\)"},
      {"\\\nx", "D(\\) _ I(x)"},
  });
}

TEST(CssTokenizer, CdoCdcAndComments) {
  ExpectTokens({
      {"<!-- a -->", "<!-- _ I(a) _ -->"},
      {"<!-", "D(<) D(!) D(-)"},
      {"a-->", "I(a--) D(>)"},  // "-" is a name byte
      {" -->", "_ -->"},
      {"a/* x */b", "I(a) C I(b)"},
      {"/**/", "C"},
      {"/*/ a", "C"},   // the "*" of "/*" does not close the comment
      {"/* a *", "C"},  // unclosed at the end of the input
      {"/*", "C"},
      {"/ *", "D(/) _ D(*)"},
  });
}

TEST(CssTokenizer, IdentsFunctionsHashesAndAtKeywords) {
  ExpectTokens({
      {"-a _x a-b_c1", "I(-a) _ I(_x) _ I(a-b_c1)"},
      {"-", "D(-)"},
      {"--a", "D(-) I(-a)"},
      {"-\\41", "D(-) I(\\41)"},
      {"calc(", "F(calc)"},
      {"calc (", "I(calc) _ ("},
      {"rgba(1)", "F(rgba) N(1) )"},
      {"#fff #-1 #_", "#(fff) _ #(-1) _ #(_)"},
      {"#", "D(#)"},
      {"# a", "D(#) _ I(a)"},
      {"#\\41x", "#(\\41x)"},
      {"#\xC3", "D(#) D(\\xC3)"},
      {"@media @-moz-x @_a", "@(media) _ @(-moz-x) _ @(_a)"},
      {"@", "D(@)"},
      {"@1", "D(@) N(1)"},
      {"@--x", "D(@) D(-) I(-x)"},
      {"@-1", "D(@) N(-1)"},
      {"@\\41x", "@(\\41x)"},
  });
}

TEST(CssTokenizer, EscapesKeepTheirBytesAndSkipOddly) {
  ExpectTokens({
      // Escapes are kept as written, backslash and all.
      {"a\\.b", "I(a\\.b)"},
      {"\\:x", "I(\\:x)"},
      {"a\\ b", "I(a\\ b)"},
      {"x\\41", "I(x\\41)"},
      // A hex escape takes exactly one whitespace byte after it (CSS Syntax).
      {"x\\41 b", "I(x\\41 b)"},
      {"x\\41  b", "I(x\\41 ) _ I(b)"},
      {"x\\41\tb", "I(x\\41\\x09b)"},
      {"x\\41\x0C"
       "b",
       "I(x\\41\\x0Cb)"},
      {"x\\41y b", "I(x\\41y) _ I(b)"},
      {"x\\000041 y", "I(x\\000041 y)"},
      {"x\\00004142", "I(x\\00004142)"},  // at most six digits per escape
      {"'x\\41 y'", "S'x\\41 y'"},
      {"\\f101", "I(\\f101)"},
      {".sm\\:flex", "D(.) I(sm\\:flex)"},
  });
}

TEST(CssTokenizer, StringsAndBadStrings) {
  ExpectTokens({
      {"\"a b\" 'c'", "S\"a b\" _ S'c'"},
      {"\"\"", "S\"\""},
      {"\"a'b\" 'a\"b'", "S\"a'b\" _ S'a\"b'"},
      {"\"a\\\"b\"", "S\"a\\\"b\""},  // the escape as written
      {"\"a\\\nb\"", "S\"ab\""},      // line continuation
      {"\"a\\\fb\"", "S\"ab\""},
      {"\"abc", "S\"abc\""},  // unterminated at the end: a normal string
      {"'a\nb'", "BS _ I(b) S''"},
      {"\"a\fb", "BS D(\\x0C) I(b)"},
      {"\"a\\", "BS"},  // "\" as the last byte
      {"\"\xC3\xA9\"", "S\"\\xC3\\xA9\""},
  });
}

TEST(CssTokenizer, NumbersPercentagesAndDimensions) {
  ExpectTokens({
      {"1 +5 -7 .5 +.5 -.5", "N(1) _ N(+5) _ N(-7) _ N(.5) _ N(+.5) _ N(-.5)"},
      {"1.5em -2px 10PX", "DIM(1.5,em) _ DIM(-2,px) _ DIM(10,PX)"},
      // The "%" is examined again and becomes a delim after the percentage.
      {"50%", "P(50) D(%)"},
      {".5%;", "P(.5) D(%) ;"},
      {"5 %", "N(5) _ D(%)"},
      {"1.2.3", "N(1.2) N(.3)"},
      {"1.", "N(1) D(.)"},
      {"1.x", "N(1) D(.) I(x)"},
      // The exponent letter is lost.
      // The exponent is kept, letter and all.
      {"1e3", "N(1e3)"},
      {"1e+3", "N(1e+3)"},
      {"2e-5", "N(2e-5)"},
      {"1.5E2", "N(1.5E2)"},
      {"-.5e-1", "N(-.5e-1)"},
      {"1e3px", "DIM(1e3,px)"},
      {"2e2%", "P(2e2) D(%)"},
      {"1e2e3", "DIM(1e2,e3)"},
      {"1e", "DIM(1,e)"},
      {"1em", "DIM(1,em)"},
      {"1e+x", "DIM(1,e) D(+) I(x)"},
      {"1-x", "DIM(1,-x)"},
      {"1-2", "N(1) N(-2)"},
      {"1--", "N(1) D(-) D(-)"},
      {"1\\41", "DIM(1,\\41)"},
      {"1-\\41", "DIM(1,-\\41)"},
      {"1-\\\n", "N(1) D(-) D(\\) _"},
      {"1_a", "DIM(1,_a)"},
      {"+ +a", "D(+) _ D(+) I(a)"},
      {"1\xC3", "N(1) D(\\xC3)"},
  });
}

TEST(CssTokenizer, UrlsAndBadUrls) {
  ExpectTokens({
      {"url(a.png)", "U(a.png)"},
      {"URL(\"a\") uRl('b')", "U\"a\" _ U'b'"},
      {"url( 'a b.png' )", "U'a b.png'"},
      {"url(  a  )", "U(a)"},
      {"url()", "U()"},
      {"url(a)b", "U(a) I(b)"},
      {"url(a\\)b)", "U(a\\)b)"},
      {"url(\"a\\\nb\")", "U\"ab\""},
      {"url(a\x0B\x0C"
       "b)",
       "U(a\\x0B\\x0Cb)"},  // VT and FF are url bytes
      {"url(a\x0D"
       "b)",
       "BU"},  // a CR is an LF by then: whitespace inside the url
      {"url(a b)", "BU"},
      {"url(a\"b)", "BU"},
      {"url(a'b) c", "BU _ I(c)"},
      {"url(a(b)", "BU"},
      {"url(a\x01)", "BU"},
      {"url(a\x7F)", "BU"},
      {"url(a\xC3\xA9)", "BU"},
      {"url(a\\\n)", "BU"},
      {"url(\"a\" x)", "BU"},
      {"url('a\nb')", "BU"},
      {"url(a\"\\)b)c", "BU I(c)"},  // escapes are skipped inside a bad url
      {"url(\"a\\", "BU"},           // "\" as the last byte of a quoted url
      // Unfinished urls at the end of the input emit nothing.
      {"url(", ""},
      {"url( ", ""},
      {"url(a", ""},
      {"url(a\\", ""},
      {"url(\"a", ""},
      {"url(\"a\"", ""},
      {"url(a b", ""},
      // Only the data state recognises "url(".
      {"url (a)", "I(url) _ ( I(a) )"},
      {"\\75rl(a)", "F(\\75rl) I(a) )"},
      {"xurl(a)", "F(xurl) I(a) )"},
      {"u", "I(u)"},
      {"url", "I(url)"},
  });
}

TEST(CssTokenizer, UnicodeRangesAreTokenizedAgain) {
  ExpectTokens({
      // A range covers exactly its own bytes; a wildcard keeps its "?"s.
      {"U+00??", "UR(00??,)"},
      {"u+0-7F", "UR(0,7F)"},
      {"U+0000-00FF", "UR(0000,00FF)"},
      {"U+1F600", "UR(1F600,)"},
      {"u+a", "UR(a,)"},
      {"U+1234567", "UR(123456,) N(7)"},
      {"U+1?????", "UR(1?????,)"},
      {"U+1???????", "UR(1?????,) D(?) D(?)"},
      {"U+4?"
       "?-5",
       "UR(4?"
       "?,) N(-5)"},
      {"U+0-7F,U+A0", "UR(0,7F) D(,) UR(A0,)"},
      {"U+1-", "UR(1,) D(-)"},
      {"u+", "I(u) D(+)"},
      {"u+g", "I(u) D(+) I(g)"},
      {"U+??", "I(U) D(+) D(?) D(?)"},
  });
}

TEST(CssTokenizer, CarriageReturnsBecomeLineFeedsInTheCallersBuffer) {
  std::string input = "a\r\rb\r";
  zelvarpack::css::testing::TokenRecorder recorder;
  CCssTokenizer tokenizer;
  tokenizer.events = &recorder;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                     static_cast<std::int32_t>(input.size()));
  EXPECT_EQ(input, "a\n\nb\n");
  EXPECT_EQ(recorder.out, "I(a) _ I(b) _");
}

TEST(CssTokenizer, NegativeLengthOrNoReceiverDoesNothing) {
  std::string input = "a\rb";
  zelvarpack::css::testing::TokenRecorder recorder;
  CCssTokenizer tokenizer;
  tokenizer.events = &recorder;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()), -1);
  EXPECT_EQ(recorder.out, "");
  EXPECT_EQ(input, "a\rb");
}

TEST(CssTokenizer, TextsAreTerminatedAndGrowInStepsOfFifty) {
  // A long ident reaches the receiver whole and NUL-terminated.
  struct LongIdent : CCssTokenizerEvents {
    void OnToken(CssText* ident, CssText*, CssText*, CssText*, CssQuotedText*, void*,
                 CssQuotedText*, void*, CssText*, CssText*, CssText*, CssTextPair*, CssTextPair*,
                 void*, void*, void*, void*, void*, void*, void*, void*, void*, void*, void*,
                 void*) override {
      if (ident == nullptr) return;
      length = ident->length;
      capacity = ident->capacity;
      terminated = ident->data[ident->length] == 0;
    }
    int length = 0, capacity = 0;
    bool terminated = false;
  } receiver;
  std::string input(1000, 'a');
  input[500] = '\\';
  CCssTokenizer tokenizer;
  tokenizer.events = &receiver;
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(input.data()), 1000);
  EXPECT_EQ(receiver.length, 1000);  // the "\" is kept with its byte
  EXPECT_EQ(receiver.capacity, 1050);
  EXPECT_TRUE(receiver.terminated);
}

TEST(CssText, AppendsFollowTheFiftyByteRule) {
  CssText text;
  EXPECT_EQ(text.capacity, 50);
  for (int i = 0; i < 49; ++i) text.Append('x');
  EXPECT_EQ(text.capacity, 50);
  text.Append('x');  // length + 1 reached the capacity before this byte
  EXPECT_EQ(text.capacity, 100);
  const std::string more(120, 'y');
  text.Append(reinterpret_cast<const unsigned char*>(more.data()), 120);
  EXPECT_EQ(text.length, 170);
  EXPECT_EQ(text.capacity, 200);
  EXPECT_EQ(text.data[170], 0);
  text.Reset(false);
  EXPECT_EQ(text.length, 170);
  EXPECT_EQ(text.reset, 0);
  text.Reset(true);
  EXPECT_EQ(text.length, 0);
  EXPECT_EQ(text.reset, 1);
  EXPECT_EQ(text.data[0], 0);
  EXPECT_TRUE(CssText().EqualsIgnoringCase(""));
}

// Records which operation each token reaches, in the tokenizer's notation,
// so a swapped slot shows as a different stream.
class OperationRecorder : public CCssConstructorEvents {
 public:
  void OnCloseBrace(void*) override { Add("}"); }
  void OnOpenBrace(void*) override { Add("{"); }
  void OnCloseParen(void*) override { Add(")"); }
  void OnOpenParen(void*) override { Add("("); }
  void OnCloseBracket(void*) override { Add("]"); }
  void OnOpenBracket(void*) override { Add("["); }
  void OnSemicolon(void*) override { Add(";"); }
  void OnColon(void*) override { Add(":"); }
  void OnCdc(void*) override { Add("-->"); }
  void OnCdo(void*) override { Add("<!--"); }
  void OnComment(void* t) override {
    const auto* text = static_cast<const CssText*>(t);
    Add(text->length > 0 ? "C(" + Text(text) + ")" : "C");
  }
  void OnWhitespace(void*) override { Add("_"); }
  void OnUnicodeRange(CssTextPair* p) override {
    Add("UR(" + Text(&p->first) + "," + Text(&p->second) + ")");
  }
  void OnDimension(CssTextPair* p) override {
    Add("DIM(" + Text(&p->first) + "," + Text(&p->second) + ")");
  }
  void OnPercentage(CssText* t) override { Add("P(" + Text(t) + ")"); }
  void OnNumber(CssText* t) override { Add("N(" + Text(t) + ")"); }
  void OnDelim(CssText* t) override { Add("D(" + Text(t) + ")"); }
  void OnBadUrl(void*) override { Add("BU"); }
  void OnUrl(CssQuotedText* u) override {
    const std::string t = Text(&u->text);
    Add(u->quote == 0 ? "U\"" + t + "\"" : u->quote == 1 ? "U'" + t + "'" : "U(" + t + ")");
  }
  void OnBadString(void*) override { Add("BS"); }
  void OnString(CssQuotedText* s) override {
    Add(s->quote == 0 ? "S\"" + Text(&s->text) + "\"" : "S'" + Text(&s->text) + "'");
  }
  void OnHash(CssText* t) override { Add("#(" + Text(t) + ")"); }
  void OnAtKeyword(CssText* t) override { Add("@(" + Text(t) + ")"); }
  void OnFunction(CssText* t) override { Add("F(" + Text(t) + ")"); }
  void OnIdent(CssText* t) override { Add("I(" + Text(t) + ")"); }

  std::string out;

 private:
  void Add(const std::string& item) {
    if (!out.empty()) out += ' ';
    out += item;
  }
};

void ThroughConstructor(std::string input, CCssConstructorEvents* receiver) {
  CCssConstructor constructor(receiver);
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                                    static_cast<std::int32_t>(input.size()));
}

TEST(CssConstructor, EveryTokenReachesItsOwnOperation) {
  const std::string every =
      "a f( @m #h \"s\" 'x\n url(u) url(a b) ! 1 2% 3px U+1? /**/ <!-- --> : ; [ ] ( ) { }";
  OperationRecorder recorder;
  ThroughConstructor(every, &recorder);
  const std::string expected = Tokens(every);
  EXPECT_EQ(recorder.out, expected);
  // Every kind occurs once or more.
  for (const char* kind :
       {"I(", "F(", "@(",   "#(",  "S\"", "BS", "U(", "BU", "D(", "N(", "P(", "DIM(", "UR(",
        "_",  "C",  "<!--", "-->", ":",   ";",  "[",  "]",  "(",  ")",  "{",  "}"}) {
    EXPECT_NE(expected.find(kind), std::string::npos) << kind;
  }
}

TEST(CssConstructor, EmptyInputAndBaseReceiver) {
  OperationRecorder recorder;
  ThroughConstructor("", &recorder);
  EXPECT_EQ(recorder.out, "");
  ThroughConstructor("/* a */ /* b */", &recorder);
  EXPECT_EQ(recorder.out, "C _ C");
  // A licence notice carries its text, once, even unclosed.
  recorder.out.clear();
  ThroughConstructor("/*! MIT */a/*!x", &recorder);
  EXPECT_EQ(recorder.out, "C(! MIT ) I(a) C(!x)");
  // The base operations do nothing; a detached constructor drops tokens.
  CCssConstructorEvents base;
  ThroughConstructor("a{b:url(c) 1% U+1}", &base);
  ThroughConstructor("a{b:c}", nullptr);
}

}  // namespace
