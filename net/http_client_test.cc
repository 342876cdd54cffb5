// HttpGet keeps one transfer handle per thread and resets it between calls:
// what one call set (headers, limits, time-outs, a failure half-way) must
// never reach the next call on the same thread.
#include "net/http_client.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/loopback_servers.h"

namespace {

using zelvarpack::net::HttpGet;
using zelvarpack::net::HttpRequest;
using zelvarpack::net::HttpResponse;

class HttpClient : public ::testing::Test {
 protected:
  HttpRequest Request(const std::string& path) const {
    HttpRequest request;
    request.host = LoopbackAddress(1);
    request.path = path;
    request.timeoutSeconds = 20;
    return request;
  }
  static std::string Body(const HttpResponse& response) {
    return std::string(reinterpret_cast<const char*>(response.body->GetValue()),
                       static_cast<std::size_t>(response.body->GetValueLength()));
  }

  ScriptedServer server_{LoopbackAddress(1)};
};

TEST_F(HttpClient, SuccessiveCallsOnOneThreadCarryNothingOver) {
  server_.Reply("/long",
                ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 20"}) + "twenty bytes of body");
  server_.Handle("/silent", [](ScriptedServer::Connection& c) { c.WaitUntilClosed(); });
  server_.Reply("/ok", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 2"}) + "ok");

  // A body over its call's limit, with headers of its own.
  HttpRequest first = Request("/long");
  first.headers = {"X-First: 1", "X-Empty:"};
  first.maxBodyBytes = 10;
  const HttpResponse failed = HttpGet(first);
  EXPECT_NE(failed.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(Body(failed), "");

  // The same resource without a limit: whole, and without the headers.
  const HttpResponse whole = HttpGet(Request("/long"));
  EXPECT_EQ(whole.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(Body(whole), "twenty bytes of body");

  // A server that never answers ends the call at its time-out ...
  HttpRequest quiet = Request("/silent");
  quiet.timeoutSeconds = 1;
  quiet.headers = {"X-Quiet: 1"};
  EXPECT_EQ(HttpGet(quiet).outcome, HttpResponse::Outcome::kNoResponse);
  // ... and the next call, without one, is not cut short by it.
  HttpRequest next = Request("/ok");
  next.timeoutSeconds = 0;
  const HttpResponse ok = HttpGet(next);
  EXPECT_EQ(ok.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(ok.status, 200);
  EXPECT_EQ(Body(ok), "ok");
  ASSERT_EQ(ok.headerLines.size(), 2u);
  EXPECT_EQ(ok.headerLines[0], "HTTP/1.1 200 OK");

  const std::vector<std::string> requests = server_.Requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_NE(requests[0].find("\r\nX-First: 1\r\n"), std::string::npos) << requests[0];
  EXPECT_NE(requests[0].find("\r\nX-Empty:"), std::string::npos) << requests[0];
  EXPECT_NE(requests[2].find("\r\nX-Quiet: 1\r\n"), std::string::npos) << requests[2];
  for (std::size_t i : {1u, 3u}) {
    SCOPED_TRACE(requests[i]);
    const std::string line = std::string("GET ") + (i == 1 ? "/long" : "/ok") + " HTTP/1.1\r\n";
    EXPECT_EQ(requests[i].compare(0, line.size(), line), 0);
    EXPECT_EQ(requests[i].find("X-"), std::string::npos);
  }
}

TEST_F(HttpClient, ARedirectOnOneCallLeavesTheNextOnItsOwnAddress) {
  server_.Reply("/from",
                ResponseHead("HTTP/1.1 302 Found", {"Location: /to", "Content-Length: 0"}));
  server_.Reply("/to", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 2"}) + "to");
  server_.Reply("/other", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 5"}) + "other");
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(Body(HttpGet(Request("/from"))), "to");
    EXPECT_EQ(Body(HttpGet(Request("/other"))), "other");
  }
  EXPECT_EQ(server_.Requests().size(), 9u);
}

TEST_F(HttpClient, EachThreadKeepsItsOwnHandle) {
  for (int i = 0; i < 6; ++i) {
    const std::string body = "body " + std::to_string(i);
    server_.Reply(
        "/t" + std::to_string(i),
        ResponseHead("HTTP/1.1 200 OK", {"Content-Length: " + std::to_string(body.size())}) + body);
  }
  std::vector<std::string> wrong(6);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round) {
        const int i = (t + round) % 6;
        HttpRequest request = Request("/t" + std::to_string(i));
        request.headers = {"X-Thread: " + std::to_string(t)};
        const std::string body = Body(HttpGet(request));
        if (body != "body " + std::to_string(i)) wrong[t] += "[" + body + "]";
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 6; ++t) EXPECT_EQ(wrong[t], "") << "thread " << t;
  // Every request carried exactly its own thread's header.
  for (const std::string& request : server_.Requests()) {
    const std::size_t first = request.find("X-Thread:");
    ASSERT_NE(first, std::string::npos) << request;
    EXPECT_EQ(request.find("X-Thread:", first + 1), std::string::npos) << request;
  }
}

// A server that sends more than it declared: the body is what it declared,
// on every platform alike (the rest is not the resource's).
TEST_F(HttpClient, BytesPastTheDeclaredLengthAreNotPartOfTheBody) {
  server_.Reply("/over", ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 5"}) + "fivebytes");
  const HttpResponse response = HttpGet(Request("/over"));
  EXPECT_EQ(response.outcome, HttpResponse::Outcome::kComplete);
  EXPECT_EQ(Body(response), "fiveb");
}

}  // namespace
