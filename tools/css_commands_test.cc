// The css-tokens, minify-css, css store|get and style subcommands, run as a
// real process.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

class CssToolTest : public ::testing::Test {
 protected:
  std::string Sheet(const std::string& bytes) {
    const std::string path = dir_.File("sheet" + std::to_string(++count_) + ".css");
    WriteWholeFile(path, bytes);
    return path;
  }
  TempDir dir_;
  int count_ = 0;
};

TEST_F(CssToolTest, CssTokensNamesEveryKind) {
  const ToolRun run =
      RunTool("css-tokens " + Sheet("a f( @m #h \"s\" 'x\n url(u) url('v') url(a b) ! 1 2% 3px "
                                    "U+1? /**/<!---->:;[]()\xC3{}"));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            "[\"ident\", \"a\"]\n[\"whitespace\"]\n[\"function\", \"f\"]\n[\"whitespace\"]\n"
            "[\"at-keyword\", \"m\"]\n[\"whitespace\"]\n[\"hash\", \"h\"]\n[\"whitespace\"]\n"
            "[\"string\", \"s\", 0]\n[\"whitespace\"]\n[\"bad-string\"]\n[\"whitespace\"]\n"
            "[\"url\", \"u\", 2]\n[\"whitespace\"]\n[\"url\", \"v\", 1]\n[\"whitespace\"]\n"
            "[\"bad-url\"]\n[\"whitespace\"]\n[\"delim\", \"!\"]\n[\"whitespace\"]\n"
            "[\"number\", \"1\"]\n[\"whitespace\"]\n[\"percentage\", \"2\"]\n[\"delim\", \"%\"]\n"
            "[\"whitespace\"]\n[\"dimension\", \"3\", \"px\"]\n[\"whitespace\"]\n"
            "[\"unicode-range\", \"1?\", \"\"]\n[\"whitespace\"]\n"
            "[\"comment\"]\n[\"CDO\"]\n[\"CDC\"]\n[\":\"]\n[\";\"]\n[\"[\"]\n[\"]\"]\n[\"(\"]\n"
            "[\")\"]\n[\"delim\", \"\\u00c3\"]\n[\"{\"]\n[\"}\"]\n");
  EXPECT_EQ(RunTool("css-tokens < " + Sheet("\"a\\\"b\"")).out,
            "[\"string\", \"a\\\\\\\"b\", 0]\n");
  EXPECT_EQ(RunTool("css-tokens < " + Sheet("/*! MIT */1e3")).out,
            "[\"comment\", \"! MIT \"]\n[\"number\", \"1e3\"]\n");
}

TEST_F(CssToolTest, MinifyCssNamesTheFirstSheetOnly) {
  const std::string a = Sheet("p { b : url(x.png) }\n");
  const std::string b = Sheet(" q { b : url(y.png) }");
  EXPECT_EQ(RunTool("minify-css --name http://h.test/c/s.css " + a + " " + b).out,
            "p{b:url(http://h.test/c/x.png)} q{b:url(y.png)}");
  EXPECT_EQ(RunTool("minify-css " + a + " " + a).out, "p{b:url(x.png)}");  // one sheet per name
}

TEST_F(CssToolTest, FilterCssNeedsTheSheetsAddress) {
  // With nothing to download it minifies; the sheet is not stored.
  const std::string cache = dir_.File("filter");
  const ToolRun run =
      RunTool("filter-css --cache " + cache + " --timeout 0 --name http://h.test/c/s.css " +
              Sheet("a { b : url(x.png) no-repeat ; width : 1px }"));
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "a{b:url(http://h.test/c/x.png) no-repeat;width:1px}");
  EXPECT_EQ(RunTool("filter-css " + Sheet("a{}")).status, 2);
  EXPECT_EQ(RunTool("filter-css --name x --timeout -1 " + Sheet("a{}")).status, 2);
}

TEST_F(CssToolTest, CssStoreAndGetRoundTrip) {
  std::string large;
  for (int i = 0; i < 100; ++i) large += ".r" + std::to_string(i) + " { margin : 0 }\n";
  const std::string cache = dir_.path().string();
  const ToolRun store = RunTool("css store --cache " + cache + " " + Sheet(large));
  ASSERT_EQ(store.status, 0);
  const std::string id = store.out.substr(0, store.out.size() - 1);
  EXPECT_EQ(RunTool("id --content " + cache + "/css/" + id).out, store.out);

  const ToolRun plain = RunTool("css get --cache " + cache + " " + id, ToolErrors::kMerged);
  EXPECT_EQ(plain.out, ReadWholeFile(cache + "/css/" + id) + "{\"gzip\": false}\n");
  const ToolRun gzip = RunTool("css get --gzip --cache " + cache + " " + id, ToolErrors::kMerged);
  EXPECT_EQ(gzip.out, ReadWholeFile(cache + "/css/" + id + ".g") + "{\"gzip\": true}\n");
  EXPECT_EQ(RunTool("css get --cache " + cache + " ../x").status, 1);
}

TEST_F(CssToolTest, StylePrintsTheFindersFields) {
  EXPECT_EQ(RunTool("style 'width:50%;height:20px;background:url(a.png)'").out,
            "{\"hasBackground\": true, \"hasBackgroundImage\": false, \"height\": \"20\", "
            "\"paddingBottom\": \"\", \"paddingLeft\": \"\", \"paddingRight\": \"\", "
            "\"paddingTop\": \"\", \"width\": \"50\", \"isPercentage\": true, \"hasUrl\": true}\n");
}

TEST_F(CssToolTest, BadUsageExitsWithStatusTwoAndOneLine) {
  for (const std::string args :
       {"css-tokens --x", "css-tokens a b", "css-tokens /nonexistent/x.css", "minify-css",
        "minify-css --name", "minify-css --bogus a", "css", "css put", "css store", "css get",
        "css get a b", "style", "style a b"}) {
    const ToolRun run = RunTool(args, ToolErrors::kMerged);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_EQ(run.out.find('\n'), run.out.size() - 1) << args << ": " << run.out;
  }
}

}  // namespace
