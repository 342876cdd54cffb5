// The command-line tool's fixed output formats and its usage errors, run as
// a real process.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

class ToolTest : public ::testing::Test {
 protected:
  std::string Page(const std::string& bytes) {
    const std::string path = dir_.File("page" + std::to_string(++count_) + ".html");
    WriteWholeFile(path, bytes);
    return path;
  }
  TempDir dir_;
  int count_ = 0;
};

TEST_F(ToolTest, HtmlTokensPrintsEveryKindOfToken) {
  const std::string page = Page(
      "<!DOCTYPE html PUBLIC \"\">\r\n<P Class=\"a\\b\" x>t\xe9\"<!--c--><br/></p></P y=1>"
      "<svg><![CDATA[d]]>");
  const ToolRun run = RunTool("html-tokens " + page);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            "[\"DOCTYPE\", \"html\", \"\", null, false]\n"
            "[\"Character\", \"\\u000a\"]\n"
            "[\"StartTag\", \"P\", [[\"Class\", \"a\\\\b\"], [\"x\", \"\"]], false]\n"
            "[\"Character\", \"t\\u00e9\\\"\"]\n"
            "[\"Comment\", \"c\"]\n"
            "[\"StartTag\", \"br\", [], true]\n"
            "[\"EndTag\", \"p\", []]\n"
            "[\"EndTag\", \"P\", [[\"y\", \"1\"]]]\n"
            "[\"StartTag\", \"svg\", [], false]\n"
            "[\"CDATA\", \"d\"]\n");
}

TEST_F(ToolTest, HtmlTokensConstructorSwitchesStatesAndReportsQuirks) {
  const std::string page = Page("<title><b>&amp;</title><p>");
  EXPECT_EQ(RunTool("html-tokens --constructor " + page).out,
            "[\"StartTag\", \"title\", [], false]\n"
            "[\"Character\", \"<b>&amp;\"]\n"
            "[\"EndTag\", \"title\", []]\n"
            "[\"StartTag\", \"p\", [], false]\n"
            "[\"Quirks\", true]\n");
  // Without the constructor nothing switches the tokenizer to RCDATA.
  EXPECT_EQ(RunTool("html-tokens " + page).out,
            "[\"StartTag\", \"title\", [], false]\n"
            "[\"StartTag\", \"b\", [], false]\n"
            "[\"Character\", \"&amp;\"]\n"
            "[\"EndTag\", \"title\", []]\n"
            "[\"StartTag\", \"p\", [], false]\n");
}

TEST_F(ToolTest, HtmlTokensStartStateAndLastStartTag) {
  const std::string page = Page("a</x></style>b");
  EXPECT_EQ(RunTool("html-tokens --state rawtext --last-start-tag STYLE " + page).out,
            "[\"Character\", \"a</x>\"]\n"
            "[\"EndTag\", \"style\", []]\n"
            "[\"Character\", \"b\"]\n");
  EXPECT_EQ(RunTool("html-tokens --state plaintext < " + page).out,
            "[\"Character\", \"a</x></style>b\"]\n");
}

TEST_F(ToolTest, MetaAndIdentifiers) {
  EXPECT_EQ(RunTool("meta " + Page("<meta content='text/html' http-equiv=CONTENT-type>")).out,
            "1\n");
  EXPECT_EQ(RunTool("meta " + Page("<meta http-equiv=content-type content=TEXT/HTML>")).out, "0\n");
  EXPECT_EQ(RunTool("id --number -1").out, "{FFFFFFFF-2D31-366A-A19D-A29DA39EA29C}\n");
  EXPECT_EQ(RunTool("id --content " + Page("<html></html>")).out,
            "{1B1E094F-729E-9DA3-9EA1-9AA49DA9A3A9}\n");
}

TEST_F(ToolTest, BadUsageExitsWithStatusTwoAndOneLine) {
  for (const std::string args :
       {"html-tokens --bogus", "html-tokens --state nowhere", "html-tokens /nonexistent/page",
        "meta /nonexistent/page", "id --number 4294967296", "id --number 12x", "id", "id --content",
        "no-such-command", "html-tokens a b", "meta --x", ""}) {
    const ToolRun run = RunTool(args, ToolErrors::kMerged);
    EXPECT_EQ(run.status, 2) << args;
    ASSERT_FALSE(run.out.empty()) << args;
    if (!args.empty()) {
      EXPECT_EQ(run.out.find('\n'), run.out.size() - 1) << args << ": " << run.out;
    }
  }
  // A folder cannot be read as a page.
  EXPECT_EQ(RunTool("html-tokens " + dir_.path().string(), ToolErrors::kMerged).status, 2);
}

}  // namespace
