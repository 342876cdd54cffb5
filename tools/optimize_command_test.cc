// zelvarpack optimize, run as a real process on pages from files (no
// download is needed for a page that references nothing fetchable).
#include <gtest/gtest.h>

#include <string>

#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

TEST(OptimizeTool, WritesThePageAndPrintsTheCounters) {
  TempDir dir;
  const std::string page = dir.File("page.html");
  WriteWholeFile(page,
                 "<html><head><style>p { color: red }</style>\n<script>var a = 1;</script>"
                 "</head><body><p>x</p></body></html>");
  const std::string out = dir.File("out.html");
  const ToolRun run = RunTool("optimize --file " + page +
                              " --page-url http://www.example.test/a/page.html --cache " +
                              dir.path().string() + " --timeout 0 -o " + out);
  ASSERT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("\"requestsBefore\":1"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\"requestsAfter\":3"), std::string::npos) << run.out;
  const std::string written = ReadWholeFile(out);
  EXPECT_NE(written.find("<script type=\"text/javascript\" src=\"./JS.zp?{"), std::string::npos);
  EXPECT_NE(written.find("<link href=\"./CS.zp?{"), std::string::npos);
  EXPECT_NE(written.find("<script>eval(zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_1);</script>"),
            std::string::npos);
}

TEST(OptimizeTool, BadUsageExitsWithStatusTwo) {
  EXPECT_EQ(RunTool("optimize").status, 2);
  EXPECT_EQ(RunTool("optimize --file x.html").status, 2) << "no --page-url";
  EXPECT_EQ(RunTool("optimize --url http://a.test/ --timeout -1").status, 2);
  EXPECT_EQ(RunTool("optimize --url http://a.test/ --frobnicate").status, 2);
}

}  // namespace
