#include "util/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <vector>

#include "util/descriptor.h"

namespace {

struct Pair {
  Pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }
  Descriptor near, far;
};

TEST(Socket, ListenSaysWhatFailed) {
  const Descriptor first(sock_listen_tcp(0));
  ASSERT_GT(first.get(), 2);
  EXPECT_EQ(fcntl(first.get(), F_GETFD), FD_CLOEXEC);
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(first.get(), reinterpret_cast<sockaddr*>(&address), &size);
  EXPECT_EQ(sock_listen_tcp(ntohs(address.sin_port)), SOCK_ERR_BIND);
  EXPECT_EQ(errno, EADDRINUSE);
  for (const int port : {-1, 65536}) EXPECT_EQ(sock_listen_tcp(port), SOCK_ERR_BIND) << port;
  EXPECT_EQ(sock_accept(first.get(), nullptr, 1), 0);  // nobody there
}

TEST(Socket, WaitsOnAnyDescriptor) {
  Pair pair;
  const Descriptor high(fcntl(pair.near.get(), F_DUPFD_CLOEXEC, 1500));  // beyond what a descriptor set holds
  ASSERT_GE(high.get(), 1500);
  EXPECT_EQ(sock_wait_readable(high.get(), -1), 0);
  ASSERT_EQ(send(pair.far.get(), "x", 1, 0), 1);
  EXPECT_EQ(sock_wait_readable(high.get(), -1), 1);
  EXPECT_EQ(sock_wait_readable(-1, 10000), SOCK_ERR_SELECT);
  EXPECT_EQ(sock_wait_readable(4000, 10000), SOCK_ERR_SELECT);
}

TEST(Socket, SendsAllWithinItsTime) {
  Pair pair;
  EXPECT_EQ(sock_send_all(pair.near.get(), "abc", 3, 0), 0);
  EXPECT_EQ(sock_send_all(pair.near.get(), "abc", 3, 1000), 3);
  const std::vector<char> much(4 << 20);
  const uint32_t start = sock_now_ms();
  const clock_t used = clock();
  const int sent = sock_send_all(pair.near.get(), much.data(), static_cast<int>(much.size()), 300);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<int>(much.size()));
  EXPECT_GE(sock_now_ms() - start, 300u);
  EXPECT_LT(sock_now_ms() - start, 1000u);
  EXPECT_LT(clock() - used, CLOCKS_PER_SEC * 3 / 20);  // it waits, and does not spin
  EXPECT_EQ(sock_send_ready(pair.near.get(), much.data(), 1000), 0);
}

volatile sig_atomic_t pipes_broken = 0;

TEST(Socket, SendToSomeoneGoneFailsAndRaisesTheSignal) {
  signal(SIGPIPE, [](int) { pipes_broken = pipes_broken + 1; });
  Pair pair;
  pair.far.reset();
  EXPECT_EQ(sock_send_all(pair.near.get(), "abc", 3, 3000), SOCK_ERR_SEND);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(pipes_broken, 1);
}

}  // namespace
