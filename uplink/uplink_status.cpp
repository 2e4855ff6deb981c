#include "uplink/uplink_status.h"

#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ctl/control_client.h"
#include "device/log.h"
#include "util/clock.h"

namespace {

constexpr size_t kRequestMax = 200;  // bytes

constexpr OwnedSocket::Names kStatusSocket{kUplinkSocketPath, kUplinkLockPath,
                                           "uplink: %s: zelvctl cannot ask this uplink",
                                           "uplink: %s is made: zelvctl can ask this uplink", elog};

}  // namespace

StatusLines& StatusLines::line(const char* kind) {
  text += (text.empty() ? "" : "\n") + std::string(kind);
  return *this;
}

StatusLines& StatusLines::key(const char* name, const std::string& value) {
  text += std::string(" ") + name + "=" + encoded(value);
  return *this;
}

StatusSocket::StatusSocket(std::function<std::string()> make_stats)
    : stats(std::move(make_stats)), socket(kStatusSocket) {
  socket.open();
}

void StatusSocket::add_descriptors(std::vector<pollfd>& out) const {
  for (const int fd : {socket.descriptor(), socket.change_descriptor()}) {
    if (fd >= 0) out.push_back({fd, POLLIN, 0});
  }
  for (const Client& client : clients) {
    out.push_back({client.fd.get(), static_cast<short>(client.owed.empty() ? POLLIN : POLLOUT), 0});
  }
}

int StatusSocket::wait_ms() const {
  return socket.next_try_ms(steady_ms());
}

void StatusSocket::run() {
  if (socket.number() == 0 || (socket.change_descriptor() >= 0 && socket.take_change())) {
    socket.make_again(steady_ms());
  }
  if (socket.descriptor() >= 0) accept_waiting();
  clients.remove_if([this](Client& client) { return !serve(client); });
}

void StatusSocket::accept_waiting() {
  for (;;) {
    Descriptor fd(above_standard_streams(accept4(socket.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)));
    if (fd.get() < 0) return;
    if (clients.size() == kClientsMost) clients.pop_front();
    clients.push_back({std::move(fd), "", ""});
  }
}

// Returns false when the client is to be dropped. The next request is read when the answer to this one is sent.
bool StatusSocket::serve(Client& client) const {
  if (client.owed.empty()) {
    char bytes[kRequestMax];
    const ssize_t got = recv(client.fd.get(), bytes, sizeof(bytes) - client.asked.size(), MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    client.asked.append(bytes, static_cast<size_t>(got));
    const size_t end = client.asked.find('\n');
    if (end == std::string::npos) return got > 0 && client.asked.size() < sizeof(bytes);
    std::string request = client.asked.substr(0, end);
    if (!request.empty() && request.back() == '\r') request.pop_back();
    client.asked.erase(0, end + 1);
    client.owed = request == "stats" ? stats() : "error: unknown request: expected stats\n\n";
  }
  const ssize_t sent = send(client.fd.get(), client.owed.data(), client.owed.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent < 0) return errno == EAGAIN || errno == EINTR;
  client.owed.erase(0, static_cast<size_t>(sent));
  return true;
}
