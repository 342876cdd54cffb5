// Test support shared by the suites (compiled into the test binary only).
#include "tests/loopback_servers.h"

#if defined(_WIN32)
#include <process.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "core/socket_calls.h"

using zelvarpack::SocketHandle;
using zelvarpack::SocketPollEntry;

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

SocketHandle AsSocket(std::intptr_t fd) { return static_cast<SocketHandle>(fd); }

bool Accepts(const std::string& address) {
  const SocketHandle fd = zelvarpack::OpenStreamSocket();
  if (fd == zelvarpack::kNoSocket) return false;
  const bool ok = zelvarpack::ConnectSocket(fd, Port80(address));
  zelvarpack::CloseSocket(fd);
  return ok;
}

// Waits for `fd` to become readable; false when the stop pipe fired first.
bool WaitReadable(std::intptr_t fd, std::intptr_t stopFd) {
  SocketPollEntry fds[2] = {{AsSocket(fd), POLLIN, 0}, {AsSocket(stopFd), POLLIN, 0}};
  const int ready = zelvarpack::PollSockets(fds, 2, -1);
  if (ready < 0 || (fds[1].revents & POLLIN) != 0) return false;
  return fds[0].revents != 0;
}

#if defined(_WIN32)
int ProcessId() { return ::_getpid(); }
#else
int ProcessId() { return static_cast<int>(::getpid()); }
#endif

}  // namespace

std::string LoopbackAddress(int kind) {
  const auto pid = static_cast<unsigned>(ProcessId());
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

#if defined(_WIN32)

// The Windows test program cannot start nginx (a program of the build
// machine); the CTest fixture "nginx" did (scripts/loopback-nginx-fixture.sh),
// and its state file holds the folder it serves and its address.
LoopbackNginx::~LoopbackNginx() = default;

std::string LoopbackNginx::Start() {
  const char* state = std::getenv("ZP_NGINX_STATE");
  if (state == nullptr || *state == '\0') {
    return "no nginx: the Windows tests reach the one of the CTest fixture \"nginx\" "
           "(ZP_NGINX_STATE is not set)";
  }
  std::ifstream in(state);
  std::string folder, address;
  if (!(in >> folder >> address)) return std::string("cannot read ") + state;
  shared_ = folder;
  address_ = address;
  return Accepts(address_) ? "" : "the fixture's nginx does not answer on " + address_;
}

#else

LoopbackNginx::~LoopbackNginx() {
  if (pid_ > 0) {
    const auto pid = static_cast<pid_t>(pid_);
    ::kill(pid, SIGTERM);
    int status;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

std::string LoopbackNginx::Start() {
  const std::string script = std::string(ZP_SOURCE_DIR) + "/scripts/loopback-nginx.sh";
  const std::string log = dir_.File("launcher.log");
  const pid_t pid = ::fork();
  if (pid < 0) return "fork failed";
  if (pid == 0) {
    // nginx dies with the test process, whatever way that ends.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(out, 1);
    ::dup2(out, 2);
    ::execl("/bin/bash", "bash", script.c_str(), dir_.path().c_str(), address_.c_str(),
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  pid_ = pid;
  // A readiness wait, not a measurement: nginx starts in well under a second.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < giveUp) {
    if (Accepts(address_)) return "";
    int status;
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      pid_ = -1;
      return "nginx exited: " + ReadWholeFile(log) + ReadWholeFile(dir_.File("logs/error.log"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return "nginx did not start listening on " + address_;
}

#endif

std::string LoopbackNginx::Url(const std::string& path, bool secure) const {
  return (secure ? "https://" : "http://") + address_ + path;
}

std::string LoopbackNginx::CertificateAuthorityFile() const {
  return shared_.empty() ? dir_.File("ca.crt") : shared_ + "/ca.crt";
}

void LoopbackNginx::Serve(const std::string& path, const std::string& bytes) const {
  const std::filesystem::path root = shared_.empty() ? dir_.path() : std::filesystem::path(shared_);
  const std::filesystem::path file = root / ("www" + path);
  std::filesystem::create_directories(file.parent_path());
  WriteWholeFile(file.string(), bytes);
}

// --- ScriptedServer ---------------------------------------------------------

bool ScriptedServer::Connection::Send(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    SocketPollEntry fds[2] = {{AsSocket(fd_), POLLOUT, 0}, {AsSocket(stopFd_), POLLIN, 0}};
    if (zelvarpack::PollSockets(fds, 2, -1) < 0) return false;
    if ((fds[1].revents & POLLIN) != 0 || (fds[0].revents & (POLLERR | POLLHUP)) != 0) return false;
    const std::int64_t sent =
        zelvarpack::SendSome(AsSocket(fd_), bytes.data() + done, bytes.size() - done);
    if (sent < 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

void ScriptedServer::Connection::WaitUntilClosed() {
  char scratch[4096];
  while (WaitReadable(fd_, stopFd_)) {
    const std::int64_t got = zelvarpack::ReceiveSome(AsSocket(fd_), scratch, sizeof scratch);
    if (got <= 0) return;
  }
}

ScriptedServer::ScriptedServer(std::string address) : address_(std::move(address)) {
  SocketHandle pair[2];
  if (!zelvarpack::MakeSocketPair(pair)) throw std::runtime_error("socket pair failed");
  stopPipe_[0] = static_cast<std::intptr_t>(pair[0]);
  stopPipe_[1] = static_cast<std::intptr_t>(pair[1]);
  const SocketHandle listener = zelvarpack::OpenStreamSocket();
  listenFd_ = static_cast<std::intptr_t>(listener);
  if (listener != zelvarpack::kNoSocket) zelvarpack::AllowAddressReuse(listener);
  const sockaddr_in where = Port80(address_);
  if (listener == zelvarpack::kNoSocket ||
      ::bind(listener, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0 ||
      ::listen(listener, 128) != 0) {
    const std::string reason = std::strerror(errno);
    if (listener != zelvarpack::kNoSocket) zelvarpack::CloseSocket(listener);
    zelvarpack::CloseSocket(pair[0]);
    zelvarpack::CloseSocket(pair[1]);
    throw std::runtime_error("cannot listen on " + address_ + ":80: " + reason);
  }
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  zelvarpack::SendSome(AsSocket(stopPipe_[1]), "x", 1);
  acceptor_.join();
  std::vector<std::thread> connections;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connections.swap(connections_);
  }
  for (std::thread& connection : connections) connection.join();
  zelvarpack::CloseSocket(AsSocket(listenFd_));
  zelvarpack::CloseSocket(AsSocket(stopPipe_[0]));
  zelvarpack::CloseSocket(AsSocket(stopPipe_[1]));
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
    const SocketHandle accepted = zelvarpack::AcceptSocket(AsSocket(listenFd_));
    if (accepted == zelvarpack::kNoSocket) continue;
    const auto fd = static_cast<std::intptr_t>(accepted);
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.emplace_back([this, fd] { Serve(fd); });
  }
}

void ScriptedServer::Serve(std::intptr_t fd) {
  std::string head;
  char chunk[4096];
  while (head.find("\r\n\r\n") == std::string::npos && WaitReadable(fd, stopPipe_[0])) {
    const std::int64_t got = zelvarpack::ReceiveSome(AsSocket(fd), chunk, sizeof chunk);
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
  zelvarpack::ShutdownSending(AsSocket(fd));
  zelvarpack::CloseSocket(AsSocket(fd));
}
