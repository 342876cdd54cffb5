// The savings calculator against a scripted loopback site: what it saves,
// how the saved page refers to it, and how the totals follow the downloads.
#include "zelvarpack/savings_calculator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "net/zlib_codec.h"
#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

struct Totals {
  std::int32_t value[4] = {0, 0, 0, 0};
};

Totals Save(const std::string& dir, std::string pageUrl, std::string page,
            std::string serverUrl = "http://127.0.0.1/zp") {
  std::string folder = dir;
  void* handle = CSavingsCalculator::Create(
      reinterpret_cast<unsigned char*>(folder.data()), static_cast<std::int32_t>(folder.size()),
      reinterpret_cast<unsigned char*>(pageUrl.data()), static_cast<std::int32_t>(pageUrl.size()),
      reinterpret_cast<unsigned char*>(serverUrl.data()),
      static_cast<std::int32_t>(serverUrl.size()), nullptr, nullptr, "test agent");
  // Fed in two pieces: AddWork appends.
  const std::size_t half = page.size() / 2;
  CSavingsCalculator::AddWork(handle, reinterpret_cast<unsigned char*>(page.data()),
                              static_cast<std::int32_t>(half));
  CSavingsCalculator::AddWork(handle, reinterpret_cast<unsigned char*>(page.data() + half),
                              static_cast<std::int32_t>(page.size() - half));
  CSavingsCalculator::DoWork(handle);
  Totals totals;
  CSavingsCalculator::Destroy(handle, totals.value[0], totals.value[1], totals.value[2],
                              totals.value[3]);
  return totals;
}

std::string Ok(const std::string& type, const std::string& body,
               const std::string& extra = "Cache-Control: no-store") {
  return ResponseHead(
             "HTTP/1.1 200 OK",
             {"Content-Type: " + type, "Content-Length: " + std::to_string(body.size()), extra}) +
         body;
}

// What DownloadUrl reports for one address, fetched the way the calculator
// fetches it: the calculator's totals are sums of these.
Totals Reported(const std::string& address, const std::string& referer) {
  CZelvarUtils utils;
  std::string url = address;
  Totals t;
  std::int32_t sent = 0;
  bool cacheable = false;
  std::unique_ptr<CZelvarBuffer> body(utils.DownloadUrl(
      nullptr, nullptr, nullptr, referer.c_str(), nullptr, nullptr, nullptr, "test agent",
      reinterpret_cast<unsigned char*>(url.data()), reinterpret_cast<unsigned char*>(url.data()),
      sent, t.value[0], t.value[2], cacheable, 60));
  if (!cacheable) {
    t.value[1] = t.value[0];
    t.value[3] = t.value[2];
  }
  return t;
}

// The saved file names the page refers to, in page order.
std::vector<std::string> SavedNames(const std::string& page) {
  static const std::regex kName(R"(\{[0-9A-F-]{36}\}\.(bin|css|js))");
  std::vector<std::string> names;
  for (auto it = std::sregex_iterator(page.begin(), page.end(), kName);
       it != std::sregex_iterator(); ++it) {
    names.push_back(it->str());
  }
  return names;
}

class SavingsSite : public ::testing::Test {
 protected:
  ScriptedServer server_{LoopbackAddress(1)};
  TempDir dir_;
};

TEST_F(SavingsSite, PageWithoutResourcesIsCopiedBehindTheTwoMarkers) {
  const std::string page =
      "<!DOCTYPE html><html><head><title>t</title><!-- note --></head>"
      "<body><p class=x>plain <b>text</b></p><img src=\"data:image/gif;base64,R0lGOD\" alt>"
      "<br/></body></html>";
  const Totals totals = Save(dir_.path().string(), server_.Url("/a/page.html"), page);
  EXPECT_EQ(ReadWholeFile(dir_.File("index.html")),
            "<!--zp_no_cache--><!--zp_server_url http://127.0.0.1/zp-->" + page);
  for (std::int32_t total : totals.value) EXPECT_EQ(total, 0);
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()),
                          std::filesystem::directory_iterator()),
            1);
}

