// zelvarpack savings and zelvarpack proxy, run as a user runs them.
#include <gtest/gtest.h>

#include <string>

#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

TEST(SavingsCommand, SavesThePageAndPrintsTheFourTotals) {
  ScriptedServer server(LoopbackAddress(1));
  server.Reply("/site/j.js", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 3"}) + "x=1");
  server.Reply("/site/page.html", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 26"}) +
                                      "<script src=j.js></script>");
  TempDir dir;
  const ToolRun run = RunTool("savings --url " + server.Url("/site/page.html") + " --dir " +
                              dir.File("out") + " --server-url http://127.0.0.1/zp");
  ASSERT_EQ(run.status, 0) << run.out;
  EXPECT_EQ(run.out.find("{\"bytes\":"), 0u) << run.out;
  for (const char* key : {"\"bytesNotCacheable\":", "\"bytesDecoded\":",
                          "\"bytesDecodedNotCacheable\":", "\"index\":"}) {
    EXPECT_NE(run.out.find(key), std::string::npos) << key;
  }
  const std::string page = ReadWholeFile(dir.File("out/index.html"));
  EXPECT_EQ(page.find("<!--zp_no_cache--><!--zp_server_url http://127.0.0.1/zp--><script src="), 0u)
      << page;
  EXPECT_EQ(page.find("j.js"), std::string::npos);
}

TEST(ProxyCommand, WritesTheRewrittenPageFromAFile) {
  TempDir dir;
  WriteWholeFile(dir.File("in.html"), "<img src=a.png>");
  const ToolRun run = RunTool("proxy --file " + dir.File("in.html") +
                              " --page-url http://127.0.0.1/d/p.html --dir " + dir.File("o"));
  ASSERT_EQ(run.status, 0);
  EXPECT_EQ(ReadWholeFile(dir.File("o/index.html")),
            "<!--zp_no_cache--><!--zp_send_stats--><!--zp_server_url -->"
            "<img src=\"http://127.0.0.1/d/a.png\">");
}

TEST(ProxyCommand, RefusesIncompleteArguments) {
  TempDir dir;
  EXPECT_EQ(RunTool("proxy --file x.html --dir " + dir.File("o")).status, 2);
  EXPECT_EQ(RunTool("savings --url http://127.0.0.1/").status, 2);
  EXPECT_EQ(RunTool("proxy --url http://127.0.0.1/ --file x --dir d").status, 2);
}

}  // namespace
