// The CSS server's filter mode against a loopback server: background images
// downloaded and placed in sprite sheets, the time-out, and a server
// destroyed while its downloads still run.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "css/css_downloads.h"
#include "tests/codec_samples.h"
#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_css_server.h"

namespace {

std::string Filter(const std::string& cache, const std::string& name, std::string sheet,
                   std::int32_t timeout, const char* serverUrl = nullptr) {
  std::string folder = cache;
  CZelvarCssServer server(folder.data());
  std::string url = serverUrl != nullptr ? serverUrl : "";
  server.SetIsFilter(timeout, serverUrl != nullptr ? url.data() : nullptr);
  std::string sheetName = name;
  server.AddWork(sheetName.data(), reinterpret_cast<unsigned char*>(sheet.data()),
                 static_cast<std::int32_t>(sheet.size()));
  server.DoWork();
  CZelvarBuffer* output = server.GetOutput();
  EXPECT_EQ(server.GetMinifiedId().size(), 38u);
  return std::string(reinterpret_cast<const char*>(output->GetValue()),
                     static_cast<std::size_t>(output->GetValueLength()));
}

std::size_t Count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string Gif(const std::string& bytes) {
  return ResponseHead("HTTP/1.1 200 OK", {"Content-Type: image/gif",
                                          "Content-Length: " + std::to_string(bytes.size())}) +
         bytes;
}

// Waits (bounded) until the download threads of every server have ended.
bool DownloadsEnd() {
  for (int i = 0; i < 200 && zelvarpack::css::CssDownloads::RunningThreads() > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return zelvarpack::css::CssDownloads::RunningThreads() == 0;
}

class CssFilter : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"pie0.gif", "pie1.gif", "pie2.gif", "pie3.gif"}) {
      server_.Reply(std::string("/css/i/") + name, Gif(zelvarpack::image::samples::ReadIcon(name)));
    }
  }
  void TearDown() override { EXPECT_TRUE(DownloadsEnd()); }

  ScriptedServer server_{LoopbackAddress(2)};
  TempDir cache_;
};

// pie0-3.gif are 20 x 22 pixels.
constexpr char kIcons[] =
    ".p0 { background: url(i/pie0.gif) no-repeat; width: 20px; height: 22px }\n"
    ".p1 { background: #fff url('i/pie1.gif') no-repeat 0 0; width: 20px; height: 22px }\n"
    ".p2 { background-image: url(\"i/pie2.gif\"); background-repeat: no-repeat;"
    " width: 20px; height: 22px }\n"
    ".p3 { background: url(/css/i/pie3.gif) left top no-repeat; width: 20px; height: 22px; }\n"
    // Not sprited: repeated, placed off the origin, padded, sized in em,
    // two images, no size.
    ".r { background: url(i/pie0.gif); width: 20px; height: 22px }\n"
    ".o { background: url(i/pie0.gif) no-repeat 2px 0; width: 20px; height: 22px }\n"
    ".pad { background: url(i/pie0.gif) no-repeat; width: 20px; height: 22px; padding: 1px }\n"
    ".em { background: url(i/pie0.gif) no-repeat; width: 2em; height: 22px }\n"
    ".two { background: url(i/pie0.gif) no-repeat, url(i/pie1.gif); width: 20px; height: 22px }\n"
    ".none { background: url(i/pie1.gif) no-repeat }\n";

