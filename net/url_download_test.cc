// DownloadUrl against servers on loopback: a scripted server for exact
// responses, and a real nginx for validators, 304s, gzip, redirects and TLS.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/http_client.h"
#include "tests/loopback_servers.h"
#include "tests/temp_dir.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

struct Options {
  std::string cache;  // "" for none
  const char* charset = nullptr;
  const char* language = nullptr;
  const char* referer = nullptr;
  const char* forwardedFor = nullptr;
  const char* userAgent = nullptr;
  std::int32_t timeout = 20;
};

struct Fetched {
  std::string body;
  std::int32_t sent = -1;
  std::int32_t received = -1;
  std::int32_t uncompressed = -1;
  bool cacheable = true;
};

Fetched Download(const std::string& url, const Options& o = {}) {
  std::string urlCopy = url;
  std::string cache = o.cache;
  auto* bytes = reinterpret_cast<unsigned char*>(urlCopy.data());
  Fetched f;
  CZelvarUtils utils;
  std::unique_ptr<CZelvarBuffer> body(
      utils.DownloadUrl(o.cache.empty() ? nullptr : cache.data(), o.charset, o.language, o.referer,
                        o.forwardedFor, "reserved", nullptr, o.userAgent, bytes, bytes, f.sent,
                        f.received, f.uncompressed, f.cacheable, o.timeout));
  f.body.assign(reinterpret_cast<char*>(body->GetValue()),
                static_cast<std::size_t>(body->GetValueLength()));
  return f;
}

// What the platform reports for a raw header block: UTF-16 with a NUL.
std::int32_t HeaderBytes(const std::string& head) {
  return static_cast<std::int32_t>(2 * (head.size() + 1));
}

std::string Gzip(const std::string& text, int windowBits = 31) {
  z_stream s{};
  deflateInit2(&s, 6, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&s, text.size()), '\0');
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  s.avail_in = static_cast<uInt>(text.size());
  s.next_out = reinterpret_cast<Bytef*>(out.data());
  s.avail_out = static_cast<uInt>(out.size());
  deflate(&s, Z_FINISH);
  out.resize(s.total_out);
  deflateEnd(&s);
  return out;
}

std::string Lines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += ".rule" + std::to_string(i) + " { color: red }\n";
  return text;
}

std::string EntryPath(const std::string& cache, const std::string& url) {
  const std::int32_t h = CZelvarUtils::UrlHash(reinterpret_cast<const unsigned char*>(url.data()),
                                               static_cast<std::int32_t>(url.size()));
  return cache + "/res/" + CZelvarUtils::MakeCacheName(h);
}

