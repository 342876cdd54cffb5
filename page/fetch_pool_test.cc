// FetchPool against a scripted loopback server: the page's thread is woken
// once the downloads it waits for have ended, whichever ends last.
#include "page/fetch_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/loopback_servers.h"

namespace {

using zelvarpack::page::FetchJob;
using zelvarpack::page::FetchPool;
using zelvarpack::page::FetchSettings;
using Clock = std::chrono::steady_clock;

// Far beyond any of these tests' downloads: a wait that reaches it missed
// its wake-up.
constexpr auto kLongDeadline = std::chrono::seconds(60);

FetchSettings Settings() {
  FetchSettings settings;
  settings.timeoutSeconds = 30;
  settings.waitSeconds = 30;
  return settings;
}

std::string Text(const FetchJob& job) {
  return std::string(reinterpret_cast<const char*>(job.body->GetValue()),
                     static_cast<std::size_t>(job.body->GetValueLength()));
}

class FetchPoolTest : public ::testing::Test {
 protected:
  // "/rN" answers "body N" after `delay`.
  void Serve(int n, std::chrono::milliseconds delay) {
    const std::string body = "body " + std::to_string(n);
    const std::string reply =
        ResponseHead("HTTP/1.1 200 OK", {"Content-Length: " + std::to_string(body.size())}) + body;
    server_.Handle("/r" + std::to_string(n), [reply, delay](ScriptedServer::Connection& c) {
      std::this_thread::sleep_for(delay);
      c.Send(reply);
    });
  }
  std::string Url(int n) const { return server_.Url("/r" + std::to_string(n)); }

  ScriptedServer server_{LoopbackAddress(1)};
};

TEST_F(FetchPoolTest, ThePageWakesWhenTheLastDownloadEndsWhicheverItIs) {
  // More jobs than run at once, the first started ending last.
  constexpr int kJobs = FetchPool::kMaxRunning + 6;
  for (int n = 0; n < kJobs; ++n) Serve(n, std::chrono::milliseconds((kJobs - n) * 15));
  FetchPool pool(Settings());
  std::vector<std::shared_ptr<FetchJob>> jobs;
  for (int n = 0; n < kJobs; ++n) jobs.push_back(pool.Start(Url(n), Url(n)));

  const Clock::time_point deadline = Clock::now() + kLongDeadline;
  pool.WaitUntilFinished(deadline);
  EXPECT_LT(Clock::now(), deadline - kLongDeadline / 2);
  pool.Abandon();
  for (int n = 0; n < kJobs; ++n) {
    SCOPED_TRACE(n);
    ASSERT_TRUE(pool.IsDone(*jobs[static_cast<std::size_t>(n)]));
    EXPECT_EQ(Text(*jobs[static_cast<std::size_t>(n)]), "body " + std::to_string(n));
  }
  const Clock::time_point joinDeadline = Clock::now() + kLongDeadline;
  pool.Join(joinDeadline);
  EXPECT_LT(Clock::now(), joinDeadline - kLongDeadline / 2);
}

// Threads are started one from another: while jobs wait, the chain goes on
// until kMaxRunning downloads run at once, and never beyond.
TEST_F(FetchPoolTest, ThreadsStartedOneFromAnotherReachTheLimitTogether) {
  struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    int inside = 0;
    int most = 0;
    bool open = false;
  };
  auto gate = std::make_shared<Gate>();
  const std::string reply = ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 2"}) + "ok";
  server_.Handle("/held", [gate, reply](ScriptedServer::Connection& c) {
    {
      std::unique_lock<std::mutex> lock(gate->mutex);
      gate->most = std::max(gate->most, ++gate->inside);
      gate->changed.notify_all();
      gate->changed.wait(lock, [&] { return gate->open; });
      --gate->inside;
    }
    c.Send(reply);
  });
  const std::string url = server_.Url("/held");
  FetchPool pool(Settings());
  std::vector<std::shared_ptr<FetchJob>> jobs;
  for (int n = 0; n < FetchPool::kMaxRunning + 8; ++n) jobs.push_back(pool.Start(url, url));
  {
    // All of the first kMaxRunning are held at once before any may end.
    std::unique_lock<std::mutex> lock(gate->mutex);
    EXPECT_TRUE(gate->changed.wait_for(lock, std::chrono::seconds(30),
                                       [&] { return gate->inside == FetchPool::kMaxRunning; }));
    gate->open = true;
  }
  gate->changed.notify_all();
  pool.WaitUntilFinished(Clock::now() + kLongDeadline);
  pool.Abandon();
  for (const auto& job : jobs) {
    ASSERT_TRUE(pool.IsDone(*job));
    EXPECT_EQ(Text(*job), "ok");
  }
  std::lock_guard<std::mutex> lock(gate->mutex);
  EXPECT_EQ(gate->most, FetchPool::kMaxRunning);
}

TEST_F(FetchPoolTest, JoinWakesWhenTheDownloadsLeftBehindEnd) {
  // Shared with the server's connection threads, which may outlive the test.
  struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool open = false;
    std::atomic<int> arrived{0};
  };
  auto gate = std::make_shared<Gate>();
  const std::string reply = ResponseHead("HTTP/1.1 200 OK", {"Content-Length: 4"}) + "late";
  server_.Handle("/gate", [gate, reply](ScriptedServer::Connection& c) {
    ++gate->arrived;
    {
      std::unique_lock<std::mutex> lock(gate->mutex);
      gate->opened.wait(lock, [&] { return gate->open; });
    }
    c.Send(reply);
  });
  const std::string url = server_.Url("/gate");
  FetchPool pool(Settings());
  std::vector<std::shared_ptr<FetchJob>> jobs;
  for (int n = 0; n < 3; ++n) jobs.push_back(pool.Start(url, url));
  while (gate->arrived.load() < 3) std::this_thread::sleep_for(std::chrono::milliseconds(5));

  // The page stops waiting while all three are still running.
  pool.WaitUntilFinished(Clock::now());
  pool.Abandon();
  {
    std::lock_guard<std::mutex> lock(gate->mutex);
    gate->open = true;
  }
  gate->opened.notify_all();
  const Clock::time_point deadline = Clock::now() + kLongDeadline;
  pool.Join(deadline);
  EXPECT_LT(Clock::now(), deadline - kLongDeadline / 2);
  for (const auto& job : jobs) EXPECT_FALSE(pool.IsDone(*job));
}

}  // namespace