TEST_F(SavingsSite, SavesTakenResourcesAndPointsThePageAtThem) {
  const std::string picture = std::string("GIF89a\x01\x00\x01\x00\x00\xff\x00,", 14);
  server_.Reply("/a/img/p.gif", Ok("image/gif", picture, "Cache-Control: max-age=3600"));
  server_.Reply("/s.css", Ok("text/css", "p { background: url(../img/bg.png) }"));
  server_.Reply("/a/j.js", Ok("text/javascript", "var j = 1;"));
  server_.Reply("/a/print.css", Ok("text/css", "p{}"));
  const std::string page =
      "<html><head><link rel=stylesheet href=\"/s.css\">"
      "<link rel=stylesheet media=print href=print.css>"
      "<link rel=stylesheet id=named href=print.css>"
      "<script src='j.js'></script><script type=module src=j.js></script></head>"
      "<body><img src=img/p.gif alt=p><img src=missing.png></body></html>";
  const std::string pageUrl = server_.Url("/a/page.html");
  const Totals totals = Save(dir_.path().string(), pageUrl, page);

  const std::string saved = ReadWholeFile(dir_.File("index.html"));
  const std::vector<std::string> names = SavedNames(saved);
  ASSERT_EQ(names.size(), 3u) << saved;
  EXPECT_EQ(names[0].substr(38), ".css");
  EXPECT_EQ(names[1].substr(38), ".js");
  EXPECT_EQ(names[2].substr(38), ".bin");
  // Tags are written back as they came, with the saved file's name in place
  // of the address. What is not taken (print media, an id, a module, a
  // failed download) is still loaded from the site.
  EXPECT_EQ(saved,
            "<!--zp_no_cache--><!--zp_server_url http://127.0.0.1/zp-->"
            "<html><head><link rel=stylesheet href=\"" +
                names[0] +
                "\">"
                "<link rel=stylesheet media=print href=\"" +
                server_.Url("/a/print.css") + "\"><link rel=stylesheet id=named href=\"" +
                server_.Url("/a/print.css") + "\"><script src='" + names[1] +
                "'></script><script type=module src=\"" + server_.Url("/a/j.js") +
                "\"></script></head><body><img src=\"" + names[2] + "\" alt=p><img src=\"" +
                server_.Url("/a/missing.png") + "\"></body></html>");
  EXPECT_EQ(ReadWholeFile(dir_.File(names[2])), picture);
  EXPECT_EQ(ReadWholeFile(dir_.File(names[1])), "var j = 1;");
  // The sheet is read from the folder: its addresses point at its site.
  const std::string sheet = ReadWholeFile(dir_.File(names[0]));
  EXPECT_NE(sheet.find("url(" + server_.Url("/")), std::string::npos) << sheet;
  EXPECT_NE(sheet.find("img/bg.png)"), std::string::npos) << sheet;

  // Every download counts, the failed one too; only the picture may be kept.
  Totals expected;
  for (const char* path : {"/s.css", "/a/j.js", "/a/img/p.gif", "/a/missing.png"}) {
    const Totals one = Reported(server_.Url(path), pageUrl);
    for (int i = 0; i < 4; ++i) expected.value[i] += one.value[i];
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(totals.value[i], expected.value[i]) << "total " << i + 1;
  EXPECT_LT(totals.value[1], totals.value[0]);
  EXPECT_GT(totals.value[1], 0);
}

TEST_F(SavingsSite, CompressedDownloadsCountTravelledAndDecodedBytesApart) {
  const std::string script(3000, 'a');
  const std::unique_ptr<CZelvarBuffer> gzip =
      zelvarpack::net::Compress(reinterpret_cast<const unsigned char*>(script.data()),
                                script.size(), zelvarpack::net::ZlibFormat::kGzip);
  const std::string packed(reinterpret_cast<const char*>(gzip->GetValue()),
                           static_cast<std::size_t>(gzip->GetValueLength()));
  server_.Reply("/z.js", Ok("text/javascript", packed, "Content-Encoding: gzip"));
  const Totals totals =
      Save(dir_.path().string(), server_.Url("/page.html"), "<script src=z.js></script>");
  EXPECT_EQ(totals.value[2] - totals.value[0],
            static_cast<std::int32_t>(script.size() - packed.size()));
  EXPECT_EQ(totals.value[0], totals.value[1]);
  EXPECT_EQ(totals.value[2], totals.value[3]);
  const std::vector<std::string> names = SavedNames(ReadWholeFile(dir_.File("index.html")));
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(ReadWholeFile(dir_.File(names[0])), script);
}

TEST_F(SavingsSite, FolderThatCannotBeWrittenGetsNothingAndNothingBreaks) {
  server_.Reply("/j.js", Ok("text/javascript", "1"));
  const std::string missing = dir_.File("no/such/folder");
  const Totals totals = Save(missing, server_.Url("/page.html"), "<script src=/j.js></script>");
  EXPECT_FALSE(std::filesystem::exists(missing));
  EXPECT_GT(totals.value[0], 0);
}

TEST(SavingsCalculatorHandle, NullHandleAndBadInputAreHarmless) {
  CSavingsCalculator::AddWork(nullptr, nullptr, 5);
  CSavingsCalculator::DoWork(nullptr);
  std::int32_t a = 7, b = 7, c = 7, d = 7;
  CSavingsCalculator::Destroy(nullptr, a, b, c, d);
  EXPECT_EQ(a + b + c + d, 0);
  void* handle =
      CSavingsCalculator::Create(nullptr, -4, nullptr, 0, nullptr, -1, nullptr, nullptr, nullptr);
  ASSERT_NE(handle, nullptr);
  unsigned char byte = '<';
  CSavingsCalculator::AddWork(handle, &byte, -3);
  CSavingsCalculator::Destroy(handle, a, b, c, d);
  EXPECT_EQ(a + b + c + d, 0);
}

}  // namespace
