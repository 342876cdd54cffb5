#include "store/session_pool.h"

#include <algorithm>
#include <utility>

namespace zelvarpack::store {

Session::~Session() {
  prepared_.clear();  // statements go before their connection
}

OdbcStatement* Session::Prepared(const char* sql) {
  std::unique_ptr<OdbcStatement>& slot = prepared_[sql];
  if (slot == nullptr) {
    std::unique_ptr<OdbcStatement> statement = db_.NewStatement();
    if (statement == nullptr || !statement->Prepare(sql)) {
      prepared_.erase(sql);
      return nullptr;
    }
    slot = std::move(statement);
  }
  return slot.get();
}

std::unique_ptr<Session> SessionPool::Take(const std::string& connection) {
  std::vector<Idle> expired;  // closed outside the lock: closing talks to the server
  std::unique_ptr<Session> session;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    auto stale = std::find_if(idle_.begin(), idle_.end(),
                              [&](const Idle& idle) { return now - idle.since <= maxIdleTime_; });
    expired.assign(std::make_move_iterator(idle_.begin()), std::make_move_iterator(stale));
    idle_.erase(idle_.begin(), stale);
    // The most recently used one: the likeliest to be alive.
    for (auto it = idle_.rbegin(); it != idle_.rend(); ++it) {
      if (it->connection == connection) {
        session = std::move(it->session);
        idle_.erase(std::next(it).base());
        break;
      }
    }
  }
  if (session != nullptr) session->reused = true;
  return session;
}

void SessionPool::Give(const std::string& connection, std::unique_ptr<Session> session) {
  std::unique_ptr<Session> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    idle_.push_back({connection, std::move(session), std::chrono::steady_clock::now()});
    if (idle_.size() > maxIdle_) {
      dropped = std::move(idle_.front().session);
      idle_.erase(idle_.begin());
    }
  }
}

std::size_t SessionPool::idle() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return idle_.size();
}

}  // namespace zelvarpack::store
