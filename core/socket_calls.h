// The socket calls of the tool's web server and the tests' loopback servers
// in one form for POSIX and Winsock (header only: the library itself opens
// no sockets). Sockets are IPv4 TCP, never inherited by child processes;
// sending never raises SIGPIPE; EINTR is retried.
#ifndef ZELVARPACK_CORE_SOCKET_CALLS_H_
#define ZELVARPACK_CORE_SOCKET_CALLS_H_

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#endif

#include <cstddef>
#include <cstdint>

namespace zelvarpack {

#if defined(_WIN32)
using SocketHandle = SOCKET;
inline constexpr SocketHandle kNoSocket = INVALID_SOCKET;
using SocketPollEntry = WSAPOLLFD;
#else
using SocketHandle = int;
inline constexpr SocketHandle kNoSocket = -1;
using SocketPollEntry = pollfd;
#endif

// Starts the socket library (Winsock needs it once per process; nothing on
// POSIX). Safe to call from any thread, any number of times.
inline void StartSockets() {
#if defined(_WIN32)
  static const bool started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  (void)started;
#endif
}

inline SocketHandle OpenStreamSocket() {
  StartSockets();
#if defined(_WIN32)
  return ::WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
#else
  return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
#endif
}

inline SocketHandle AcceptSocket(SocketHandle listener) {
#if defined(_WIN32)
  // Accepted sockets take the listener's attributes: not inheritable.
  return ::accept(listener, nullptr, nullptr);
#else
  int fd;
  do {
    fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
#endif
}

// After a failed AcceptSocket: true when accepting may work again later
// (an aborted connection, or descriptors or memory short for a while).
inline bool AcceptFailureIsTransient() {
#if defined(_WIN32)
  const int error = ::WSAGetLastError();
  return error == WSAECONNRESET || error == WSAEMFILE || error == WSAENOBUFS || error == WSAEINTR;
#else
  return errno == ECONNABORTED || errno == EMFILE || errno == ENFILE || errno == ENOBUFS ||
         errno == ENOMEM;
#endif
}

inline void CloseSocket(SocketHandle socket) {
#if defined(_WIN32)
  ::closesocket(socket);
#else
  ::close(socket);
#endif
}

// Says that nothing more will be sent (the peer reads end of stream).
inline void ShutdownSending(SocketHandle socket) {
#if defined(_WIN32)
  ::shutdown(socket, SD_SEND);
#else
  ::shutdown(socket, SHUT_WR);
#endif
}

// Bytes sent (at least one), or -1 when the connection failed or a time-out
// set by SetSocketTimeouts passed.
inline std::int64_t SendSome(SocketHandle socket, const void* bytes, std::size_t count) {
#if defined(_WIN32)
  const int chunk = count > (1u << 30) ? (1 << 30) : static_cast<int>(count);
  const int sent = ::send(socket, static_cast<const char*>(bytes), chunk, 0);
  return sent == SOCKET_ERROR ? -1 : sent;
#else
  ssize_t sent;
  do {
    sent = ::send(socket, bytes, count, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent;
#endif
}

// Bytes received, 0 at end of stream, -1 on error or time-out.
inline std::int64_t ReceiveSome(SocketHandle socket, void* bytes, std::size_t count) {
#if defined(_WIN32)
  const int chunk = count > (1u << 30) ? (1 << 30) : static_cast<int>(count);
  const int got = ::recv(socket, static_cast<char*>(bytes), chunk, 0);
  return got == SOCKET_ERROR ? -1 : got;
#else
  ssize_t got;
  do {
    got = ::recv(socket, bytes, count, 0);
  } while (got < 0 && errno == EINTR);
  return got;
#endif
}

// Time-outs of single receives and sends, in whole seconds.
inline void SetSocketTimeouts(SocketHandle socket, int receiveSeconds, int sendSeconds) {
#if defined(_WIN32)
  const DWORD receive = static_cast<DWORD>(receiveSeconds) * 1000;
  const DWORD send = static_cast<DWORD>(sendSeconds) * 1000;
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&receive),
               sizeof receive);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&send), sizeof send);
#else
  const timeval receive{receiveSeconds, 0};
  const timeval send{sendSeconds, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &receive, sizeof receive);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &send, sizeof send);
#endif
}

// SO_REUSEADDR on a listener (on Windows SO_EXCLUSIVEADDRUSE is what keeps
// others off the port; plain reuse there would let two listeners share it,
// so nothing is set).
inline void AllowAddressReuse(SocketHandle socket) {
#if !defined(_WIN32)
  const int yes = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
#else
  (void)socket;
#endif
}

// poll(2) / WSAPoll over sockets; `timeoutMs` -1 waits without limit.
// Returns the number of ready entries, or -1 on error (EINTR retried).
inline int PollSockets(SocketPollEntry* entries, std::size_t count, int timeoutMs) {
#if defined(_WIN32)
  return ::WSAPoll(entries, static_cast<ULONG>(count), timeoutMs);
#else
  int ready;
  do {
    ready = ::poll(entries, static_cast<nfds_t>(count), timeoutMs);
  } while (ready < 0 && errno == EINTR);
  return ready;
#endif
}

inline bool ConnectSocket(SocketHandle socket, const sockaddr_in& where) {
  return ::connect(socket, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
}

// Two connected sockets on 127.0.0.1 (a pipe that poll and WSAPoll can both
// wait on: Winsock polls sockets only). False when they cannot be made.
inline bool MakeSocketPair(SocketHandle pair[2]) {
  pair[0] = pair[1] = kNoSocket;
  const SocketHandle listener = OpenStreamSocket();
  if (listener == kNoSocket) return false;
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  where.sin_port = 0;
  socklen_t length = sizeof where;
  bool ok = ::bind(listener, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0 &&
            ::listen(listener, 1) == 0 &&
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&where), &length) == 0;
  if (ok) {
    pair[0] = OpenStreamSocket();
    ok = pair[0] != kNoSocket && ConnectSocket(pair[0], where);
  }
  if (ok) {
    pair[1] = AcceptSocket(listener);
    ok = pair[1] != kNoSocket;
  }
  CloseSocket(listener);
  if (!ok) {
    if (pair[0] != kNoSocket) CloseSocket(pair[0]);
    pair[0] = pair[1] = kNoSocket;
  }
  return ok;
}

}  // namespace zelvarpack

#endif  // ZELVARPACK_CORE_SOCKET_CALLS_H_
