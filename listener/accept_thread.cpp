// The accept thread: admits clients.
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

#include "device/log.h"
#include "listener/manager_listener.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/socket.h"

namespace {

constexpr int kWaitMs = 300;  // how long a pass lasts when nobody comes
constexpr int kDescriptorsForOthers = 320;

// Whether the next accept is likely to fail as well, at once and for the same reason.
bool lasts(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EBADF;
}

void set_option(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof(value));  // a client without it is served all the same
}

// Small packets leave at once, and a peer that is dead, or takes nothing for two minutes while data waits for it, is
// hung up by the kernel.
void set_client_options(int fd) {
  set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 20);
  set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 120 * 1000);
}

}  // namespace

void ManagerListener::accept_loop() {
  while (running) {
    try {
      accept_pass();
    } catch (...) {
      elog(1, "mlistener: unknown error");
    }
  }
}

void ManagerListener::accept_pass() {
  sock_wait_readable(server_fd, kWaitMs);
  sockaddr_in from{};
  const int accepted = sock_accept(server_fd, &from, 1);
  if (accepted <= 0) {
    if (accepted < 0 && lasts(errno)) usleep(kWaitMs * 1000);
    return;
  }
  Descriptor fd(accepted);
  const PeerText peer(from);
  if (is_full()) return say_refused(peer);
  set_client_options(fd.get());
  elog(2, "mlistener: new client : %d - tot:%d", fd.get(), g_accepted_total);
  ++g_accepted_total;
  add_client(fd.get(), peer);
  fd.release();
}

bool ManagerListener::is_full() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const Locked held(mutex);
  return clients.size() >= kClientMax || clients.size() + kDescriptorsForOthers >= descriptors.rlim_cur;
}

void ManagerListener::say_refused(const PeerText& peer) {
  if (const auto left_out = refusal_limit.allow()) {
    elog(1, "mlistener: too many clients, %s is refused%s", peer.text, left_out->text);
  }
}

void ManagerListener::add_client(int fd, const PeerText& peer) {
  const Locked held(mutex);
  std::unique_ptr<ListenerClient> client;
  if (free_clients.empty()) {
    client = std::make_unique<ListenerClient>();
  } else {
    client = std::move(free_clients.back());
    free_clients.pop_back();
  }
  client->open(fd, peer);
  clients.push_back(std::move(client));
}
