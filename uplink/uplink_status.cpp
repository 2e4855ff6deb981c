#include "uplink/uplink_status.h"

#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ctl/control_client.h"
#include "device/log.h"
#include "util/clock.h"

namespace {

constexpr size_t kRequestMax = 200;  // bytes, with the line end
constexpr int kAcceptRetryMs = 300;

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
  const int listening = accept_not_before == 0 ? socket.descriptor() : -1;
  for (const int fd : {listening, socket.change_descriptor()}) {
    if (fd >= 0) out.push_back({fd, POLLIN, 0});
  }
  for (const Client& client : clients) {
    out.push_back({client.fd.get(), static_cast<short>(client.owed.empty() ? POLLIN : POLLOUT), 0});
  }
}

int StatusSocket::wait_ms() const {
  const int64_t now = steady_ms();
  const int next_try = socket.next_try_ms(now);
  if (accept_not_before == 0) return next_try;
  const auto next_accept = static_cast<int>(std::max<int64_t>(accept_not_before - now, 0));
  return next_try < 0 ? next_accept : std::min(next_try, next_accept);
}

void StatusSocket::run() {
  if (socket.number() == 0 || (socket.change_descriptor() >= 0 && socket.take_change())) {
    socket.make_again(steady_ms());
  }
  if (socket.descriptor() >= 0) accept_waiting();
  clients.remove_if([this](Client& client) { return !serve(client); });
}

// The newcomer that finds no descriptor stays in the queue, so the next try is later: otherwise poll() would return at
// once, again and again.
void StatusSocket::accept_waiting() {
  if (accept_not_before > steady_ms()) return;
  accept_not_before = 0;
  for (size_t i = 0; i < kClientsMost; ++i) {
    Descriptor fd(above_standard_streams(accept4(socket.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)));
    if (fd.get() < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (fd.get() < 0 && errno == EAGAIN) return;
    if (fd.get() < 0) {
      accept_not_before = steady_ms() + kAcceptRetryMs;
      if (const auto left_out = accept_limit.allow()) {
        elog(1, "uplink: cannot accept a client of its socket: %s%s", strerrordesc_np(errno), left_out->text);
      }
      return;
    }
    if (clients.size() == kClientsMost) clients.pop_front();
    clients.push_back({std::move(fd), "", ""});
  }
}

// Reads once and answers each whole request that there is then. A request is answered when the answer to the one before
// is sent. Returns false when the client is to be dropped.
bool StatusSocket::serve(Client& client) const {
  if (!send_owed(client)) return false;
  if (client.owed.empty() && client.asked.find('\n') == std::string::npos && !receive(client)) return false;
  for (size_t end = 0; client.owed.empty() && (end = client.asked.find('\n')) != std::string::npos;) {
    std::string request = client.asked.substr(0, end);
    if (!request.empty() && request.back() == '\r') request.pop_back();
    client.asked.erase(0, end + 1);
    client.owed = request == "stats" ? stats() : "error: unknown request: expected stats\n\n";
    if (!send_owed(client)) return false;
  }
  return client.asked.size() < kRequestMax || !client.owed.empty();
}

bool StatusSocket::receive(Client& client) {
  char bytes[kRequestMax];
  const ssize_t got = recv(client.fd.get(), bytes, sizeof(bytes) - client.asked.size(), MSG_DONTWAIT);
  if (got > 0) client.asked.append(bytes, static_cast<size_t>(got));
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

bool StatusSocket::send_owed(Client& client) {
  if (client.owed.empty()) return true;
  const ssize_t sent = send(client.fd.get(), client.owed.data(), client.owed.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent > 0) client.owed.erase(0, static_cast<size_t>(sent));
  return sent >= 0 || errno == EAGAIN || errno == EINTR;
}
