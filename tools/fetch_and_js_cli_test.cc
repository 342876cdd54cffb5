// zelvarpack fetch and zelvarpack js, run as real processes.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "core/identifiers.h"
#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

class FetchAndJsTool : public ::testing::Test {
 protected:
  // Runs the tool with `args` (shell words).
  ToolRun Tool(const std::string& args) { return RunTool(args, ToolErrors::kKept); }
  std::string Cache() const { return dir_.File("cache"); }
  TempDir dir_;
};

std::string Script(int lines) {
  std::string text;
  for (int i = 0; i < lines; ++i)
    text += "var v" + std::to_string(i) + " = " + std::to_string(i) + ";\n";
  return text;
}

TEST_F(FetchAndJsTool, JsStoreAndGetRoundTrip) {
  std::filesystem::create_directories(Cache());
  WriteWholeFile(dir_.File("a.js"), Script(100));
  WriteWholeFile(dir_.File("b.js"), "done();\n");
  const std::string combined = Script(100) + "done();\n";
  const ToolRun store =
      Tool("js store --cache " + Cache() + " " + dir_.File("a.js") + " " + dir_.File("b.js"));
  ASSERT_EQ(store.status, 0) << store.err;
  const std::string id =
      ContentId(reinterpret_cast<const unsigned char*>(combined.data()), combined.size());
  EXPECT_EQ(store.out, id + "\n");  // the same identifier in another process

  const ToolRun plain = Tool("js get --cache " + Cache() + " " + id);
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out, combined);
  EXPECT_EQ(plain.err, "{\"gzip\": false}\n");

  const ToolRun gzip = Tool("js get --gzip --cache " + Cache() + " '" + id + "'");
  EXPECT_EQ(gzip.status, 0);
  EXPECT_EQ(gzip.out, ReadWholeFile(Cache() + "/js/" + id + ".g"));
  EXPECT_EQ(gzip.err, "{\"gzip\": true}\n");

  EXPECT_EQ(Tool("js get --cache " + Cache() + " " + IdFromNumber(7)).status, 1);
  EXPECT_EQ(Tool("js get --cache " + Cache() + " ../etc").status, 1);
  EXPECT_EQ(Tool("js store --cache " + Cache()).status, 2);
  EXPECT_EQ(Tool("js put x").status, 2);
}

TEST_F(FetchAndJsTool, FetchWritesTheBodyAndPrintsTheCounters) {
  ScriptedServer server(LoopbackAddress(2));
  std::filesystem::create_directories(Cache());
  const std::string head = ResponseHead(
      "HTTP/1.1 200 OK", {"ETag: \"t\"", "Cache-Control: max-age=60", "Content-Length: 5"});
  server.Reply("/x.js", head + "hello");
  const std::string url = server.Url("/x.js");
  const ToolRun run = Tool("fetch " + url + " --cache " + Cache() +
                           " --timeout 10 --user-agent 'Tool UA' -o " + dir_.File("body"));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(ReadWholeFile(dir_.File("body")), "hello");
  const int headerBytes = static_cast<int>(2 * (head.size() + 1));
  EXPECT_EQ(run.err, "{\"bytesSent\": " + std::to_string(41 + 19) +
                         ", \"bytesReceived\": " + std::to_string(headerBytes + 5) +
                         ", \"bytesUncompressed\": " + std::to_string(headerBytes + 5) +
                         ", \"cacheable\": true}\n");
  ASSERT_EQ(server.Requests().size(), 1u);
  EXPECT_NE(server.Requests()[0].find("\r\nUser-Agent: Tool UA\r\n"), std::string::npos);
  // The entry's name, computed in this process, is the one the tool used.
  const std::int32_t h = CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(url.data()),
                                               static_cast<std::int32_t>(url.size()));
  EXPECT_EQ(ReadWholeFile(Cache() + "/res/" + CZelvarUtils::MakeCacheName(h)), "0\n\"t\"\n\nhello");

  const ToolRun toStdout = Tool("fetch " + server.Url("/missing"));
  EXPECT_EQ(toStdout.status, 0);
  EXPECT_EQ(toStdout.out, "");
  EXPECT_EQ(Tool("fetch").status, 2);
  EXPECT_EQ(Tool("fetch " + url + " --timeout soon").status, 2);
}

}  // namespace
