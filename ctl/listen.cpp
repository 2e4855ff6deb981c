#include "ctl/listen.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <cerrno>
#include <memory>
#include <set>

#include "ctl/client_packet.h"
#include "ctl/configuration.h"
#include "ctl/event_text.h"
#include "ctl/failure.h"
#include "util/descriptor.h"
#include "util/text.h"

namespace {

constexpr int kSendLimitS = 10;
constexpr size_t kReceiveSize = size_t{64} * 1024;

// Returns a connected socket, or none with errno set.
Descriptor connect_to(const addrinfo& address) {
  Descriptor fd(
      above_standard_streams(socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol)));
  if (fd.get() < 0) return fd;
  const timeval send_limit{kSendLimitS, 0};  // holds for the connect too
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof(send_limit));
  // A machine that has lost its power closes nothing: the kernel probes the connection after a minute of silence.
  const struct {
    int level, option, value;
  } keep_alive[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                    {IPPROTO_TCP, TCP_KEEPINTVL, 20},
                    {IPPROTO_TCP, TCP_KEEPCNT, 3}};
  for (const auto& row : keep_alive) setsockopt(fd.get(), row.level, row.option, &row.value, sizeof(row.value));
  if (connect(fd.get(), address.ai_addr, address.ai_addrlen) < 0) {
    if (errno == EINPROGRESS) errno = ETIMEDOUT;
    fd.reset();
  }
  return fd;
}

Descriptor connect_to(const std::string& host, int port) {
  addrinfo wanted{};
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found);
  if (error != 0) fail("failed to find host " + host + ": " + gai_strerror(error));
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    Descriptor fd = connect_to(*address);
    if (fd.get() >= 0) return fd;
  }
  fail(sstr("no daemon at %s:%d: %s", host.c_str(), port, error_text(errno).c_str()));
}

void send_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EINTR) {
      fail("failed to send the subscription: " + error_text(errno));
    }
  }
}

// Waits and appends to `held` what the daemon sends. Fails when `out` is a pipe whose reader has gone, too.
void receive(int fd, FILE* out, std::string& held) {
  pollfd entries[] = {{fd, POLLIN, 0}, {fileno(out), 0, 0}};
  while (poll(entries, 2, -1) < 0) {
    if (errno != EINTR) fail("failed to wait for the daemon: " + error_text(errno));
  }
  if (entries[1].revents != 0) fail("failed to write the output: its reader has gone");
  char bytes[kReceiveSize];
  const ssize_t received = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
  if (received == 0) fail("the daemon closed the connection");
  if (received < 0 && errno != EAGAIN && errno != EINTR) fail("the daemon went away: " + error_text(errno));
  if (received > 0) held.append(bytes, static_cast<size_t>(received));
}

void write_event(FILE* out, const std::string& line) {
  if (fwrite(line.data(), 1, line.size(), out) != line.size() || fflush(out) != 0) {
    fail("failed to write the output: " + error_text(errno));
  }
}

}  // namespace

void print_events(const ListenRequest& request, FILE* out) {
  const std::set<std::string, std::less<>> names(request.names.begin(), request.names.end());
  const std::string subscription = subscription_packet(request.names);
  const Descriptor fd = connect_to(request.host, request.port != 0 ? request.port : configured_port());
  send_all(fd.get(), subscription);
  long written = 0;
  for (std::string held;;) {
    receive(fd.get(), out, held);
    size_t used = 0;
    while (const auto event = first_packet(std::string_view(held).substr(used))) {
      used += event->size;
      if (names.find(event->name) == names.end()) continue;
      write_event(out, request.json ? json_text(*event) : plain_text(*event));
      if (++written == request.count) return;
    }
    held.erase(0, used);
  }
}
