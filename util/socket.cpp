#include "util/socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>

#include "util/clock.h"
#include "util/descriptor.h"

int sock_init() {
  return 1;
}

void sock_exit() {}

uint32_t sock_now_ms() {
  return static_cast<uint32_t>(now_ms());
}

int sock_errno_class() {
  return errno == EAGAIN ? -11 : errno == EINPROGRESS ? -10 : -1;
}

int sock_listen_tcp(int port, in_addr_t address) {
  if (port < 0 || port > 65535) {
    errno = EINVAL;
    return SOCK_ERR_BIND;
  }
  Descriptor fd(above_standard_streams(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  if (fd.get() < 0) return SOCK_ERR_SOCKET;
  const int on = 1;
  if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) return SOCK_ERR_SOCKOPT;
  const bool may_come_up = address != INADDR_ANY;
  if (may_come_up && setsockopt(fd.get(), IPPROTO_IP, IP_FREEBIND, &on, sizeof(on)) < 0) return SOCK_ERR_SOCKOPT;
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = address;
  place.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&place), sizeof(place)) < 0) return SOCK_ERR_BIND;
  if (listen(fd.get(), INT_MAX) < 0) return SOCK_ERR_LISTEN;
  return fd.release();
}

int sock_wait_readable(int fd, int timeout_ms) {
  if (fd < 0) {  // poll would ignore it and wait in vain
    errno = EBADF;
    return SOCK_ERR_SELECT;
  }
  pollfd wanted{fd, POLLIN, 0};
  const int ready = poll(&wanted, 1, std::max(timeout_ms, 0));
  if (ready < 0) return SOCK_ERR_SELECT;
  if ((wanted.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return SOCK_ERR_SELECT;
  }
  return ready;
}

int sock_accept(int fd, sockaddr_in* peer, int timeout_ms) {
  const int ready = sock_wait_readable(fd, timeout_ms);
  if (ready <= 0) return ready;
  if (peer != nullptr) *peer = sockaddr_in{};
  socklen_t size = sizeof(*peer);
  const int accepted = above_standard_streams(
      accept4(fd, reinterpret_cast<sockaddr*>(peer), peer == nullptr ? nullptr : &size, SOCK_CLOEXEC));
  return accepted < 0 ? SOCK_ERR_ACCEPT : accepted;
}

int sock_send_all(int fd, const char* buf, int len, uint32_t timeout_ms) {
  const uint32_t start = sock_now_ms();
  if (timeout_ms == 0) return 0;
  int sent = 0;
  for (;;) {
    const int now_sent = sock_send_ready(fd, buf + sent, len - sent);
    if (now_sent < 0) return now_sent;
    sent += now_sent;
    if (sent == len) return sent;
    const uint32_t elapsed = sock_now_ms() - start;
    if (elapsed >= timeout_ms) return sent;
    pollfd wanted{fd, POLLOUT, 0};
    poll(&wanted, 1, static_cast<int>(std::min<uint32_t>(timeout_ms - elapsed, INT_MAX)));
  }
}

int sock_send_ready(int fd, const char* buf, int len) {
  int sent = 0;
  while (sent < len) {
    const ssize_t now_sent = send(fd, buf + sent, static_cast<size_t>(len - sent), MSG_DONTWAIT);
    if (now_sent >= 0) {
      sent += static_cast<int>(now_sent);
    } else if (errno != EINTR) {
      return (sent > 0 || sock_errno_class() == -11) ? sent : SOCK_ERR_SEND;
    }
  }
  return sent;
}

void sock_close(int fd) {
  close(fd);
}
