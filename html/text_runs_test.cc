// Runs of character data: a consumer that takes them sees the same bytes, in
// the same places, as one that takes one byte per event; receivers that do
// not take runs keep every per-byte guarantee. Also the scanning and copying
// helpers the runs are built on, at every length around their 16-byte steps.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "html/ascii.h"
#include "html/html_constructor.h"
#include "html/html_test_support.h"
#include "tests/token_cases.h"

namespace {

using zelvarpack::html::testing::ConstructorRecorder;
using zelvarpack::html::testing::Escaped;
using zelvarpack::html::testing::Tokens;
using zelvarpack::testing::B;

// Logs runs through the same one-byte tokens the per-byte consumer sees, so
// that both logs can be compared byte for byte; counts the events.
class RunRecorder : public ConstructorRecorder {
 public:
  void OnTextRun(HtmlTextToken* character, const unsigned char* bytes, std::size_t count) override {
    ++runs;
    if (character->kind != HtmlTextToken::kCharacter || character->cdata ||
        character->text.length != 1 || count == 0) {
      ++malformed;
    }
    for (std::size_t i = 0; i < count; ++i) {
      character->text.data[0] = bytes[i];
      log.Text(*character);
    }
  }
  void OnText(HtmlTextToken* text) override {
    ++texts;
    ConstructorRecorder::OnText(text);
  }
  int runs = 0, texts = 0, malformed = 0;
};

struct RunResult {
  std::string log;
  int runs, texts, malformed;
};

RunResult RunTokens(std::string input) {
  RunRecorder recorder;
  CHtmlConstructor constructor(&recorder);
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(input.data()),
                                    static_cast<int>(input.size()));
  return {recorder.log.Take(), recorder.runs, recorder.texts, recorder.malformed};
}

TEST(HtmlTextRuns, RunAwareConsumerSeesTheSameStream) {
  const std::string pages[] = {
      "plain text only",
      "a<b>c</b>d&amp;e&&f<",
      "a\r\n\nb\rc\r\r\nd\r",
      "\r\n<p>\r\ntext\r</p>\r",
      B("x\0y<p>\0</p>"),
      B("<title>T&amp;\0 <b></title>after"),
      "<script>if (a < b) x = '</scr' + 'ipt>';</script>done",
      "<script><!-- <script> x </script> --></script>z",
      "<style>p > a { }</style><textarea>a<b>&c</textarea>",
      B("<plaintext>a<b>&\0\r\nc</plaintext>"),
      "<p><![CDATA[x]]>y",
      "<!DOCTYPE html><!-- c --><p a=1 b='2' c=\"3\">t</p>",
  };
  for (const std::string& page : pages) {
    SCOPED_TRACE(Escaped(page));
    const RunResult runs = RunTokens(page);
    EXPECT_EQ(runs.log, Tokens(page));
    EXPECT_EQ(runs.malformed, 0);
  }
}

// Random markup, with CRs, NULs and the tags that switch text states, cut
// into pieces the way a page arrives.
TEST(HtmlTextRuns, RandomMarkupGivesTheSameStreamWithAndWithoutRuns) {
  std::mt19937 random(1234);
  const std::string pieces[] = {
      "<",           ">",         "&",       "\"",
      "'",           "=",         "/",       " ",
      "!",           "-",         "\r",      "\n",
      B("\0"),       "a",         "Bc",      "text of a sentence ",
      "<script>",    "</script>", "<!--",    "-->",
      "<title>",     "</TITLE>",  "<style>", "</style",
      "<plaintext>", "<![CDATA[", "]]>",     "\r\n",
      "<a href=\"",  "<xmp>",     "</xmp>",  "\t",
  };
  for (int round = 0; round < 3000; ++round) {
    std::string page;
    const int n = static_cast<int>(random() % 50);
    for (int k = 0; k < n; ++k) page += pieces[random() % std::size(pieces)];
    SCOPED_TRACE(testing::Message() << "round " << round << ": " << Escaped(page));
    const RunResult runs = RunTokens(page);
    ASSERT_EQ(runs.log, Tokens(page));
    ASSERT_EQ(runs.malformed, 0);
  }
}

TEST(HtmlTextRuns, LongTextArrivesAsFewEvents) {
  const std::string words(10000, 'w');
  const RunResult data = RunTokens("<p>" + words + "</p>");
  EXPECT_EQ(data.runs, 1);
  EXPECT_EQ(data.texts, 0);
  // A run stops at every byte that needs a decision, and goes on after it.
  const RunResult stops = RunTokens(words + "&" + words + B("\0") + words + "\r\n" + words);
  EXPECT_EQ(stops.runs, 4);
  EXPECT_EQ(stops.texts, 3);  // "&", NUL and the LF made from the CR
  const RunResult script = RunTokens("<script>" + words + "<" + words + "</script>");
  EXPECT_EQ(script.runs, 2);
}

