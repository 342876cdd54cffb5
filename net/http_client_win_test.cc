// The WinHTTP client against the scripted loopback server: what goes on the
// wire, and the hardenings the Linux client has too.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/http_client.h"
#include "tests/loopback_servers.h"

namespace {

using zelvarpack::net::HttpGet;
using zelvarpack::net::HttpRequest;
using zelvarpack::net::HttpResponse;

class WinHttpClient : public ::testing::Test {
 protected:
  WinHttpClient() : server_(LoopbackAddress(1)) {}

  HttpRequest Request(const std::string& path) const {
    HttpRequest request;
    request.host = server_.Url("").substr(7);  // "http://" cut off
    request.path = path;
    request.timeoutSeconds = 10;
    return request;
  }

  ScriptedServer server_;
};

std::string Body(const HttpResponse& response) {
  return std::string(reinterpret_cast<const char*>(response.body->GetValue()),
                     static_cast<std::size_t>(response.body->GetValueLength()));
}

TEST_F(WinHttpClient, SendsTheHeaderLinesInOrderAndNoCookieOrKeepAlive) {
  server_.Reply("/a.css", ResponseHead("HTTP/1.1 200 OK",
                                       {"Content-Length: 5", "Set-Cookie: s=1", "ETag: \"x\""}) +
                              "hello");
  HttpRequest request = Request("/a.css");
  request.headers = {"Accept: */*", "Accept-Encoding: gzip, deflate", "User-Agent: caf\xC3\xA9",
                     "X-Forwarded-For: 10.0.0.1"};
  for (int round = 0; round < 2; ++round) {
    const HttpResponse response = HttpGet(request);
    ASSERT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(Body(response), "hello");
    ASSERT_FALSE(response.headerLines.empty());
    EXPECT_EQ(response.headerLines[0], "HTTP/1.1 200 OK");
    EXPECT_EQ(zelvarpack::net::FindHeader(response.headerLines, "etag"), "\"x\"");
  }
  const std::vector<std::string> requests = server_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const std::string& head : requests) {
    // Host first, then the caller's lines in their order.
    EXPECT_EQ(head.rfind("GET /a.css HTTP/1.1\r\nHost: " + LoopbackAddress(1) + "\r\n", 0), 0u)
        << head;
    const std::size_t accept = head.find("Accept: */*\r\n");
    const std::size_t encoding = head.find("Accept-Encoding: gzip, deflate\r\n");
    const std::size_t agent = head.find("User-Agent: caf\xC3\xA9\r\n");  // UTF-8 kept as it was
    const std::size_t forwarded = head.find("X-Forwarded-For: 10.0.0.1\r\n");
    ASSERT_NE(forwarded, std::string::npos) << head;
    EXPECT_LT(accept, encoding);
    EXPECT_LT(encoding, agent);
    EXPECT_LT(agent, forwarded);
    // Cookies are off: the first answer's cookie is not sent back.
    EXPECT_EQ(head.find("Cookie:"), std::string::npos) << head;
    EXPECT_EQ(head.find("Keep-Alive"), std::string::npos) << head;
  }
}

TEST_F(WinHttpClient, NeverSendsLineBreaksOrNulInAHeaderOrThePath) {
  server_.Reply("/b", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 1"}) + "b");
  HttpRequest request = Request("/b");
  request.headers = {"X-One: a\r\nInjected: 1", "X-Two: a\nInjected: 2",
                     std::string("X-Three: a\0Injected: 3", 22), "X-Four: kept"};
  const HttpResponse response = HttpGet(request);
  ASSERT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
  const std::vector<std::string> requests = server_.Requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].find("Injected"), std::string::npos) << requests[0];
  EXPECT_NE(requests[0].find("X-Four: kept\r\n"), std::string::npos) << requests[0];

  // A path that would break the request line is not requested at all.
  for (const std::string& path : {std::string("/b HTTP/1.0\r\nX: y"), std::string("/b\nc"),
                                  std::string("/b c"), std::string("/b\0c", 4), std::string("b")}) {
    EXPECT_EQ(HttpGet(Request(path)).outcome, HttpResponse::Outcome::kNoResponse);
  }
  EXPECT_EQ(server_.Requests().size(), 1u);
}

TEST_F(WinHttpClient, BodiesOverTheBoundFailAndTheBoundItselfPasses) {
  const std::string body(100000, 'x');
  server_.Reply("/big", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 100000"}) + body);
  HttpRequest request = Request("/big");
  request.maxBodyBytes = 99999;
  HttpResponse response = HttpGet(request);
  EXPECT_EQ(response.outcome, HttpResponse::Outcome::kBodyFailed);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body->GetValueLength(), 0);
  request.maxBodyBytes = 100000;
  response = HttpGet(request);
  ASSERT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(Body(response), body);
}

TEST_F(WinHttpClient, ABodyShortOfItsDeclaredLengthFails) {
  // The scripted server closes the connection after these bytes.
  server_.Reply("/short", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 10"}) + "12345");
  server_.Reply("/huge", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 5000"}) + "x");
  HttpResponse response = HttpGet(Request("/short"));
  EXPECT_EQ(response.outcome, HttpResponse::Outcome::kBodyFailed);
  EXPECT_EQ(response.body->GetValueLength(), 0);
  HttpRequest request = Request("/huge");
  request.maxBodyBytes = 4999;  // refused on the declared length alone
  response = HttpGet(request);
  EXPECT_EQ(response.outcome, HttpResponse::Outcome::kBodyFailed);
  EXPECT_EQ(response.status, 200);
}

TEST_F(WinHttpClient, FollowsRedirectsAndReportsTheFinalHeaders) {
  server_.Reply("/old",
                ResponseHead("HTTP/1.1 301 Moved", {"Location: /mid", "Content-Length: 0"}));
  server_.Reply("/mid",
                ResponseHead("HTTP/1.1 302 Found", {"Location: /new", "Content-Length: 0"}));
  server_.Reply("/new",
                ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 3", "X-Final: 1"}) + "new");
  const HttpResponse response = HttpGet(Request("/old"));
  ASSERT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(Body(response), "new");
  EXPECT_EQ(response.headerLines[0], "HTTP/1.1 200 OK");
  EXPECT_TRUE(zelvarpack::net::FindHeader(response.headerLines, "X-Final").has_value());
  EXPECT_FALSE(zelvarpack::net::FindHeader(response.headerLines, "Location").has_value());
  EXPECT_EQ(server_.Requests().size(), 3u);
}

TEST_F(WinHttpClient, ErrorStatusesArriveWithTheirBodies) {
  server_.Reply("/gone", ResponseHead("HTTP/1.1 404 Not Found", {"Content-Length: 4"}) + "nope");
  const HttpResponse response = HttpGet(Request("/gone"));
  ASSERT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(Body(response), "nope");
}

TEST_F(WinHttpClient, NothingListeningGivesNoResponse) {
  HttpRequest request = Request("/x");
  request.host = LoopbackAddress(2);  // no server there
  request.timeoutSeconds = 5;
  const HttpResponse response = HttpGet(request);
  EXPECT_EQ(response.outcome, HttpResponse::Outcome::kNoResponse);
  EXPECT_EQ(response.body->GetValueLength(), 0);
}

}  // namespace
