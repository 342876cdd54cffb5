#include "html/html_constructor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "html/html_test_support.h"

namespace {

using zelvarpack::html::testing::Tokens;

int QuirksOf(const std::string& page) {
  int quirks = -1;
  Tokens(page, &quirks);
  return quirks;
}

TEST(HtmlConstructor, QuirksDecision) {
  const std::string ibm = "http://www.ibm.com/data/dtd/v11/ibmxhtml1-transitional.dtd";
  struct Case {
    std::string page;
    int quirks;
  };
  const std::vector<Case> cases = {
      {"", 1},
      {"<p>no doctype", 1},
      {"<!DOCTYPE html>", 0},
      {"<!DOCTYPE HTML>", 1},  // the name test is case-sensitive
      {"<!DOCTYPE html5>", 1},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN\" "
       "\"http://www.w3.org/TR/html4/loose.dtd\">",
       0},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Frameset//EN\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Frameset//EN\" \"\">", 0},  // present
      {"<!DOCTYPE html PUBLIC \"-//w3c//dtd html 4.01 transitional//en\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01//EN\">", 0},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\">", 0},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Frameset//EN\" \"x\">", 0},
      {"<!DOCTYPE html PUBLIC \"-//IETF//DTD HTML 2.0//EN\" \"x\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//ietf//dtd html 2.0//\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//IETF//DTD HTML 2.0/\">", 0},  // shorter than the prefix
      {"<!DOCTYPE html PUBLIC \"+//Silmaril//dtd html Pro v0r11 19970101//x\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//WebTechs//DTD Mozilla HTML//\">", 1},
      {"<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.0 Transitional//EN\" \"x\">", 1},
      {"<!DOCTYPE html PUBLIC \"HTML\">", 1},
      {"<!DOCTYPE html PUBLIC \"html\">", 1},
      {"<!DOCTYPE html PUBLIC \"HTMLX\">", 0},
      {"<!DOCTYPE html PUBLIC \"-/W3C/DTD HTML 4.0 Transitional/EN\">", 1},
      {"<!DOCTYPE html PUBLIC \"-/W3C/DTD HTML 4.0 Transitional/EN/\">", 0},
      {"<!DOCTYPE html PUBLIC \"-//W3O//DTD W3 HTML Strict 3.0//EN//\">", 1},
      {"<!DOCTYPE html SYSTEM \"" + ibm + "\">", 1},
      {"<!DOCTYPE html SYSTEM 'HTTP://WWW.IBM.COM/DATA/DTD/V11/IBMXHTML1-TRANSITIONAL.DTD'>", 1},
      {"<!DOCTYPE html SYSTEM \"" + ibm + "x\">", 0},
      {"<!DOCTYPE html", 1},                  // forced quirks
      {"<!DOCTYPE html><!DOCTYPE HTML>", 1},  // the last DOCTYPE decides
      {"<!DOCTYPE foo><!DOCTYPE html>", 0},
      // A force-quirks DOCTYPE keeps the earlier decision unless a rule says
      // otherwise.
      {"<!DOCTYPE html><!DOCTYPE html PUBLIC>", 0},
      {"<!DOCTYPE html PUBLIC>", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.page);
    EXPECT_EQ(QuirksOf(c.page), c.quirks);
  }
}

// The consumer sees each tag before the switch is made, and only start tags
// switch.
TEST(HtmlConstructor, SwitchesAfterTheConsumerSawTheStartTag) {
  struct Watcher : CHtmlConstructorEvents {
    void OnTag(HtmlTagToken* tag) override {
      std::string name(reinterpret_cast<char*>(tag->name.data),
                       static_cast<std::size_t>(tag->name.length));
      seen.push_back(name + "@" + std::to_string(constructor->Tokenizer()->state));
    }
    CHtmlConstructor* constructor = nullptr;
    std::vector<std::string> seen;
  } watcher;
  CHtmlConstructor constructor(&watcher);
  watcher.constructor = &constructor;
  std::string page = "<textarea></textarea><p></xmp>";
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                                    static_cast<int>(page.size()));
  const std::string data = std::to_string(HtmlTokenizer::kDataState);
  EXPECT_EQ(watcher.seen, (std::vector<std::string>{"textarea@" + data, "textarea@" + data,
                                                    "p@" + data, "xmp@" + data}));
  EXPECT_EQ(constructor.Tokenizer()->state, HtmlTokenizer::kDataState);
}

TEST(HtmlConstructor, ForwardsEveryKindOfToken) {
  EXPECT_EQ(Tokens("<!DOCTYPE html><!--c--><p class=x>a&amp;b</p><unknown/>"),
            R"(DOCTYPE("html",-,-) C"c" <p class="x"> "a&amp;b" </p> <unknown/>)");
}

TEST(HtmlConstructor, BaseEventsDoNothing) {
  CHtmlConstructorEvents ignore;
  CHtmlConstructor constructor(&ignore);
  std::string page = "<!DOCTYPE html><title>x</title><p>y<!--z-->";
  constructor.Tokenizer()->Tokenize(reinterpret_cast<unsigned char*>(page.data()),
                                    static_cast<int>(page.size()));
  EXPECT_EQ(constructor.quirksMode, 0);
  EXPECT_EQ(constructor.Tokenizer()->events, &constructor);
}

}  // namespace