ino_t Inode(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::string Ok(const std::vector<std::string>& headers, const std::string& body) {
  std::vector<std::string> all = headers;
  all.push_back("Content-Length: " + std::to_string(body.size()));
  return ResponseHead("HTTP/1.1 200 OK", all) + body;
}

// --- exact responses --------------------------------------------------------

class ScriptedDownload : public ::testing::Test {
 protected:
  ScriptedServer server_{LoopbackAddress(1)};
  TempDir cache_;
  std::string Cache() const { return cache_.path().string(); }
};

TEST_F(ScriptedDownload, SendsTheHeaderSetInOrderAndCountsIt) {
  const std::string head = ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 4"});
  server_.Reply("/a.css?x=1&y=2", head + "body");
  Options o;
  o.charset = "utf-8";
  o.language = "de";
  o.referer = "http://page.example/";
  o.forwardedFor = "10.0.0.1";
  o.userAgent = "UA/1.0";
  const Fetched f = Download("http://" + LoopbackAddress(1) + ":8080/a.css?x=1&amp;amp;y=2", o);
  EXPECT_EQ(f.body, "body");
  ASSERT_EQ(server_.Requests().size(), 1u);
  EXPECT_EQ(server_.Requests()[0],
            "GET /a.css?x=1&y=2 HTTP/1.1\r\nHost: " + LoopbackAddress(1) +
                "\r\nAccept: */*\r\nAccept-Encoding: gzip, deflate\r\nAccept-Charset: utf-8\r\n"
                "Accept-Language: de\r\nReferer: http://page.example/\r\nUser-Agent: UA/1.0\r\n"
                "X-Forwarded-For: 10.0.0.1\r\n\r\n");
  EXPECT_EQ(f.sent, 11 + 30 + 21 + 19 + 29 + 18 + 25);
  EXPECT_EQ(f.received, HeaderBytes(head) + 4);
  EXPECT_EQ(f.uncompressed, HeaderBytes(head) + 4);
  EXPECT_FALSE(f.cacheable);
}

TEST_F(ScriptedDownload, LeavesOutHeaderValuesThatHoldLineBreaks) {
  server_.Reply("/a.js", Ok({}, "x"));
  Options o;
  o.userAgent = "UA\r\nX-Injected: 1";
  o.language = "de\nX-Other: 2";
  o.referer = "";
  const Fetched f = Download(server_.Url("/a.js"), o);
  EXPECT_EQ(f.body, "x");
  ASSERT_EQ(server_.Requests().size(), 1u);
  const std::string request = server_.Requests()[0];
  EXPECT_EQ(request.find("X-Injected"), std::string::npos);
  EXPECT_EQ(request.find("X-Other"), std::string::npos);
  EXPECT_EQ(request.find("User-Agent"), std::string::npos);
  EXPECT_NE(request.find("\r\nReferer:"), std::string::npos);  // empty, but sent
  EXPECT_EQ(f.sent, 11 + 30 + 9);
}

TEST_F(ScriptedDownload, ErrorStatusCountsOnlyItsHeaders) {
  const std::string head = ResponseHead("HTTP/1.1 404 Not Found", {"Content-Length: 9"});
  server_.Reply("/missing.css", head + "not found");
  const Fetched f = Download(server_.Url("/missing.css"));
  EXPECT_EQ(f.body, "");
  EXPECT_EQ(f.received, HeaderBytes(head));
  EXPECT_EQ(f.uncompressed, HeaderBytes(head));
  EXPECT_EQ(f.sent, 41);
}

TEST_F(ScriptedDownload, DecodesGzipAndRawDeflateAndCountsBothSizes) {
  const std::string text = Lines(200);
  for (const auto& [coding, encoded] :
       {std::pair<std::string, std::string>{"gzip", Gzip(text)}, {"deflate", Gzip(text, -15)}}) {
    SCOPED_TRACE(coding);
    const std::string head = ResponseHead(
        "HTTP/1.1 200 OK",
        {"Content-Encoding: " + coding, "Content-Length: " + std::to_string(encoded.size())});
    server_.Reply("/" + coding, head + encoded);
    const Fetched f = Download(server_.Url("/" + coding));
    EXPECT_EQ(f.body, text);
    EXPECT_EQ(f.received, HeaderBytes(head) + static_cast<std::int32_t>(encoded.size()));
    EXPECT_EQ(f.uncompressed, HeaderBytes(head) + static_cast<std::int32_t>(text.size()));
  }
}

TEST_F(ScriptedDownload, OnlyExactCodingNamesAreDecoded) {
  const std::string encoded = Gzip("plain text");
  for (const char* coding : {"GZIP", "gzip, identity", "x-gzip", "br"}) {
    SCOPED_TRACE(coding);
    server_.Reply("/c", Ok({std::string("Content-Encoding: ") + coding}, encoded));
    EXPECT_EQ(Download(server_.Url("/c")).body, encoded);
  }
}

TEST_F(ScriptedDownload, CorruptCompressedBodyGivesEmptyResult) {
  const std::string garbage = "\x1f\x8b\x08\x00garbage that is not deflate data";
  const std::string head =
      ResponseHead("HTTP/1.1 200 OK",
                   {"Content-Encoding: gzip", "Content-Length: " + std::to_string(garbage.size())});
  server_.Reply("/bad", head + garbage);
  const Fetched f = Download(server_.Url("/bad"));
  EXPECT_EQ(f.body, "");
  EXPECT_EQ(f.received, HeaderBytes(head) + static_cast<std::int32_t>(garbage.size()));
  EXPECT_EQ(f.uncompressed, HeaderBytes(head));
}

TEST_F(ScriptedDownload, CacheableFollowsMaxAgeAndThenExpires) {
  struct Case {
    std::vector<std::string> headers;
    bool cacheable;
  };
  const Case cases[] = {
      {{"Cache-Control: public, max-age=3600"}, true},
      {{"Cache-Control: max-age=0", "Expires: Fri, 01 Jan 2100 00:00:00 GMT"}, true},
      {{"Cache-Control: max-age=3600", "Expires: Thu, 01 Jan 1998 00:00:00 GMT"}, false},
      {{"Cache-Control: max-age=60", "Expires: 0"}, true},  // unreadable Expires is ignored
      {{"Expires: Fri, 01 Jan 2100 00:00:00 GMT"}, true},
      {{"Cache-Control: no-cache"}, false},
      {{"Cache-Control: max-age=-5"}, false},
      {{}, false},
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string target = "/c" + std::to_string(++n);
    SCOPED_TRACE(target);
    server_.Reply(target, Ok(c.headers, "x"));
    EXPECT_EQ(Download(server_.Url(target)).cacheable, c.cacheable);
  }
  // Only a 200 can make a result cacheable.
  server_.Reply("/gone", ResponseHead("HTTP/1.1 410 Gone",
                                      {"Cache-Control: max-age=60", "Content-Length: 0"}));
  EXPECT_FALSE(Download(server_.Url("/gone")).cacheable);
}

TEST_F(ScriptedDownload, FollowsRedirectsAndCountsTheFinalHeadersOnly) {
  server_.Reply("/old.css",
                ResponseHead("HTTP/1.1 302 Found", {"Location: /new.css", "Content-Length: 0"}));
  const std::string head = ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 3"});
  server_.Reply("/new.css", head + "new");
  const Fetched f = Download(server_.Url("/old.css"));
  EXPECT_EQ(f.body, "new");
  EXPECT_EQ(f.received, HeaderBytes(head) + 3);
  EXPECT_EQ(server_.Requests().size(), 2u);
}

TEST_F(ScriptedDownload, GivesUpOnAServerThatStopsSending) {
  server_.Handle("/silent", [](ScriptedServer::Connection& c) { c.WaitUntilClosed(); });
  const std::string head = ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 100"});
  server_.Handle("/half", [&head](ScriptedServer::Connection& c) {
    if (c.Send(head + "only ten b")) c.WaitUntilClosed();
  });
  Options o;
  o.timeout = 1;
  Fetched f = Download(server_.Url("/silent"), o);
  EXPECT_EQ(f.body, "");
  EXPECT_EQ(f.received, 0);
  EXPECT_EQ(f.sent, 41);
  f = Download(server_.Url("/half"), o);
  EXPECT_EQ(f.body, "");
  EXPECT_EQ(f.received, HeaderBytes(head));
}

TEST_F(ScriptedDownload, BodiesOver256MiBFail) {
  constexpr std::size_t kLimit = std::size_t{256} << 20;
  server_.Reply("/declared", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 314572800"}) +
                                 std::string(1000, 'x'));
  server_.Handle("/endless", [](ScriptedServer::Connection& c) {
    const std::string block(1 << 16, 'y');
    if (!c.Send(ResponseHead("HTTP/1.1 200 OK", {"Connection: close"}))) return;
    for (std::size_t sent = 0; sent <= kLimit && c.Send(block); sent += block.size()) {
    }
  });
  // 300 MiB of zeros, gzipped to a few hundred KiB.
  std::string bomb;
  {
    z_stream s{};
    deflateInit2(&s, 1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    const std::string zeros(1 << 20, '\0');
    std::string out(1 << 20, '\0');
    for (int i = 0; i < 300; ++i) {
      s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
      s.avail_in = static_cast<uInt>(zeros.size());
      do {
        s.next_out = reinterpret_cast<Bytef*>(out.data());
        s.avail_out = static_cast<uInt>(out.size());
        deflate(&s, i == 299 ? Z_FINISH : Z_NO_FLUSH);
        bomb.append(out.data(), out.size() - s.avail_out);
      } while (s.avail_out == 0);
    }
    deflateEnd(&s);
  }
  server_.Reply("/bomb", Ok({"Content-Encoding: gzip"}, bomb));
  for (const char* target : {"/declared", "/endless", "/bomb"}) {
    SCOPED_TRACE(target);
    EXPECT_EQ(Download(server_.Url(target)).body.size(), 0u);
  }
}

// --- the disk cache, with exact responses -----------------------------------

TEST_F(ScriptedDownload, StoresTheDecodedBodyAndAnswersA304FromTheEntry) {
  const std::string url = server_.Url("/site.css");
  const std::string text = Lines(100);
  const std::string gz = Gzip(text);
  const std::string etag = "\"v1\"";
  const std::string modified = "Tue, 01 Jan 2030 00:00:00 GMT";
  server_.Reply("/site.css",
                Ok({"ETag: " + etag, "Last-Modified: " + modified, "Content-Encoding: gzip"}, gz));
  Options o;
  o.cache = Cache();
  o.referer = "r";
  EXPECT_EQ(Download(url, o).body, text);
  const std::string entry = EntryPath(Cache(), url);
  const std::string expected =
      std::to_string(gz.size()) + "\n" + etag + "\n" + modified + "\n" + text;
  ASSERT_EQ(ReadWholeFile(entry), expected);
  const ino_t before = Inode(entry);

  const std::string head = ResponseHead("HTTP/1.1 304 Not Modified", {"ETag: \"v2\""});
  server_.Reply("/site.css", head);
  const Fetched f = Download(url, o);
  EXPECT_EQ(f.body, text);
  EXPECT_EQ(f.received, HeaderBytes(head) + static_cast<std::int32_t>(gz.size()));
  EXPECT_EQ(f.uncompressed, HeaderBytes(head) + static_cast<std::int32_t>(text.size()));
  EXPECT_EQ(f.sent, 41 + 10 + static_cast<std::int32_t>(etag.size() + modified.size()));
  ASSERT_EQ(server_.Requests().size(), 2u);
  EXPECT_NE(
      server_.Requests()[1].find("Accept-Encoding: gzip, deflate\r\nIf-Modified-Since: " +
                                 modified + "\r\nIf-None-Match: " + etag + "\r\nReferer: r\r\n"),
      std::string::npos)
      << server_.Requests()[1];
  EXPECT_EQ(ReadWholeFile(entry), expected);
  EXPECT_EQ(Inode(entry), before);  // a 304 never rewrites
}

TEST_F(ScriptedDownload, NeverKeepsAResponseWithoutValidators) {
  server_.Reply("/a.css", Ok({"Cache-Control: max-age=3600"}, "a"));
  Options o;
  o.cache = Cache();
  EXPECT_EQ(Download(server_.Url("/a.css"), o).body, "a");
  EXPECT_TRUE(std::filesystem::is_directory(Cache() + "/res"));
  EXPECT_TRUE(std::filesystem::is_empty(Cache() + "/res"));
}

TEST_F(ScriptedDownload, RewritesTheEntryOnlyWhenAValidatorChanged) {
  const std::string url = server_.Url("/r.css");
  const std::string entry = EntryPath(Cache(), url);
  Options o;
  o.cache = Cache();
  struct Step {
    std::vector<std::string> headers;
    std::string body;
    bool rewritten;
    std::string entryAfter;
  };
  const Step steps[] = {
      {{"ETag: \"a\"", "Last-Modified: L1"}, "one", true, "0\n\"a\"\nL1\none"},
      {{"ETag: \"a\"", "Last-Modified: L1"}, "two", false, "0\n\"a\"\nL1\none"},
      {{"ETag: \"a\""}, "three", false, "0\n\"a\"\nL1\none"},
      {{"ETag: \"a\"", "Last-Modified: L2"}, "four", true, "0\n\"a\"\nL2\nfour"},
      {{"ETag: \"b\"", "Last-Modified: L2"}, "five", true, "0\n\"b\"\nL2\nfive"},
      {{"Last-Modified: L3"}, "six", true, "0\n\nL3\nsix"},
      {{}, "seven", false, "0\n\nL3\nsix"},
  };
  ino_t inode = 0;
  for (const Step& step : steps) {
    SCOPED_TRACE(step.body);
    server_.Reply("/r.css", Ok(step.headers, step.body));
    EXPECT_EQ(Download(url, o).body, step.body);
    EXPECT_EQ(ReadWholeFile(entry), step.entryAfter);
    EXPECT_EQ(Inode(entry) != inode, step.rewritten);
    inode = Inode(entry);
  }
}

TEST_F(ScriptedDownload, CarriesTheTravelledSizeOverFromTheEntry) {
  const std::string url = server_.Url("/t.css");
  const std::string entry = EntryPath(Cache(), url);
  std::filesystem::create_directories(Cache() + "/res");
  WriteWholeFile(entry, "500\n\"old\"\n\nold body");
  const std::string head = ResponseHead("HTTP/1.1 200 OK", {"ETag: \"new\"", "Content-Length: 8"});
  server_.Reply("/t.css", head + "new body");
  Options o;
  o.cache = Cache();
  const Fetched f = Download(url, o);
  EXPECT_EQ(f.body, "new body");
  EXPECT_EQ(f.received, HeaderBytes(head) + 500);
  EXPECT_EQ(f.uncompressed, HeaderBytes(head) + 8);
  EXPECT_EQ(ReadWholeFile(entry), "500\n\"new\"\n\nnew body");
}

TEST_F(ScriptedDownload, EntryWithoutBodySendsNoConditionsAnd304GivesNothing) {
  const std::string url = server_.Url("/e.css");
  std::filesystem::create_directories(Cache() + "/res");
  WriteWholeFile(EntryPath(Cache(), url), "7\n\"etag\"\nLM");  // two line ends: no body
  server_.Reply("/e.css", ResponseHead("HTTP/1.1 304 Not Modified", {}));
  Options o;
  o.cache = Cache();
  const Fetched f = Download(url, o);
  EXPECT_EQ(f.body, "");
  EXPECT_EQ(f.sent, 41 + 6 + 2);  // the validators are counted all the same
  ASSERT_EQ(server_.Requests().size(), 1u);
  EXPECT_EQ(server_.Requests()[0].find("If-"), std::string::npos);
}

TEST_F(ScriptedDownload, A304IsAnsweredFromALargeEntryWhole) {
  const std::string url = server_.Url("/big.css");
  std::filesystem::create_directories(Cache() + "/res");
  const std::string body = Lines(150000);  // several megabytes
  WriteWholeFile(EntryPath(Cache(), url), "123\n\"big\"\n\n" + body);
  server_.Reply("/big.css", ResponseHead("HTTP/1.1 304 Not Modified", {}));
  Options o;
  o.cache = Cache();
  const Fetched f = Download(url, o);
  EXPECT_EQ(f.body.size(), body.size());
  EXPECT_TRUE(f.body == body);
  ASSERT_EQ(server_.Requests().size(), 1u);
  EXPECT_NE(server_.Requests()[0].find("If-None-Match: \"big\"\r\n"), std::string::npos);
}

TEST_F(ScriptedDownload, AnEntryHeldByAWriterIsReadOnceTheWriterIsDone) {
  const std::string url = server_.Url("/held.css");
  const std::string entry = EntryPath(Cache(), url);
  std::filesystem::create_directories(Cache() + "/res");
  WriteWholeFile(entry, "0\n\"old\"\n\nold");
  server_.Reply("/held.css", ResponseHead("HTTP/1.1 304 Not Modified", {}));
  FILE* writer = CZelvarUtils::OpenFileForWriting(entry);
  ASSERT_NE(writer, nullptr);
  Fetched f;
  std::thread download([&] {
    Options o;
    o.cache = Cache();
    f = Download(url, o);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  const std::string written = "0\n\"new\"\n\nnew body";
  std::fwrite(written.data(), 1, written.size(), writer);
  std::fclose(writer);
  download.join();
  EXPECT_EQ(f.body, "new body");
  ASSERT_EQ(server_.Requests().size(), 1u);
  EXPECT_NE(server_.Requests()[0].find("If-None-Match: \"new\"\r\n"), std::string::npos);
}

TEST_F(ScriptedDownload, WithoutCacheFolderTouchesNoFiles) {
  server_.Reply("/n.css", Ok({"ETag: \"n\""}, "n"));
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(cache_.path());
  const Fetched f = Download(server_.Url("/n.css"));
  std::filesystem::current_path(before);
  EXPECT_EQ(f.body, "n");
  EXPECT_TRUE(std::filesystem::is_empty(cache_.path()));
}

// --- a real server ----------------------------------------------------------

class NginxDownload : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    nginx_ = new LoopbackNginx(LoopbackAddress(0));
    startError_ = new std::string(nginx_->Start());
  }
  static void TearDownTestSuite() {
    zelvarpack::net::SetTrustedCertificatesForTesting("");
    delete nginx_;
    delete startError_;
    nginx_ = nullptr;
  }
  void SetUp() override { ASSERT_EQ(*startError_, ""); }
  std::string Cache() const { return cache_.path().string(); }

  static LoopbackNginx* nginx_;
  static std::string* startError_;
  TempDir cache_;
};
LoopbackNginx* NginxDownload::nginx_ = nullptr;
std::string* NginxDownload::startError_ = nullptr;

TEST_F(NginxDownload, GzipBodyIsStoredInflatedAndRevalidatedBy304) {
  const std::string text = Lines(400);
  nginx_->Serve("/gz/site.css", text);
  const std::string url = nginx_->Url("/gz/site.css");
  Options o;
  o.cache = Cache();
  const Fetched first = Download(url, o);
  EXPECT_EQ(first.body, text);
  const std::string entry = ReadWholeFile(EntryPath(Cache(), url));
  const std::size_t l1 = entry.find('\n'), l2 = entry.find('\n', l1 + 1),
                    l3 = entry.find('\n', l2 + 1);
  ASSERT_NE(l3, std::string::npos);
  const std::int32_t travelled = std::stoi(entry.substr(0, l1));
  EXPECT_GT(travelled, 0);
  EXPECT_LT(travelled, static_cast<std::int32_t>(text.size()) / 4);
  EXPECT_EQ(first.received - first.uncompressed,
            travelled - static_cast<std::int32_t>(text.size()));
  EXPECT_EQ(entry.substr(l1 + 1, 3), "W/\"");  // gzip makes the ETag weak; quotes kept
  EXPECT_EQ(entry.substr(l3 - 4, 4), " GMT");
  EXPECT_EQ(entry.substr(l3 + 1), text);

  const Fetched second = Download(url, o);
  EXPECT_EQ(second.body, text);
  EXPECT_EQ(second.received - second.uncompressed,
            travelled - static_cast<std::int32_t>(text.size()));
  EXPECT_LT(second.received, first.received);  // a 304 head is shorter than the 200's
  EXPECT_GT(second.sent, first.sent);          // the validators were sent
  EXPECT_EQ(ReadWholeFile(EntryPath(Cache(), url)), entry);
}

TEST_F(NginxDownload, ChangedFileIsFetchedAgainAndTheEntryRewritten) {
  nginx_->Serve("/change.css", "old");
  const std::string path = nginx_->Url("/change.css");
  Options o;
  o.cache = Cache();
  EXPECT_EQ(Download(path, o).body, "old");
  nginx_->Serve("/change.css", "new content");
  EXPECT_EQ(Download(path, o).body, "new content");
  const std::string entry = ReadWholeFile(EntryPath(Cache(), path));
  EXPECT_EQ(entry.substr(entry.size() - 12), "\nnew content");
  EXPECT_EQ(Download(path, o).body, "new content");
}

TEST_F(NginxDownload, FollowsRedirectsAndMarksExpiringResourcesCacheable) {
  nginx_->Serve("/target.css", "target");
  nginx_->Serve("/expires/e.css", "expiring");
  EXPECT_EQ(Download(nginx_->Url("/redirect/target.css")).body, "target");
  const Fetched f = Download(nginx_->Url("/expires/e.css"));
  EXPECT_EQ(f.body, "expiring");
  EXPECT_TRUE(f.cacheable);
  EXPECT_FALSE(Download(nginx_->Url("/target.css")).cacheable);
}

TEST_F(NginxDownload, HttpsUsesPort443AndVerifiesTheCertificate) {
  nginx_->Serve("/secure.css", "secure");
  const std::string url = "https://" + nginx_->address() + ":8443/secure.css";
  zelvarpack::net::SetTrustedCertificatesForTesting("");
  EXPECT_EQ(Download(url).body, "");  // the run's authority is not in the system's store
  EXPECT_EQ(Download("HTTPS://" + nginx_->address() + "/secure.css").body, "secure");  // plain :80
  zelvarpack::net::SetTrustedCertificatesForTesting(nginx_->CertificateAuthorityFile());
  EXPECT_EQ(Download(url).body, "secure");
  EXPECT_EQ(Download(url).body, "secure");
  // Calls on one thread share a transfer handle: neither the trusted file
  // nor the session agreed under it may outlive the setting.
  zelvarpack::net::SetTrustedCertificatesForTesting("");
  EXPECT_EQ(Download(url).body, "");
}

TEST_F(NginxDownload, ManyThreadsDownloadAtOnce) {
  constexpr int kFiles = 12;
  for (int i = 0; i < kFiles; ++i)
    nginx_->Serve("/gz/f" + std::to_string(i) + ".css", Lines(i * 30 + 1));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      Options o;
      if (t % 2 == 0) o.cache = Cache();
      for (int round = 0; round < 24; ++round) {
        const int i = (t * 5 + round) % kFiles;
        const Fetched f = Download(nginx_->Url("/gz/f" + std::to_string(i) + ".css"), o);
        if (f.body != Lines(i * 30 + 1)) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  for (const auto& file : std::filesystem::directory_iterator(Cache() + "/res")) {
    EXPECT_EQ(file.path().string().find(".tmp."), std::string::npos) << file.path();
  }
}

}  // namespace
