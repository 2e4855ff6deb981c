#include "util/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <csignal>
#include <ctime>
#include <vector>

#include "util/descriptor.h"

namespace {

TEST(Socket, ListensOnPortsAlone) {
  EXPECT_EQ(fcntl(Descriptor(sock_listen_tcp(0)).get(), F_GETFD), FD_CLOEXEC);
  for (const int port : {-1, 65536}) EXPECT_EQ(sock_listen_tcp(port), SOCK_ERR_BIND);
}

TEST(Socket, WaitsAndSendsOnAnyDescriptor) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const Descriptor near(ends[0]);
  Descriptor far(fcntl(ends[1], F_DUPFD_CLOEXEC, 1500));  // beyond what a descriptor set holds
  close(ends[1]);
  EXPECT_EQ(sock_wait_readable(far.get(), -1), 0);
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 0), 0);
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 1000), 3);
  EXPECT_EQ(sock_wait_readable(far.get(), -1), 1);
  for (const int none : {-1, 4000}) EXPECT_EQ(sock_wait_readable(none, 10000), SOCK_ERR_SELECT);

  const std::vector<char> much(4 << 20);
  const uint32_t start = sock_now_ms();
  const clock_t used = clock();
  const int sent = sock_send_all(near.get(), much.data(), static_cast<int>(much.size()), 300);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 4 << 20);
  EXPECT_GE(sock_now_ms() - start, 300u);
  EXPECT_LT(sock_now_ms() - start, 1000u);
  EXPECT_LT(clock() - used, CLOCKS_PER_SEC * 3 / 20);  // it waits, and does not spin
  EXPECT_EQ(sock_send_ready(near.get(), much.data(), 1000), 0);

  signal(SIGPIPE, SIG_IGN);
  far.reset();
  EXPECT_EQ(sock_send_all(near.get(), "abc", 3, 3000), SOCK_ERR_SEND);
}

}  // namespace