// The base operation hands a run on byte by byte, through the same record.
TEST(HtmlTextRuns, BaseOperationDeliversEachByteThroughOnText) {
  struct Bytes : CHtmlConstructorEvents {
    void OnText(HtmlTextToken* text) override {
      if (text->text.length != 1) ++malformed;
      seen += static_cast<char>(text->text.data[0]);
      record = text;
    }
    std::string seen;
    HtmlTextToken* record = nullptr;
    int malformed = 0;
  } bytes;
  HtmlTextToken character;
  character.text.SetByte(' ');
  const std::string run = "run of text";
  bytes.OnTextRun(&character, reinterpret_cast<const unsigned char*>(run.data()), run.size());
  EXPECT_EQ(bytes.seen, run);
  EXPECT_EQ(bytes.record, &character);
  EXPECT_EQ(bytes.malformed, 0);
}

// A receiver straight on the tokenizer that takes no runs may still switch
// the state in the middle of what would have been a run.
TEST(HtmlTextRuns, PerByteReceiverSwitchesStateInsideText) {
  struct Switcher : zelvarpack::html::testing::TokenizerRecorder {
    void OnToken(HtmlTextToken* text, HtmlDoctypeToken* doctype, HtmlTagToken* tag) override {
      TokenizerRecorder::OnToken(text, doctype, tag);
      if (text != nullptr && text->text.length == 1 && text->text.data[0] == 'x') {
        tokenizer->state = HtmlTokenizer::kRcdataState;
        tokenizer->SetLastStartTagName(reinterpret_cast<const unsigned char*>("q"), 1);
      }
    }
    HtmlTokenizer* tokenizer = nullptr;
  } switcher;
  HtmlTokenizer tokenizer;
  switcher.tokenizer = &tokenizer;
  tokenizer.events = &switcher;
  std::string page = "axy<b>z</q>w<i>";
  tokenizer.Tokenize(reinterpret_cast<unsigned char*>(page.data()), static_cast<int>(page.size()));
  EXPECT_EQ(switcher.log.Take(), R"("axy<b>z" </q> "w" <i>)");
}

// Naive forms of the scanners, for comparison.
const unsigned char* NaiveNulOr(const unsigned char* p, const unsigned char* end, unsigned char a,
                                unsigned char b) {
  while (p < end && *p != 0 && *p != a && *p != b) ++p;
  return p;
}
const unsigned char* NaiveSpaceOr(const unsigned char* p, const unsigned char* end, unsigned char a,
                                  unsigned char b, unsigned char c) {
  while (p<end&& * p> ' ' && *p != a && *p != b && *p != c) ++p;
  return p;
}

TEST(HtmlScanning, FindsTheFirstStopAtEveryPositionAndLength) {
  const std::string stops = B("\0&<\x01\t\n\f\r />=\x20\x7f\x80\xff");
  for (std::size_t length = 0; length <= 49; ++length) {
    for (std::size_t at = 0; at <= length; ++at) {
      for (char stop : stops) {
        // Ordinary bytes around the stop, high bytes among them.
        std::string bytes(length, 'x');
        for (std::size_t i = 0; i < length; i += 7) bytes[i] = '\xC3';
        if (at < length) bytes[at] = stop;
        if (at + 2 < length) bytes[at + 2] = '<';  // a later stop never wins
        const auto* begin = reinterpret_cast<const unsigned char*>(bytes.data());
        const auto* end = begin + length;
        SCOPED_TRACE(testing::Message() << "length " << length << " at " << at << " stop "
                                        << Escaped(std::string(1, stop)));
        ASSERT_EQ((zelvarpack::html::FindNulOr<'&', '<'>(begin, end)),
                  NaiveNulOr(begin, end, '&', '<'));
        ASSERT_EQ((zelvarpack::html::FindNulOr<'"', '&'>(begin, end)),
                  NaiveNulOr(begin, end, '"', '&'));
        ASSERT_EQ((zelvarpack::html::FindSpaceOr<'/', '=', '>'>(begin, end)),
                  NaiveSpaceOr(begin, end, '/', '=', '>'));
      }
    }
  }
}

TEST(HtmlScanning, AppendBytesAtEveryShortLengthAndPastTheInlineBlock) {
  std::string source;
  for (int i = 0; i < 200; ++i) source += static_cast<char>('A' + i % 26);
  const auto* bytes = reinterpret_cast<const unsigned char*>(source.data());
  HtmlString out;
  std::string expected;
  for (std::size_t n = 0; n <= 20; ++n) {
    zelvarpack::html::AppendBytes(out, bytes + n, n);
    expected.append(source, n, n);
    ASSERT_EQ(std::string(reinterpret_cast<const char*>(out.data), out.length), expected);
    ASSERT_EQ(out.data[out.length], 0);
  }
  EXPECT_GT(expected.size(), 50u);  // went past the inline block
  out.Clear();
  zelvarpack::html::AppendBytes(out, bytes, 0);
  EXPECT_EQ(out.reset, 1u);  // nothing appended: still empty on purpose
  zelvarpack::html::AppendBytes(out, bytes, 3);
  EXPECT_EQ(out.reset, 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.data)), "ABC");
}

}  // namespace
