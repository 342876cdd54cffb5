#include "core/socket_calls.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

using zelvarpack::SocketHandle;
using zelvarpack::SocketPollEntry;

std::string ReceiveAll(SocketHandle socket) {
  std::string all;
  char chunk[4096];
  for (;;) {
    const std::int64_t got = zelvarpack::ReceiveSome(socket, chunk, sizeof chunk);
    if (got <= 0) return all;
    all.append(chunk, static_cast<std::size_t>(got));
  }
}

TEST(SocketCalls, PairCarriesBytesBothWaysAndShutdownEndsTheStream) {
  SocketHandle pair[2];
  ASSERT_TRUE(zelvarpack::MakeSocketPair(pair));
  // More than one socket buffer's worth, so sends are partial and repeated.
  std::string big(3 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 31 % 253);
  std::thread writer([&] {
    std::size_t done = 0;
    while (done < big.size()) {
      const std::int64_t sent = zelvarpack::SendSome(pair[0], big.data() + done, big.size() - done);
      if (sent <= 0) break;
      done += static_cast<std::size_t>(sent);
    }
    zelvarpack::ShutdownSending(pair[0]);
  });
  EXPECT_TRUE(ReceiveAll(pair[1]) == big);
  writer.join();

  EXPECT_EQ(zelvarpack::SendSome(pair[1], "back", 4), 4);
  zelvarpack::ShutdownSending(pair[1]);
  EXPECT_EQ(ReceiveAll(pair[0]), "back");
  zelvarpack::CloseSocket(pair[0]);
  zelvarpack::CloseSocket(pair[1]);
}

TEST(SocketCalls, PollTellsTheReadySocketApart) {
  SocketHandle quiet[2];
  SocketHandle busy[2];
  ASSERT_TRUE(zelvarpack::MakeSocketPair(quiet));
  ASSERT_TRUE(zelvarpack::MakeSocketPair(busy));
  SocketPollEntry entries[2] = {{quiet[1], POLLIN, 0}, {busy[1], POLLIN, 0}};
  EXPECT_EQ(zelvarpack::PollSockets(entries, 2, 0), 0) << "nothing sent yet";
  ASSERT_EQ(zelvarpack::SendSome(busy[0], "x", 1), 1);
  entries[0].revents = entries[1].revents = 0;
  EXPECT_EQ(zelvarpack::PollSockets(entries, 2, -1), 1);
  EXPECT_EQ(entries[0].revents & POLLIN, 0);
  EXPECT_NE(entries[1].revents & POLLIN, 0);
  for (SocketHandle socket : {quiet[0], quiet[1], busy[0], busy[1]}) {
    zelvarpack::CloseSocket(socket);
  }
}

TEST(SocketCalls, ListenerAcceptsAndTheServedSideSeesTheClientClose) {
  const SocketHandle listener = zelvarpack::OpenStreamSocket();
  ASSERT_NE(listener, zelvarpack::kNoSocket);
  zelvarpack::AllowAddressReuse(listener);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  ASSERT_EQ(::inet_pton(AF_INET, "127.0.0.1", &where.sin_addr), 1);
  socklen_t length = sizeof where;
  ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&where), &length), 0);

  const SocketHandle client = zelvarpack::OpenStreamSocket();
  ASSERT_TRUE(zelvarpack::ConnectSocket(client, where));
  const SocketHandle served = zelvarpack::AcceptSocket(listener);
  ASSERT_NE(served, zelvarpack::kNoSocket);
  ASSERT_EQ(zelvarpack::SendSome(client, "hi", 2), 2);
  zelvarpack::CloseSocket(client);
  char two[2];
  ASSERT_EQ(zelvarpack::ReceiveSome(served, two, 2), 2);
  EXPECT_EQ(std::string(two, 2), "hi");
  char byte;
  EXPECT_EQ(zelvarpack::ReceiveSome(served, &byte, 1), 0) << "the client closed";
  zelvarpack::CloseSocket(served);
  zelvarpack::CloseSocket(listener);
}

// Not under Wine 8, which ignores SO_RCVTIMEO: the receive would wait for
// ever (cmake/windows_tests.cmake leaves it out there).
TEST(SocketCalls, ReceiveEndsAtTheTimeOutWithAnError) {
  SocketHandle pair[2];
  ASSERT_TRUE(zelvarpack::MakeSocketPair(pair));
  zelvarpack::SetSocketTimeouts(pair[1], 1, 1);
  char byte;
  // Nothing is coming: an error at the time-out, not end of stream.
  EXPECT_LT(zelvarpack::ReceiveSome(pair[1], &byte, 1), 0);
  zelvarpack::CloseSocket(pair[0]);
  zelvarpack::CloseSocket(pair[1]);
}

}  // namespace
