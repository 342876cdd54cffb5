// Test support shared by the suites (compiled into the test binary only).
#include "tests/loopback_servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

sockaddr_in Port80(const std::string& address) {
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(80);
  if (::inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) {
    throw std::runtime_error("bad address " + address);
  }
  return where;
}

bool Accepts(const std::string& address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in where = Port80(address);
  const bool ok = ::connect(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
  ::close(fd);
  return ok;
}

// Waits for `fd` to become readable; false when the stop pipe fired first.
bool WaitReadable(int fd, int stopFd) {
  pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
  while (true) {
    const int ready = ::poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || (fds[1].revents & POLLIN) != 0) return false;
    if (fds[0].revents != 0) return true;
  }
}

}  // namespace

std::string LoopbackAddress(int kind) {
  const auto pid = static_cast<unsigned>(::getpid());
  return "127." + std::to_string(((kind & 3) << 6) | ((pid >> 16) & 0x3F)) + "." +
         std::to_string((pid >> 8) & 0xFF) + "." + std::to_string(pid & 0xFF);
}

std::string ResponseHead(const std::string& statusLine, const std::vector<std::string>& headers) {
  std::string head = statusLine + "\r\n";
  for (const std::string& header : headers) head += header + "\r\n";
  return head + "\r\n";
}

// --- LoopbackNginx ----------------------------------------------------------

LoopbackNginx::LoopbackNginx(std::string address) : address_(std::move(address)) {}

LoopbackNginx::~LoopbackNginx() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    int status;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

std::string LoopbackNginx::Start() {
  const std::string script = std::string(ZP_SOURCE_DIR) + "/scripts/loopback-nginx.sh";
  const std::string log = dir_.File("launcher.log");
  pid_ = ::fork();
  if (pid_ < 0) return "fork failed";
  if (pid_ == 0) {
    // nginx dies with the test process, whatever way that ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::execl("/bin/bash", "bash", script.c_str(), dir_.path().c_str(), address_.c_str(),
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // A readiness wait, not a measurement: nginx starts in well under a second.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < giveUp) {
    if (Accepts(address_)) return "";
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return "nginx exited: " + ReadWholeFile(log) + ReadWholeFile(dir_.File("logs/error.log"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return "nginx did not start listening on " + address_;
}

std::string LoopbackNginx::Url(const std::string& path, bool secure) const {
  return (secure ? "https://" : "http://") + address_ + path;
}

void LoopbackNginx::Serve(const std::string& path, const std::string& bytes) const {
  const std::filesystem::path file = dir_.path() / ("www" + path);
  std::filesystem::create_directories(file.parent_path());
  WriteWholeFile(file.string(), bytes);
}

// --- ScriptedServer ---------------------------------------------------------

bool ScriptedServer::Connection::Send(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    pollfd fds[2] = {{fd_, POLLOUT, 0}, {stopFd_, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if ((fds[1].revents & POLLIN) != 0 || (fds[0].revents & (POLLERR | POLLHUP)) != 0) return false;
    const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return false;
    }
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

void ScriptedServer::Connection::WaitUntilClosed() {
  char scratch[4096];
  while (WaitReadable(fd_, stopFd_)) {
    const ssize_t got = ::recv(fd_, scratch, sizeof scratch, 0);
    if (got == 0 || (got < 0 && errno != EINTR)) return;
  }
}

ScriptedServer::ScriptedServer(std::string address) : address_(std::move(address)) {
  if (::pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in where = Port80(address_);
  if (::bind(listenFd_, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0 ||
      ::listen(listenFd_, 128) != 0) {
    const std::string reason = std::strerror(errno);
    ::close(listenFd_);
    ::close(stopPipe_[0]);
    ::close(stopPipe_[1]);
    throw std::runtime_error("cannot listen on " + address_ + ":80: " + reason);
  }
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  (void)!::write(stopPipe_[1], "x", 1);
  acceptor_.join();
  std::vector<std::thread> connections;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connections.swap(connections_);
  }
  for (std::thread& connection : connections) connection.join();
  ::close(listenFd_);
  ::close(stopPipe_[0]);
  ::close(stopPipe_[1]);
}

void ScriptedServer::Reply(const std::string& target, const std::string& rawResponse) {
  Handle(target, [rawResponse](Connection& connection) { connection.Send(rawResponse); });
}

void ScriptedServer::Handle(const std::string& target, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[target] = std::move(handler);
}

std::vector<std::string> ScriptedServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

void ScriptedServer::AcceptLoop() {
  while (WaitReadable(listenFd_, stopPipe_[0])) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.emplace_back([this, fd] { Serve(fd); });
  }
}

void ScriptedServer::Serve(int fd) {
  std::string head;
  char chunk[4096];
  while (head.find("\r\n\r\n") == std::string::npos && WaitReadable(fd, stopPipe_[0])) {
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    head.append(chunk, static_cast<std::size_t>(got));
  }
  const std::size_t end = head.find("\r\n\r\n");
  if (end != std::string::npos) {
    head.resize(end + 4);
    const std::size_t space = head.find(' ');
    const std::string target = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
    Handler handler;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(head);
      if (auto found = handlers_.find(target); found != handlers_.end()) handler = found->second;
    }
    Connection connection(fd, stopPipe_[0]);
    if (handler) {
      handler(connection);
    } else {
      connection.Send(ResponseHead("HTTP/1.1 404 Not Found", {"Content-Length: 0"}));
    }
  }
  ::shutdown(fd, SHUT_WR);
  ::close(fd);
}
