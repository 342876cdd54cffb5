// Database sessions kept open between storing calls that name the same
// connection string, so that a caller storing many files does not pay, per
// file, for a new connection (on a server: a new backend process,
// authentication, the driver's set-up queries), the table check and the
// preparing of every statement. Each call still has its session to itself
// from start to end; only a session whose transaction ended cleanly goes
// back, and idle ones are closed after a while.
//
// Thread safety: the pool is safe from any thread; a session belongs to the
// thread that took it.
#ifndef ZELVARPACK_STORE_SESSION_POOL_H_
#define ZELVARPACK_STORE_SESSION_POOL_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store/odbc_connection.h"

namespace zelvarpack::store {

// One connection with its statements prepared so far.
class Session {
 public:
  Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  OdbcConnection& db() { return db_; }
  // The statement for `sql` (static text: the pointer is the key), prepared
  // on first use; null when it cannot be prepared.
  OdbcStatement* Prepared(const char* sql);

  // The store's tables were found or created on this connection.
  bool tablesKnown = false;
  // Taken from a pool rather than connected for this call.
  bool reused = false;

 private:
  OdbcConnection db_;
  std::map<const char*, std::unique_ptr<OdbcStatement>> prepared_;
};

class SessionPool {
 public:
  explicit SessionPool(std::size_t maxIdle = 4,
                       std::chrono::steady_clock::duration maxIdleTime = std::chrono::seconds(30))
      : maxIdle_(maxIdle), maxIdleTime_(maxIdleTime) {}
  SessionPool(const SessionPool&) = delete;
  SessionPool& operator=(const SessionPool&) = delete;

  // An idle session for `connection` (marked reused), or null.
  std::unique_ptr<Session> Take(const std::string& connection);
  // Keeps `session`, whose transaction has ended, for a later Take.
  void Give(const std::string& connection, std::unique_ptr<Session> session);
  std::size_t idle() const;

 private:
  struct Idle {
    std::string connection;
    std::unique_ptr<Session> session;
    std::chrono::steady_clock::time_point since;
  };
  const std::size_t maxIdle_;
  const std::chrono::steady_clock::duration maxIdleTime_;
  mutable std::mutex mutex_;
  std::vector<Idle> idle_;  // oldest first; guarded by mutex_
};

}  // namespace zelvarpack::store

#endif  // ZELVARPACK_STORE_SESSION_POOL_H_
