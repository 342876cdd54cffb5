// zelvarpack sprite and sprite get, run as real processes.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

TEST(SpriteTool, BuildsTheSameSheetInEveryRunAndReadsItBack) {
  TempDir dir;
  const std::string icons = "/usr/share/apache2/icons/";
  std::string images;
  for (const char* name : {"pie0.gif", "pie1.gif", "pie2.gif", "pie3.gif"})
    images += " " + icons + name;
  std::string output[2];
  for (int run = 0; run < 2; ++run) {
    const std::string cache = dir.File("cache" + std::to_string(run));
    std::filesystem::create_directories(cache);
    const ToolRun built = RunTool("sprite --cache " + cache + " --margins 0,0,2,0" + images +
                                  " --size 10x11 " + icons + "a.png /etc/hostname");
    ASSERT_EQ(built.status, 0);
    output[run] = built.out;
  }
  EXPECT_EQ(output[0], output[1]);  // ids and keys do not depend on the run
  const std::string& out = output[0];
  ASSERT_EQ(out.rfind("gif {", 0), 0u) << out;
  const std::string id = out.substr(4, 38);
  // One line per image: key, four percentages, file. Stacked in a column
  // 22 wide (the first image has a right margin of 2) and 88 tall; the
  // column at x = 0 has position 0.
  EXPECT_NE(out.find(" 0.0000 0.0000 110.0000 400.0000 " + icons + "pie0.gif\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find(" 0.0000 33.3333 110.0000 400.0000 " + icons + "pie1.gif\n"),
            std::string::npos);
  EXPECT_NE(out.find("\njpg - no images\npng24 - no images\npng32 "), std::string::npos) << out;
  EXPECT_NE(out.find(" 0.0000 0.0000 100.0000 100.0000 " + icons + "a.png\n"), std::string::npos)
      << out;
  EXPECT_EQ(out.find("hostname"), std::string::npos);

  const std::string cache = dir.File("cache0");
  const ToolRun got =
      RunTool("sprite get --cache " + cache + " gif '" + id + "' -o " + dir.File("sheet"));
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.out, ReadWholeFile(cache + "/gif/" + id + ".c"));
  EXPECT_EQ(ReadWholeFile(dir.File("sheet")), ReadWholeFile(cache + "/gif/" + id));
  EXPECT_EQ(
      RunTool("sprite get --cache " + cache + " png32 '" + id + "' -o " + dir.File("x")).status, 1);
  EXPECT_EQ(RunTool("sprite get --cache " + cache + " bmp '" + id + "' -o " + dir.File("x")).status,
            2);
  EXPECT_EQ(RunTool("sprite --size 10 " + icons + "a.gif").status, 2);
}

}  // namespace
