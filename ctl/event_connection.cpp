#include "ctl/event_connection.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <chrono>

#include "ctl/daemon_socket.h"
#include "ctl/failure.h"
#include "util/text.h"
#include "util/unix_socket.h"

EventConnection::EventConnection(const std::string& path, int limit)
    : limit_ms(limit), socket(connect_to_daemon(path, limit)) {}

pid_t EventConnection::daemon() const {
  return unix_peer(socket.get()).pid;
}

void EventConnection::send(std::string_view lines) {
  while (!lines.empty()) {
    const ssize_t sent = ::send(socket.get(), lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      lines.remove_prefix(static_cast<size_t>(sent));
    } else if (errno == EAGAIN) {
      wait_for(POLLOUT);
    } else if (errno != EINTR) {
      fail("the daemon went away: " + error_text(errno));
    }
  }
}

void EventConnection::wait_for_input(int input) const {
  pollfd entries[] = {{input, POLLIN, 0}, {socket.get(), POLLRDHUP, 0}};
  while (poll(entries, 2, -1) < 0) {
    if (errno != EINTR) fail("failed to wait for input: " + error_text(errno));
  }
  if (entries[1].revents != 0) fail("the daemon closed the connection");
}

void EventConnection::finish(bool quit_sent) {
  shutdown(socket.get(), SHUT_WR);
  for (;;) {
    wait_for(POLLIN, quit_sent);
    char ignored[256];
    const ssize_t received = recv(socket.get(), ignored, sizeof(ignored), MSG_DONTWAIT);
    if (received == 0) return;
    if (received > 0) fail("the event socket has sent something: what listens there is not the daemon");
    if (received < 0 && errno == EAGAIN && quit_sent && unread_bytes() == 0) return;
    if (received < 0 && errno != EAGAIN && errno != EINTR) {  // a reset: the daemon left something unread
      fail("the daemon went away before it took in everything: " + error_text(errno));
    }
  }
}

void EventConnection::wait_for(short events, bool enough_when_read) const {
  using Clock = std::chrono::steady_clock;
  const int slice_ms = std::clamp(limit_ms / 20, 1, 100);
  int unread = unread_bytes();
  Clock::time_point last_progress = Clock::now();
  for (;;) {
    pollfd entry{socket.get(), events, 0};
    const int ready = poll(&entry, 1, slice_ms);
    if (ready > 0) return;
    if (ready < 0 && errno != EINTR) fail("failed to wait for the daemon: " + error_text(errno));
    const int now_unread = unread_bytes();
    if (now_unread == 0 && enough_when_read) return;
    if (now_unread < unread) {
      unread = now_unread;
      last_progress = Clock::now();
    } else if (Clock::now() - last_progress >= std::chrono::milliseconds(limit_ms)) {
      fail(sstr("the daemon has %s for %g s; it may still handle the events, and posting them again may double them",
                now_unread > 0 ? "read nothing" : "read everything and then been busy", limit_ms / 1000.0));
    }
  }
}

int EventConnection::unread_bytes() const {
  int unread = 0;
  ioctl(socket.get(), SIOCOUTQ, &unread);
  return unread;
}
