#include "listener/listen_socket.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <utility>

#include "device/log.h"
#include "util/clock.h"
#include "util/socket.h"
#include "util/unix_socket.h"

namespace {

constexpr int kRetryMs = 1000;
constexpr int kTries = 60;

void set_option(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof(value));  // a failure does no harm: clients are served without it
}

// Clients' connections inherit these from the listening socket: small packets leave at once, the kernel hangs up a
// peer that is dead, or takes nothing for two minutes while data waits for it.
void set_client_options(int fd) {
  set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 20);
  set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

// " at 127.0.0.1"; empty for all addresses.
std::string at_text(const ListenEndpoint& endpoint) {
  return endpoint.address == INADDR_ANY ? "" : " at " + endpoint.text();
}

}  // namespace

ListenSocket::ListenSocket(ListenEndpoint where)
    : endpoint(std::move(where)),
      lock_path(endpoint.lock_path()),
      names{endpoint.path.c_str(),
            lock_path.c_str(),
            "mlistener: %s: no client can connect there",
            "mlistener: %s is made: clients can connect there",
            elog,
            true},
      unix_socket(names) {}

bool ListenSocket::open(int port) {
  if (!endpoint.path.empty()) {
    open_now = unix_socket.open();
    const std::string reason = unix_socket.why_replaceable();
    if (!reason.empty()) elog(1, "mlistener: %s: others can put their own sockets in place of ours", reason.c_str());
    return open_now;
  }
  if (open_tcp(port)) return true;
  const int error = errno;
  elog(1, "mlistener: Failed to create server socket(errno:%d)", error);
  if (error == EADDRINUSE) {
    elog(1, "mlistener: port %d%s is in use, trying again for a minute", port, at_text(endpoint).c_str());
    tries_left = kTries;
    next_tcp_try = steady_ms() + kRetryMs;
  } else if (endpoint.address != INADDR_ANY) {
    elog(1, "mlistener: port %d%s cannot be opened (%s)", port, at_text(endpoint).c_str(), strerrordesc_np(error));
  }
  return false;
}

// Returns false, with errno set, when it fails.
bool ListenSocket::open_tcp(int port) {
  const int listening = sock_listen_tcp(port, endpoint.address);
  if (listening < 1) return false;
  set_client_options(listening);
  tcp.reset(listening);
  open_now = true;
  return true;
}

int64_t ListenSocket::next_try() const {
  if (endpoint.path.empty()) return tries_left > 0 ? next_tcp_try : -1;
  const int64_t now = steady_ms();
  const int wait_ms = unix_socket.next_try_ms(now);
  return wait_ms < 0 ? -1 : now + wait_ms;
}

void ListenSocket::maintain(int port, int64_t now) {
  if (endpoint.path.empty()) {
    if (tries_left > 0 && now >= next_tcp_try) try_tcp_again(port, now);
  } else {
    unix_socket.take_change();
    unix_socket.make_again(now);
    open_now = unix_socket.number() != 0;
  }
}

void ListenSocket::try_tcp_again(int port, int64_t now) {
  next_tcp_try = now + kRetryMs;
  if (open_tcp(port)) {
    tries_left = 0;
    elog(1, "mlistener: port %d%s is open now", port, at_text(endpoint).c_str());
  } else if (--tries_left == 0) {
    elog(1, "mlistener: port %d%s cannot be opened (%s): no client can connect until a restart", port,
         at_text(endpoint).c_str(), strerrordesc_np(errno));
  }
}

void ListenSocket::close() {
  if (!endpoint.path.empty()) unix_socket.close();
  tcp.reset();
  tries_left = 0;
  open_now = false;
}

int ListenSocket::port() const {
  if (tcp.get() < 0) return 0;
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  getsockname(tcp.get(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

int ListenSocket::accept(Peer& peer) const {
  if (endpoint.path.empty()) {
    sockaddr_in from{};
    const int fd = sock_accept(tcp.get(), &from, 1);
    peer = {false, from.sin_addr.s_addr, ntohs(from.sin_port)};
    return fd;
  }
  const int fd = sock_accept(unix_socket.descriptor(), nullptr, 1);
  if (fd > 0) {
    const ucred process = unix_peer(fd);
    peer = {true, process.uid, process.pid};
  }
  return fd;
}
