// zelvarpack store add | get | stats, run as real processes on a SQLite
// database file.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "store/file_store.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

class StoreTool : public ::testing::Test {
 protected:
  void SetUp() override {
    if (zelvarpack::store::SqliteDriverPath().empty()) GTEST_SKIP() << "no SQLite ODBC driver";
  }
  // Runs the tool with `args` (shell words) inside the test's folder.
  ToolRun Tool(const std::string& args) {
    return RunTool(args, ToolErrors::kMerged, dir_.path().string());
  }
  TempDir dir_;
};

TEST_F(StoreTool, AddGetAndStatsOnTheDefaultDatabase) {
  std::string page;
  for (int i = 0; i < 400; ++i) page += "<p>paragraph " + std::to_string(i) + "</p>\n";
  WriteWholeFile(dir_.File("page.html"), page);
  WriteWholeFile(dir_.File("empty"), "");

  const ToolRun add = Tool("store add page.html empty page.html");
  ASSERT_EQ(add.status, 0) << add.out;
  EXPECT_EQ(add.out, "1\n2\n3\n");
  EXPECT_FALSE(ReadWholeFile(dir_.File("zelvarpack-store.db")).empty());

  ASSERT_EQ(Tool("store get 3 -o back.html").status, 0);
  EXPECT_EQ(ReadWholeFile(dir_.File("back.html")), page);
  const ToolRun empty = Tool("store get 2");
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, "");

  const ToolRun stats = Tool("store stats");
  ASSERT_EQ(stats.status, 0) << stats.out;
  EXPECT_NE(stats.out.find("files: 3\n"), std::string::npos) << stats.out;
  EXPECT_NE(stats.out.find("original bytes: " + std::to_string(2 * page.size()) + "\n"),
            std::string::npos)
      << stats.out;
  EXPECT_NE(stats.out.find("compression ratio: "), std::string::npos);
}

TEST_F(StoreTool, MissingFilesAndBadIdsFail) {
  EXPECT_EQ(Tool("store add --db other.db").status, 2);
  EXPECT_EQ(Tool("store get --db other.db seven").status, 2);
  WriteWholeFile(dir_.File("a"), "a");
  ASSERT_EQ(Tool("store add --db other.db a").out, "1\n");
  const ToolRun missing = Tool("store get --db other.db 9");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.out.find("no such file"), std::string::npos) << missing.out;
}

}  // namespace
