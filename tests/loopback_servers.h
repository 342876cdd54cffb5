// Servers on loopback for the download tests (compiled into the test binary
// only). Each process gets its own loopback addresses, derived from its
// process id, so tests in parallel processes never share a port.
//
// LoopbackNginx runs a real nginx on ADDRESS:80 and :443 with a certificate
// authority made for the run (scripts/loopback-nginx.sh). In the Windows
// build, under Wine, the nginx is the one the CTest fixture "nginx" started
// on the build machine (its folder and address in the file named by
// ZP_NGINX_STATE); the Windows process reaches it through WinHTTP. ScriptedServer
// answers on ADDRESS:80 with exactly the bytes a test gives it, or runs a
// test's handler on the connection, and keeps every request it received.
#ifndef ZELVARPACK_TESTS_LOOPBACK_SERVERS_H_
#define ZELVARPACK_TESTS_LOOPBACK_SERVERS_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/temp_dir.h"

// A loopback address for this process; `kind` (0 to 2) tells apart the
// servers one process runs.
std::string LoopbackAddress(int kind);

class LoopbackNginx {
 public:
  explicit LoopbackNginx(std::string address);
  ~LoopbackNginx();
  LoopbackNginx(const LoopbackNginx&) = delete;
  LoopbackNginx& operator=(const LoopbackNginx&) = delete;

  // Starts nginx and waits until it accepts connections. Returns "" or why
  // it failed.
  std::string Start();

  const std::string& address() const { return address_; }
  std::string Url(const std::string& path, bool secure = false) const;
  // Writes a file that nginx serves under `path` (e.g. "/gz/a.css").
  void Serve(const std::string& path, const std::string& bytes) const;
  std::string CertificateAuthorityFile() const;

 private:
  TempDir dir_;
  std::string address_;
  std::string shared_;  // the fixture's nginx folder (Windows build), or ""
  std::int64_t pid_ = -1;
};

class ScriptedServer {
 public:
  // One accepted connection, as a handler sees it.
  class Connection {
   public:
    // Sockets are held as integers here (a POSIX descriptor or a Winsock
    // SOCKET; core/socket_calls.h in the .cc).
    Connection(std::intptr_t fd, std::intptr_t stopFd) : fd_(fd), stopFd_(stopFd) {}
    // False once the client has gone or the server is stopping.
    bool Send(const std::string& bytes);
    // Returns when the client closes the connection or the server stops.
    void WaitUntilClosed();

   private:
    std::intptr_t fd_;
    std::intptr_t stopFd_;
  };
  using Handler = std::function<void(Connection&)>;

  // Binds address:80 and starts serving. Throws std::runtime_error when the
  // address cannot be bound.
  explicit ScriptedServer(std::string address);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  // Requests for `target` (path and query, as in the request line) get the
  // raw response bytes, or run the handler. Others get a canned 404.
  void Reply(const std::string& target, const std::string& rawResponse);
  void Handle(const std::string& target, Handler handler);

  std::string Url(const std::string& target) const { return "http://" + address_ + target; }
  // Every request head received so far (request line and headers, up to and
  // including the empty line), in order of arrival.
  std::vector<std::string> Requests() const;

 private:
  void AcceptLoop();
  void Serve(std::intptr_t fd);

  std::string address_;
  std::intptr_t listenFd_ = -1;
  // A connected socket pair: a byte written into [1] wakes every wait on [0].
  std::intptr_t stopPipe_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::map<std::string, Handler> handlers_;  // guarded by mutex_
  std::vector<std::string> requests_;        // guarded by mutex_
  std::vector<std::thread> connections_;     // guarded by mutex_
  std::thread acceptor_;
};

// The head of an HTTP response: status line, headers, empty line.
std::string ResponseHead(const std::string& statusLine, const std::vector<std::string>& headers);

#endif  // ZELVARPACK_TESTS_LOOPBACK_SERVERS_H_