TEST_F(CssFilter, PlacesUnrepeatedIconsOfKnownSizeInOneSheet) {
  const std::string name = server_.Url("/css/site.css");
  const std::string out = Filter(cache_.path().string(), name, kIcons, 5, "http://z.test");
  const std::string base = server_.Url("/css/i/");
  // The four icons point at one sheet, each with its geometry; the column
  // at x = 0 has position 0.
  EXPECT_EQ(Count(out, "http://z.test/IS.zp?{"), 4u) << out;
  EXPECT_NE(out.find(".p0{background:url(http://z.test/IS.zp?{"), std::string::npos) << out;
  EXPECT_NE(out.find(") no-repeat;width:20px;height:22px;background-position:0% 0%;"
                     "background-size:100% 400%;background-repeat:no-repeat}"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("height:22px;background-position:0% 100%;background-size:100% 400%;"
                     "background-repeat:no-repeat}"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find(".p1{background:#fff url('http://z.test/IS.zp?{"), std::string::npos);
  EXPECT_NE(out.find(".p2{background-image:url(\"http://z.test/IS.zp?{"), std::string::npos);
  // The others keep their resolved addresses.
  EXPECT_NE(out.find(".r{background:url(" + base + "pie0.gif);"), std::string::npos) << out;
  for (const char* rule : {".o{", ".pad{", ".em{", ".none{"}) {
    const std::size_t at = out.find(rule);
    ASSERT_NE(at, std::string::npos) << rule;
    const std::string expected = "background:url(" + base;
    EXPECT_EQ(out.compare(at + std::strlen(rule), expected.size(), expected), 0) << rule << out;
  }
  EXPECT_NE(
      out.find(".two{background:url(" + base + "pie0.gif) no-repeat,url(" + base + "pie1.gif);"),
      std::string::npos)
      << out;
  // The sheet is stored with the image server's files; nothing under css.
  const std::size_t id = out.find("IS.zp?") + 6;
  EXPECT_TRUE(std::filesystem::exists(cache_.File("gif/" + out.substr(id, 38))));
  EXPECT_FALSE(std::filesystem::exists(cache_.File("css")));
  // Each address once per url, sent with the sheet as referer.
  const auto requests = server_.Requests();
  EXPECT_EQ(requests.size(), 11u);
  for (const std::string& request : requests) {
    EXPECT_NE(request.find("\r\nReferer: " + name + "\r\n"), std::string::npos) << request;
  }
}

TEST_F(CssFilter, WithoutServerUrlReferencesAreRelative) {
  const std::string out = Filter(cache_.path().string(), server_.Url("/css/site.css"),
                                 ".p0{background:url(i/pie0.gif) no-repeat;width:20px;height:22px}"
                                 ".p1{background:url(i/pie1.gif) no-repeat;width:20px;height:22px}",
                                 5);
  EXPECT_EQ(Count(out, "url(./IS.zp?{"), 2u) << out;
}

TEST_F(CssFilter, TimeOutZeroSpritesNothingAndFetchesNothing) {
  const std::string out = Filter(cache_.path().string(), server_.Url("/css/site.css"), kIcons, 0);
  EXPECT_EQ(out.find("IS.zp"), std::string::npos) << out;
  EXPECT_NE(out.find(".p0{background:url(" + server_.Url("/css/i/pie0.gif") + ") no-repeat;"),
            std::string::npos)
      << out;
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_FALSE(std::filesystem::exists(cache_.File("gif")));
}

TEST_F(CssFilter, FailedDownloadsKeepTheirAddresses) {
  const std::string out =
      Filter(cache_.path().string(), server_.Url("/css/site.css"),
             ".a{background:url(missing.gif) no-repeat;width:20px;height:22px}", 5);
  EXPECT_EQ(out, ".a{background:url(" + server_.Url("/css/missing.gif") +
                     ") no-repeat;width:20px;height:22px}");
}

// Forty icons from a server that never answers: at most sixteen downloads
// run at once, the server stops waiting at its time-out, and destroying it
// while they still run leaves them to end on their own.
TEST_F(CssFilter, DestroyedWhileDownloadsRunAtMostSixteenAtOnce) {
  std::atomic<int> open{0};
  std::atomic<int> most{0};
  std::string sheet;
  for (int i = 0; i < 40; ++i) {
    const std::string path = "/slow/" + std::to_string(i) + ".gif";
    server_.Handle(path, [&](ScriptedServer::Connection& c) {
      const int now = ++open;
      for (int seen = most.load(); now > seen && !most.compare_exchange_weak(seen, now);) {
      }
      c.WaitUntilClosed();
      --open;
    });
    sheet += ".i" + std::to_string(i) + "{background:url(" + server_.Url(path) +
             ") no-repeat;width:20px;height:22px}";
  }
  const std::string out = Filter(cache_.path().string(), server_.Url("/s.css"), sheet, 1);
  EXPECT_EQ(out.find("IS.zp"), std::string::npos);
  EXPECT_EQ(Count(out, "url(" + server_.Url("/slow/")), 40u);
  // The server is gone; its downloads end at their own time-out.
  EXPECT_TRUE(DownloadsEnd());
  EXPECT_EQ(most.load(), zelvarpack::css::CssDownloads::kMaxRunning);
}

}  // namespace
